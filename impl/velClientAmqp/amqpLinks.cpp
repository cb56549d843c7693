/*
 * amqpLinks.cpp - what travels on a broker connection: the commands that
 * application threads queue (sends, subscriptions, acknowledgements) and the
 * I/O thread's side of them: a sender link per target address, a receiver link
 * per subscription, deliveries out (pre-settled or awaiting the broker's
 * outcome) and in (decoded, given their receive-side properties, handed to the
 * receive callback and settled).
 */
#include <proton/codec.h>
#include <proton/condition.h>
#include <proton/connection.h>
#include <proton/delivery.h>
#include <proton/disposition.h>
#include <proton/link.h>
#include <proton/proactor.h>
#include <proton/session.h>
#include <proton/terminus.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <memory>

#include "velClientAmqp/amqpConnection.h"
#include "velClientAmqp/amqpFields.h"
#include "velClientLog/logPrivate.h"
#include "velClientMsg/message/recordApi.h"
#include "velClientMsg/velClientMsgPrivate.h"
#include "velClientSession/sessionPrivate.h"
#include "velClientTime/clock.h"

namespace vel::amqp {

namespace {

/* Credit a receiver link keeps granted; topped up when half is used. */
constexpr int kReceiveCredit = 256;

/* Whether topic matches the subscription pattern: a level "*" matches any
 * one level, a last level ">" one or more (brokers whose wildcard also
 * matches no level at all deliver more; this keeps the library's meaning). */
bool topicMatches(std::string_view pattern, std::string_view topic)
{
    while (true) {
        std::size_t p = pattern.find('/'), t = topic.find('/');
        std::string_view level = pattern.substr(0, p);
        if (level == ">" && p == std::string_view::npos)
            return true; /* topic still holds at least one level here */
        if (level != "*" && level != topic.substr(0, t))
            return false;
        if (p == std::string_view::npos || t == std::string_view::npos)
            return p == t;
        pattern.remove_prefix(p + 1);
        topic.remove_prefix(t + 1);
    }
}

void freeReceived(_velClient_msg *msg)
{
    if (msg->opaqueMsg_p != nullptr)
        _velClient_safePtr_free(msg->opaqueMsg_p);
    _velClient_msg_free(msg);
}

void settle(pn_delivery_t *delivery, std::uint64_t outcome)
{
    pn_delivery_update(delivery, outcome);
    pn_delivery_settle(delivery);
}

bool isDown(Phase phase)
{
    return phase == Phase::down || phase == Phase::closed;
}

} // namespace

/* ---- Application threads ------------------------------------------------ */

velClient_returnCode_t Connection::send(Outgoing &&message, std::unique_lock<std::recursive_mutex> &sessionLock)
{
    const session::BrokerSettings &b = session_->broker;
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(b.sendTimeoutMs);
    std::unique_lock lock(mutex_);
    while (!message.settled && inWindow_ >= b.pubWindowSize && !isDown(phase_)) {
        if (!b.sendBlocking || onIoThread()) {
            canSendOwed_ = true;
            return VELCLIENT_WOULD_BLOCK;
        }
        sessionLock.unlock();
        bool room = changed_.wait_until(lock, deadline, [&] { return inWindow_ < b.pubWindowSize || isDown(phase_); });
        lock.unlock();
        sessionLock.lock();
        lock.lock();
        if (!room && inWindow_ >= b.pubWindowSize) {
            lock.unlock();
            return VEL_FAIL(VELCLIENT_SUBCODE_TIMEOUT, VELCLIENT_LOG_WARNING,
                            "No room in the publish window within %lld ms in velClient_session_sendMsg",
                            static_cast<long long>(b.sendTimeoutMs));
        }
    }
    if (isDown(phase_)) {
        lock.unlock();
        return VEL_FAIL(VELCLIENT_SUBCODE_SESSION_NOT_ESTABLISHED, VELCLIENT_LOG_WARNING,
                        "Session not connected in velClient_session_sendMsg");
    }
    if (!message.settled)
        ++inWindow_;
    Command &command = commands_.emplace_back();
    command.kind = Command::Kind::send;
    command.message = std::move(message);
    lock.unlock();
    wake();
    return VELCLIENT_OK;
}

velClient_returnCode_t Connection::subscribe(Subscription subscription, bool add, const char *call)
{
    std::unique_lock lock(mutex_);
    if (isDown(phase_)) {
        lock.unlock();
        return VEL_FAIL(VELCLIENT_SUBCODE_SESSION_NOT_ESTABLISHED, VELCLIENT_LOG_WARNING,
                        "Session not connected in %s", call);
    }
    std::uint64_t ticket = 0;
    if (add && !onIoThread()) {
        ticket = ++ticketsIssued_;
        unansweredTickets_.insert(ticket);
    }
    commands_.push_back({add ? Command::Kind::subscribe : Command::Kind::unsubscribe, {}, std::move(subscription), 0,
                         ticket});
    lock.unlock();
    wake();
    if (ticket != 0)
        waitForTicket(ticket);
    return VELCLIENT_OK;
}

/* Waits until the I/O thread has answered the ticket, the connection has
 * gone down, or the connect timeout has passed. */
void Connection::waitForTicket(std::uint64_t ticket)
{
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, std::chrono::milliseconds(session_->broker.connectTimeoutMs),
                      [&] { return !unansweredTickets_.contains(ticket) || isDown(phase_); });
    unansweredTickets_.erase(ticket);
}

