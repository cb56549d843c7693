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

void settle(pn_delivery_t *delivery, std::uint64_t outcome)
{
    pn_delivery_update(delivery, outcome);
    pn_delivery_settle(delivery);
}

} // namespace

/* ---- The I/O thread --------------------------------------------------------- */

void Connection::runCommands()
{
    /* What was queued before a close still goes out first; while not
     * connected the commands wait. */
    std::deque<Command> batch = takeCommands(opened_ && !closeBegun_);
    runQueued(batch);
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

void Connection::runQueued(std::deque<Command> &batch)
{
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
        /* The broker refuses a link whose name is still attached, as an unsubscribed link is until the broker
         * answers its detach: each receiver's name ends in a number of its own. */
        std::string name = subscription.queue ? "queue:" : "topic:";
        name.append(subscription.address).append("#").append(std::to_string(++receiverSerial_));
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
    awaitAnswer(subscription, ticket);
    for (auto &[link, wanted] : receivers_)
        if (wanted == subscription && (pn_link_state(link) & PN_REMOTE_ACTIVE))
            attachAnswered(subscription);
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
        !broker::topicMatches(from.topic, dest.dest)) {
        broker::freeReceived(msg);
        settle(delivery, PN_ACCEPTED);
        return;
    }
    bool clientAck = from.queue && session_->broker.clientAck;
    bool redelivered = headerSaysRedelivered(reinterpret_cast<const std::uint8_t *>(bytes), size);
    velClient_msgId_t id = deliver(msg, redelivered, clientAck);
    if (clientAck)
        clientAcks_[id] = delivery;
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
