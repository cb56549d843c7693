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

} // namespace

Connection::Connection(_velClient_session *session) : session_(session), proactor_(pn_proactor())
{
    const auto &rules = session->broker.addressing;
    std::string inbox = session->p2pTopicBase;
    inbox.append("/>");
    Subscription subscription{topicAddress(rules, inbox, true), false, inbox};
    subscriptions_.insert(subscription);
    /* connect returns once the inbox is attached. */
    unansweredTickets_.insert(++ticketsIssued_);
    attaching_.emplace(subscription, ticketsIssued_);
}

Connection::~Connection()
{
    if (ioThread_.joinable())
        close();
    if (proactor_ != nullptr)
        pn_proactor_free(proactor_);
}

velClient_returnCode_t Connection::open(_velClient_session *session, std::shared_ptr<Connection> &out)
{
    out.reset();
    auto *c = new (std::nothrow) Connection(session);
    if (c == nullptr || c->proactor_ == nullptr) {
        delete c;
        return VEL_FAIL(VELCLIENT_SUBCODE_OUT_OF_MEMORY, VELCLIENT_LOG_ERROR,
                        "Unable to allocate memory for connection in velClient_session_connect");
    }
    try {
        c->ioThread_ = std::thread(&Connection::run, c);
    } catch (const std::exception &e) {
        delete c;
        return VEL_FAIL(VELCLIENT_SUBCODE_OS_ERROR, VELCLIENT_LOG_ERROR,
                        "Could not start the I/O thread in velClient_session_connect: %s", e.what());
    }
    std::unique_lock lock(c->mutex_);
    c->changed_.wait(lock, [c] { return c->phase_ != Phase::connecting; });
    if (c->phase_ == Phase::up) {
        lock.unlock();
        c->waitForTicket(1);
        out.reset(c);
        return VELCLIENT_OK;
    }
    std::string text = c->failText_;
    velClient_subCode_t code = c->failCode_;
    lock.unlock();
    c->ioThread_.join();
    delete c;
    return VEL_FAIL(code, VELCLIENT_LOG_WARNING, "Could not connect to %s in velClient_session_connect",
                    text.c_str());
}

void Connection::close()
{
    {
        std::unique_lock lock(mutex_);
        changed_.wait_for(lock, std::chrono::milliseconds(session_->broker.sendTimeoutMs), [this] {
            return inWindow_ == 0 || (phase_ != Phase::up && phase_ != Phase::reconnecting);
        });
        closing_ = true;
    }
    wake();
    ioThread_.join();
    std::lock_guard lock(mutex_);
    phase_ = Phase::closed;
    changed_.notify_all();
}

/* Has the I/O thread run the queued commands. From the I/O thread itself (a
 * callback) they run as soon as the event being handled is done; from another
 * thread Proton wakes the connection, once until the I/O thread looks. */
void Connection::wake()
{
    if (onIoThread()) {
        queuedByCallback_ = true;
        return;
    }
    std::lock_guard lock(mutex_);
    if (wakePending_)
        return;
    wakePending_ = true;
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
        if (windowOpened_) { /* waiters for room in the publish window wake once per batch */
            windowOpened_ = false;
            changed_.notify_all();
        }
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
    if (live_ != nullptr)
        pn_connection_wake(live_);
    else
        pn_proactor_interrupt(proactor_);
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
    while (!attaching_.empty()) {
        Subscription waited = attaching_.begin()->first;
        attachAnswered(waited);
    }
    if (closing_) {
        finished_ = true;
        return;
    }
    if (opened_) {
        connectionLost(reason);
        return;
    }
    velClient_subCode_t code = VELCLIENT_SUBCODE_COMMUNICATION_ERROR;
    if (isLoginRefusal(condition))
        code = VELCLIENT_SUBCODE_LOGIN_FAILURE;
    else if (attemptTimeout_.rfind("no answer", 0) == 0)
        code = VELCLIENT_SUBCODE_TIMEOUT;
    attemptFailed(reason, code);
}