velClient_returnCode_t Connection::ack(velClient_msgId_t msgId)
{
    std::unique_lock lock(mutex_);
    if (awaitingAck_.erase(msgId) == 0) {
        lock.unlock();
        return VEL_FAIL_RANGE("No message with id %llu awaits acknowledgement in velClient_session_ack",
                              static_cast<unsigned long long>(msgId));
    }
    commands_.push_back({Command::Kind::ack, {}, {}, msgId});
    lock.unlock();
    wake();
    return VELCLIENT_OK;
}

/* ---- The I/O thread --------------------------------------------------------- */

void Connection::runCommands()
{
    {
        std::lock_guard lock(mutex_);
        wakePending_ = false;
    }
    /* What was queued before a close still goes out first. */
    if (opened_ && !closeBegun_)
        runQueued();
    if (closing_ && !closeWanted_) {
        closeWanted_ = true;
        /* Bounds the wait for link credit: timedOut() then ends the connection. */
        if (opened_ && !direct_.empty())
            pn_proactor_set_timeout(proactor_, static_cast<pn_millis_t>(session_->broker.sendTimeoutMs));
    }
    closeWhenFlushed();
}

void Connection::closeWhenFlushed()
{
    if (!closeWanted_ || closeBegun_ || (opened_ && !direct_.empty()))
        return;
    closeBegun_ = true;
    beginClose();
}

void Connection::runQueued()
{
    std::deque<Command> batch;
    {
        std::lock_guard lock(mutex_);
        batch.swap(commands_);
    }
    for (Command &command : batch) {
        switch (command.kind) {
        case Command::Kind::send: {
            std::uint64_t tag = nextTag_++;
            (command.message.settled ? direct_ : unsettled_).add(tag, std::move(command.message));
            queueSend(tag);
            break;
        }
        case Command::Kind::subscribe:
        case Command::Kind::unsubscribe: {
            bool add = command.kind == Command::Kind::subscribe;
            if (add ? subscriptions_.insert(command.subscription).second : subscriptions_.erase(command.subscription))
                subscribeNow(command.subscription, add);
            if (command.ticket != 0)
                awaitAttach(command.subscription, command.ticket);
            break;
        }
        case Command::Kind::ack: {
            auto found = clientAcks_.find(command.msgId);
            if (found != clientAcks_.end()) {
                settle(found->second, PN_ACCEPTED);
                clientAcks_.erase(found);
            }
            break;
        }
        }
    }
}

/* After a new connection or AMQP session: a receiver per subscription, and
 * every message not yet acknowledged (or waiting) queued again in order. */
void Connection::openLinks()
{
    for (const Subscription &subscription : subscriptions_)
        subscribeNow(subscription, true);
    std::vector<std::uint64_t> again;
    auto add = [&](std::uint64_t tag, const Outgoing &) { again.push_back(tag); };
    unsettled_.forEach(add);
    direct_.forEach(add);
    std::sort(again.begin(), again.end());
    for (std::uint64_t tag : again)
        queueSend(tag);
}

void Connection::queueSend(std::uint64_t tag)
{
    Outgoing *message = unsettled_.find(tag);
    if (message == nullptr)
        message = direct_.find(tag);
    const std::string &address = *message->address;
    SenderLink &sender = senders_[address];
    if (sender.link == nullptr) {
        std::string name = "send:" + address;
        sender.link = pn_sender(amqpSession_, name.c_str());
        pn_terminus_t *target = pn_link_target(sender.link);
        pn_terminus_set_address(target, address.c_str());
        if (message->toQueue)
            pn_terminus_set_durability(target, PN_CONFIGURATION);
        pn_link_open(sender.link);
    }
    sender.waiting.push_back(tag);
    pump(sender);
}

