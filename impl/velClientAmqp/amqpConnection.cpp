/*
 * amqpConnection.cpp - the life of a broker connection: the I/O thread and its
 * proactor loop, connecting to each host in turn within the connect timeout,
 * failover and reconnect with their events, the close, and the doors through
 * which application threads queue work and wake the I/O thread.
 */
#include "velClientAmqp/amqpConnection.h"

#include <proton/condition.h>
#include <proton/connection.h>
#include <proton/delivery.h>
#include <proton/link.h>
#include <proton/event.h>
#include <proton/proactor.h>
#include <proton/sasl.h>
#include <proton/session.h>
#include <proton/transport.h>

#include <chrono>
#include <new>

#include "velClientAmqp/amqpTls.h"
#include "velClientLog/logPrivate.h"
#include "velClientSession/sessionPrivate.h"

namespace vel::amqp {

namespace {

/* How long a close waits for the broker's answer before dropping the socket. */
constexpr pn_millis_t kCloseGraceMs = 2000;

/* "name: description" of a Proton condition, or fallback when it is unset. */
std::string conditionText(pn_condition_t *condition, const char *fallback)
{
    if (condition == nullptr || !pn_condition_is_set(condition))
        return fallback;
    std::string text = pn_condition_get_name(condition) ? pn_condition_get_name(condition) : "error";
    if (const char *description = pn_condition_get_description(condition))
        text.append(": ").append(description);
    return text;
}

/* The broker's reason for ending a link or session. */
std::string remoteReason(pn_condition_t *condition)
{
    return condition != nullptr && pn_condition_is_set(condition) && pn_condition_get_description(condition)
               ? pn_condition_get_description(condition)
               : "closed by the broker";
}

bool isLoginRefusal(pn_condition_t *condition)
{
    const char *name = condition != nullptr ? pn_condition_get_name(condition) : nullptr;
    return name != nullptr && std::string_view(name) == "amqp:unauthorized-access";
}

/* The session's reply subscription: its inbox topic base and every level below. */
Subscription inboxOf(_velClient_session *session)
{
    std::string inbox = session->p2pTopicBase;
    inbox.append("/>");
    return {topicAddress(session->broker.addressing, inbox, true), false, inbox};
}

/* A connection the proactor disconnected (a connect that got no answer) is
 * freed only once its last events are taken: takes what is left, up to the
 * proactor's inactivity (and a bound, in case that never comes). */
void takeLastEvents(pn_proactor_t *proactor)
{
    bool inactive = false;
    for (int left = 64; !inactive && left > 0; --left) {
        pn_event_batch_t *batch = pn_proactor_get(proactor);
        if (batch == nullptr)
            return;
        while (pn_event_t *event = pn_event_batch_next(batch))
            inactive = inactive || pn_event_type(event) == PN_PROACTOR_INACTIVE;
        pn_proactor_done(proactor, batch);
    }
}

} // namespace

Connection::Connection(_velClient_session *session)
    : broker::Connection(session, inboxOf(session)), proactor_(pn_proactor())
{
}

Connection::~Connection()
{
    if (ioThread_.joinable())
        close();
    if (proactor_ == nullptr)
        return;
    takeLastEvents(proactor_);
    pn_proactor_free(proactor_);
}

/* Proton wakes the connection, or the proactor while there is none. */
void Connection::wakeIo()
{
    if (live_ != nullptr)
        pn_connection_wake(live_);
    else
        pn_proactor_interrupt(proactor_);
}

void Connection::run()
{
    startAttempt();
    while (!finished_) {
        pn_event_batch_t *batch = pn_proactor_wait(proactor_);
        while (pn_event_t *event = pn_event_batch_next(batch)) {
            pn_connection_t *owner = pn_event_connection(event);
            handle(event);
            if (queuedByCallback_)
                runQueuedByCallback(owner);
        }
        notifyWindow();
        pn_proactor_done(proactor_, batch);
    }
}

/* Commands a callback queued while the I/O thread handled an event of the
 * current connection run at once, so that they leave with the output of the
 * same batch (a reply with the acceptance of its request); otherwise Proton
 * wakes the connection for them. */
void Connection::runQueuedByCallback(pn_connection_t *owner)
{
    queuedByCallback_ = false;
    if (connection_ != nullptr && owner == connection_) {
        runCommands();
        return;
    }
    std::lock_guard lock(mutex_);
    wakePending_ = true;
    wakeIo();
}

void Connection::handle(pn_event_t *event)
{
    switch (pn_event_type(event)) {
    case PN_CONNECTION_INIT:
        pn_connection_open(connection_);
        amqpSession_ = pn_session(connection_);
        pn_session_open(amqpSession_);
        break;
    case PN_CONNECTION_REMOTE_OPEN: connectionUp(); break;
    case PN_CONNECTION_REMOTE_CLOSE:
        attemptTimeout_ = conditionText(pn_connection_remote_condition(connection_), "closed by the broker");
        pn_connection_close(connection_);
        break;
    case PN_SESSION_REMOTE_CLOSE:
        if (pn_event_session(event) == amqpSession_ && opened_ && !closing_)
            sessionEnded();
        break;
    case PN_LINK_REMOTE_OPEN:
        if (auto found = receivers_.find(pn_event_link(event)); found != receivers_.end())
            attachAnswered(found->second);
        break;
    case PN_LINK_REMOTE_CLOSE:
        linkClosed(pn_event_link(event), remoteReason(pn_link_remote_condition(pn_event_link(event))));
        closeWhenFlushed();
        break;
    case PN_LINK_FLOW:
        for (auto &[address, sender] : senders_)
            if (sender.link == pn_event_link(event))
                pump(sender);
        closeWhenFlushed();
        break;
    case PN_DELIVERY: {
        pn_delivery_t *delivery = pn_event_delivery(event);
        if (pn_link_is_sender(pn_delivery_link(delivery)))
            settled(delivery);
        else
            received(delivery);
        break;
    }
    case PN_CONNECTION_WAKE:
    case PN_PROACTOR_INTERRUPT: runCommands(); break;
    case PN_PROACTOR_TIMEOUT: timedOut(); break;
    case PN_TRANSPORT_CLOSED: transportClosed(event); break;
    default: break;
    }
}

/* Connects to the current host; the result arrives as REMOTE_OPEN or TRANSPORT_CLOSED. */
void Connection::startAttempt()
{
    const session::BrokerSettings &b = session_->broker;
    const session::BrokerHost &host = b.hosts[hostIndex_];
    std::string port = std::to_string(host.port != 0 ? host.port : (b.ssl ? 5671 : 5672));
    attemptHost_ = host.name;
    attemptHost_.append(":").append(port);
    attemptTimeout_.clear();
    opened_ = false;
    connection_ = pn_connection();
    pn_connection_set_container(connection_, session_->clientName);
    pn_connection_set_hostname(connection_, host.name.c_str());
    if (!b.userName.empty()) {
        pn_connection_set_user(connection_, b.userName.c_str());
        pn_connection_set_password(connection_, b.password.c_str());
    }
    pn_transport_t *transport = pn_transport();
    if (b.keepaliveMs > 0)
        pn_transport_set_idle_timeout(transport, static_cast<pn_millis_t>(b.keepaliveMs));
    pn_sasl_t *sasl = pn_sasl(transport);
    pn_sasl_allowed_mechs(sasl, b.userName.empty() ? "ANONYMOUS" : "PLAIN");
    pn_sasl_set_allow_insecure_mechs(sasl, true);
    std::string tlsProblem;
    if (b.ssl && !useTls(transport, b, host.name, tlsProblem)) {
        pn_transport_free(transport);
        pn_connection_free(connection_);
        connection_ = nullptr;
        attemptFailed(tlsProblem, VELCLIENT_SUBCODE_COMMUNICATION_ERROR);
        return;
    }
    {
        std::lock_guard lock(mutex_);
        live_ = connection_;
    }
    char address[PN_MAX_ADDR];
    pn_proactor_addr(address, sizeof address, host.name.c_str(), port.c_str());
    pn_proactor_set_timeout(proactor_, static_cast<pn_millis_t>(b.connectTimeoutMs));
    pn_proactor_connect2(proactor_, connection_, transport, address);
}

void Connection::timedOut()
{
    if (closing_ || (connection_ != nullptr && !opened_)) {
        if (connection_ != nullptr && !closing_)
            attemptTimeout_ = "no answer within " + std::to_string(session_->broker.connectTimeoutMs) + " ms";
        pn_proactor_disconnect(proactor_, nullptr);
    } else if (connection_ == nullptr && phase_ == Phase::reconnecting) {
        startAttempt();
    }
}

void Connection::transportClosed(pn_event_t *event)
{
    pn_condition_t *condition = pn_transport_condition(pn_event_transport(event));
    std::string reason = conditionText(condition, "connection closed");
    if (!attemptTimeout_.empty())
        reason = attemptTimeout_;
    {
        std::lock_guard lock(mutex_);
        live_ = nullptr;
        wakePending_ = false; /* a wake of the closed connection never arrives */
        awaitingAck_.clear();
    }
    connection_ = nullptr;
    amqpSession_ = nullptr;
    senders_.clear();
    receivers_.clear();
    clientAcks_.clear();
    velClient_subCode_t code = VELCLIENT_SUBCODE_COMMUNICATION_ERROR;
    if (isLoginRefusal(condition))
        code = VELCLIENT_SUBCODE_LOGIN_FAILURE;
    else if (attemptTimeout_.rfind("no answer", 0) == 0)
        code = VELCLIENT_SUBCODE_TIMEOUT;
    ended(reason, code);
}

void Connection::setTimer(std::int64_t ms)
{
    pn_proactor_set_timeout(proactor_, static_cast<pn_millis_t>(ms));
}

void Connection::cancelTimer()
{
    pn_proactor_cancel_timeout(proactor_);
}

void Connection::resume()
{
    openLinks();
    runCommands();
}

void Connection::dropOutgoing(std::vector<void *> &refused)
{
    unsettled_.forEach([&](std::uint64_t, const Outgoing &message) { refused.push_back(message.correlation_p); });
    unsettled_.clear();
    direct_.clear();
}

void Connection::beginClose()
{
    if (connection_ == nullptr) {
        finished_ = true;
        return;
    }
    pn_connection_close(connection_);
    pn_proactor_set_timeout(proactor_, kCloseGraceMs);
}

/* The broker ended the AMQP session. Some brokers do so when they refuse an
 * attach: the first link it never answered is the refused one, reported and
 * dropped, and a new session carries the other subscriptions and the messages
 * not yet acknowledged. Without such a link the connection starts over. */
void Connection::sessionEnded()
{
    std::string reason = remoteReason(pn_session_remote_condition(amqpSession_));
    for (pn_link_t *link = pn_link_head(connection_, 0); link != nullptr; link = pn_link_next(link, 0))
        if (pn_link_session(link) == amqpSession_ && (pn_link_state(link) & PN_REMOTE_UNINIT)) {
            linkClosed(link, reason);
            restartSession();
            return;
        }
    attemptTimeout_ = "session ended by the broker: " + reason;
    pn_connection_close(connection_);
}

void Connection::restartSession()
{
    pn_session_close(amqpSession_);
    senders_.clear();
    receivers_.clear();
    clientAcks_.clear();
    {
        std::lock_guard lock(mutex_);
        awaitingAck_.clear();
    }
    amqpSession_ = pn_session(connection_);
    pn_session_open(amqpSession_);
    openLinks();
}

} // namespace vel::amqp