/* One host refused or did not answer: the next one, the next pass, or giving up. */
void Connection::attemptFailed(const std::string &reason, velClient_subCode_t subCode)
{
    VEL_LOG(VELCLIENT_LOG_INFO, "Connecting to %s failed: %s", attemptHost_.c_str(), reason.c_str());
    if (!failures_.empty())
        failures_.append("; ");
    failures_.append(attemptHost_).append(" (").append(reason).append(")");
    const auto &b = session_->broker;
    hostIndex_ = (hostIndex_ + 1) % b.hosts.size();
    if (++hostsTried_ < b.hosts.size()) {
        startAttempt();
        return;
    }
    hostsTried_ = 0;
    if (!everUp_) {
        std::lock_guard lock(mutex_);
        phase_ = Phase::down;
        failCode_ = subCode;
        failText_ = failures_;
        finished_ = true;
        changed_.notify_all();
        return;
    }
    ++retriesDone_;
    if (b.reconnectRetries != -1 && retriesDone_ >= b.reconnectRetries) {
        goDown(failures_);
        return;
    }
    failures_.clear();
    pn_proactor_set_timeout(proactor_, static_cast<pn_millis_t>(b.reconnectRetryWaitMs));
}

void Connection::connectionUp()
{
    opened_ = true;
    pn_proactor_cancel_timeout(proactor_);
    hostsTried_ = 0;
    retriesDone_ = 0;
    failures_.clear();
    bool again = everUp_;
    everUp_ = true;
    {
        std::lock_guard lock(mutex_);
        phase_ = Phase::up;
        changed_.notify_all();
    }
    std::string info = "connected to " + attemptHost_;
    emit(again ? VELCLIENT_SESSION_EVENT_RECONNECTED_NOTICE : VELCLIENT_SESSION_EVENT_UP_NOTICE, info.c_str(),
         nullptr);
    openLinks();
    runCommands();
}

void Connection::connectionLost(const std::string &reason)
{
    opened_ = false;
    VEL_LOG(VELCLIENT_LOG_NOTICE, "Connection to %s lost: %s", attemptHost_.c_str(), reason.c_str());
    if (session_->broker.reconnectRetries == 0) {
        goDown(attemptHost_ + " (" + reason + ")");
        return;
    }
    {
        std::lock_guard lock(mutex_);
        phase_ = Phase::reconnecting;
    }
    std::string info = "connection to " + attemptHost_ + " lost (" + reason + ")";
    emit(VELCLIENT_SESSION_EVENT_RECONNECTING_NOTICE, info.c_str(), nullptr);
    hostsTried_ = 0;
    retriesDone_ = 0;
    failures_.clear();
    pn_proactor_set_timeout(proactor_, static_cast<pn_millis_t>(session_->broker.reconnectRetryWaitMs));
}

/* Gives up: every guaranteed message not acknowledged, sent or still queued,
 * is reported refused, then DOWN_ERROR. */
void Connection::goDown(const std::string &reason)
{
    std::deque<Command> queued;
    {
        std::lock_guard lock(mutex_);
        phase_ = Phase::down;
        queued.swap(commands_);
    }
    finished_ = true;
    std::vector<void *> refused;
    unsettled_.forEach([&](std::uint64_t, const Outgoing &message) { refused.push_back(message.correlation_p); });
    for (const Command &command : queued)
        if (command.kind == Command::Kind::send && !command.message.settled)
            refused.push_back(command.message.correlation_p);
    unsettled_.clear();
    direct_.clear();
    acknowledged(refused.size());
    for (void *correlation_p : refused)
        emit(VELCLIENT_SESSION_EVENT_REJECTED_MSG_ERROR, "session down", correlation_p);
    std::string info = "given up on every host: " + reason;
    emit(VELCLIENT_SESSION_EVENT_DOWN_ERROR, info.c_str(), nullptr);
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

void Connection::emit(velClient_session_event_t event, const char *info, void *correlation_p,
                      std::int32_t responseCode)
{
    session::EventSink sink;
    {
        std::lock_guard lock(session_->eventMutex);
        sink = session_->events;
    }
    if (sink.callback_p == nullptr)
        return;
    velClient_session_eventCallbackInfo_t details{event, responseCode, info, correlation_p};
    sink.callback_p(session_->opaqueSession_p, &details, sink.user_p);
}

} // namespace vel::amqp