/* Sends what the link's credit allows. */
void Connection::pump(SenderLink &sender)
{
    while (pn_link_credit(sender.link) > 0 && !sender.waiting.empty()) {
        std::uint64_t tag = sender.waiting.front();
        sender.waiting.pop_front();
        Outgoing *message = unsettled_.find(tag);
        bool guaranteed = message != nullptr;
        if (!guaranteed && (message = direct_.find(tag)) == nullptr)
            continue;
        pn_delivery_t *delivery = pn_delivery(sender.link, pn_dtag(reinterpret_cast<const char *>(&tag), sizeof tag));
        pn_link_send(sender.link, message->bytes.data(), message->bytes.size());
        pn_link_advance(sender.link);
        if (!guaranteed) {
            pn_delivery_settle(delivery);
            direct_.take(tag);
        }
    }
}

void Connection::subscribeNow(const Subscription &subscription, bool add)
{
    if (add) {
        std::string name = (subscription.queue ? "queue:" : "topic:") + subscription.address;
        pn_link_t *link = pn_receiver(amqpSession_, name.c_str());
        pn_terminus_t *source = pn_link_source(link);
        pn_terminus_set_address(source, subscription.address.c_str());
        if (subscription.queue)
            pn_terminus_set_durability(source, PN_CONFIGURATION);
        pn_link_open(link);
        pn_link_flow(link, kReceiveCredit);
        receivers_[link] = subscription;
        return;
    }
    attachAnswered(subscription);
    for (auto it = receivers_.begin(); it != receivers_.end(); ++it)
        if (it->second == subscription) {
            pn_link_close(it->first);
            receivers_.erase(it);
            return;
        }
}

/* A subscriber waits for the broker's answer to its link's attach, unless
 * the link is already attached (a second subscribe to the same topic). */
void Connection::awaitAttach(const Subscription &subscription, std::uint64_t ticket)
{
    attaching_.emplace(subscription, ticket);
    for (auto &[link, wanted] : receivers_)
        if (wanted == subscription && (pn_link_state(link) & PN_REMOTE_ACTIVE))
            attachAnswered(subscription);
}

/* The broker attached or refused the subscription's link, or the connection
 * went: whoever waits for it goes on. */
void Connection::attachAnswered(const Subscription &subscription)
{
    auto [first, last] = attaching_.equal_range(subscription);
    if (first == last)
        return;
    {
        std::lock_guard lock(mutex_);
        for (auto it = first; it != last; ++it)
            unansweredTickets_.erase(it->second);
        changed_.notify_all();
    }
    attaching_.erase(first, last);
}

/* The broker's outcome of a guaranteed message. */
void Connection::settled(pn_delivery_t *delivery)
{
    std::uint64_t remote = pn_delivery_remote_state(delivery);
    if (!pn_delivery_updated(delivery) || remote == 0)
        return;
    pn_delivery_tag_t tag = pn_delivery_tag(delivery);
    std::uint64_t key = 0;
    if (tag.size == sizeof key)
        std::memcpy(&key, tag.start, sizeof key);
    std::optional<Outgoing> found = unsettled_.take(key);
    if (!found) {
        pn_delivery_settle(delivery);
        return;
    }
    void *correlation_p = found->correlation_p;
    std::string info = remote == PN_ACCEPTED ? "accepted"
                       : remote == PN_REJECTED ? "rejected"
                       : remote == PN_RELEASED ? "released"
                                               : "modified";
    pn_condition_t *condition = pn_disposition_condition(pn_delivery_remote(delivery));
    if (condition != nullptr && pn_condition_is_set(condition) && pn_condition_get_description(condition))
        info.append(": ").append(pn_condition_get_description(condition));
    pn_delivery_settle(delivery);
    acknowledged(1);
    emit(remote == PN_ACCEPTED ? VELCLIENT_SESSION_EVENT_ACKNOWLEDGEMENT : VELCLIENT_SESSION_EVENT_REJECTED_MSG_ERROR,
         info.c_str(), correlation_p);
}

void Connection::acknowledged(std::size_t count)
{
    bool owed = false;
    {
        std::lock_guard lock(mutex_);
        inWindow_ -= static_cast<std::uint32_t>(count);
        owed = canSendOwed_ && inWindow_ < session_->broker.pubWindowSize;
        if (owed)
            canSendOwed_ = false;
    }
    windowOpened_ = true; /* waiters wake when the batch ends */
    if (owed)
        emit(VELCLIENT_SESSION_EVENT_CAN_SEND, "room in the publish window", nullptr);
}

void Connection::received(pn_delivery_t *delivery)
{
    if (!pn_delivery_readable(delivery) || pn_delivery_partial(delivery))
        return;
    pn_link_t *link = pn_delivery_link(delivery);
    receiveBuffer_.resize(pn_delivery_pending(delivery));
    ssize_t got = pn_link_recv(link, receiveBuffer_.data(), receiveBuffer_.size());
    pn_link_advance(link);
    auto found = receivers_.find(link);
    if (found == receivers_.end() || got < 0) {
        settle(delivery, PN_RELEASED); /* a link being closed */
        return;
    }
    deliverMessage(delivery, receiveBuffer_.data(), static_cast<std::size_t>(got), found->second);
    int credit = pn_link_credit(link);
    if (credit < kReceiveCredit / 2)
        pn_link_flow(link, kReceiveCredit - credit);
}

/* Decodes one message, gives it its receive-side properties and hands it to
 * the receive callback; a message that does not decode is rejected and logged. */
void Connection::deliverMessage(pn_delivery_t *delivery, const char *bytes, std::size_t size,
                                const Subscription &from)
{
    _velClient_msg *msg = nullptr;
    if (decode(bytes, size, session_->broker.addressing, session_, &msg) != VELCLIENT_OK) {
        /* decode has logged why. */
        VEL_LOG(VELCLIENT_LOG_WARNING, "Rejected a received message of %zu bytes that does not convert", size);
        settle(delivery, PN_REJECTED);
        return;
    }
    velClient_destination_t dest{};
    if (!from.queue && vel::msg::destination(msg, &dest) == VELCLIENT_OK && dest.destType == VELCLIENT_TOPIC_DESTINATION &&
        !topicMatches(from.topic, dest.dest)) {
        freeReceived(msg);
        settle(delivery, PN_ACCEPTED);
        return;
    }
    bool queue = from.queue;
    velClient_msgId_t id = nextMsgId_++;
    _velClient_msg_setMsgId(msg->opaqueMsg_p, id);
    if (headerSaysRedelivered(reinterpret_cast<const std::uint8_t *>(bytes), size))
        msg->msgInfo.flags |= _VELCLIENT_RX_FLAG_REDELIVERED_MASK;
    if (msg->msgInfo.rcvTimestamp == 0)
        msg->msgInfo.rcvTimestamp = _velClient_getTimeInUs() / 1000;
    bool clientAck = queue && session_->broker.clientAck;
    if (clientAck) {
        std::lock_guard lock(mutex_);
        awaitingAck_.insert(id);
        clientAcks_[id] = delivery;
    }
    velClient_rxMsgCallback_returnCode_t kept = VELCLIENT_CALLBACK_OK;
    if (session_->rxMsgCallback_p != nullptr)
        kept = session_->rxMsgCallback_p(session_->opaqueSession_p, msg->opaqueMsg_p, session_->user_p);
    if (kept != VELCLIENT_CALLBACK_TAKE_MSG)
        freeReceived(msg);
    if (!clientAck)
        settle(delivery, PN_ACCEPTED);
}

/* The broker closed a link: a refused subscription is reported and dropped;
 * the messages for a refused target are reported refused. */
void Connection::linkClosed(pn_link_t *link, const std::string &reason)
{
    auto found = receivers_.find(link);
    if (found != receivers_.end()) {
        attachAnswered(found->second);
        std::string info = found->second.address + ": " + reason;
        subscriptions_.erase(found->second);
        receivers_.erase(found);
        emit(VELCLIENT_SESSION_EVENT_SUBSCRIPTION_ERROR, info.c_str(), nullptr);
    }
    for (auto it = senders_.begin(); it != senders_.end(); ++it)
        if (it->second.link == link) {
            refuseMessagesTo(it->first, it->first + ": " + reason);
            senders_.erase(it);
            break;
        }
    pn_link_close(link);
}

void Connection::refuseMessagesTo(const std::string &address, const std::string &info)
{
    direct_.eraseIf([&](const Outgoing &message) { return *message.address == address; });
    std::vector<void *> refused;
    unsettled_.eraseIf([&](const Outgoing &message) {
        if (*message.address == address)
            refused.push_back(message.correlation_p);
        return *message.address == address;
    });
    acknowledged(refused.size());
    for (void *correlation_p : refused)
        emit(VELCLIENT_SESSION_EVENT_REJECTED_MSG_ERROR, info.c_str(), correlation_p);
}

} // namespace vel::amqp
