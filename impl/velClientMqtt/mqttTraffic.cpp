/*
 * mqttTraffic.cpp - what travels on an MQTT 5 connection: the commands that
 * application threads queue, publishes out (QoS 0 for direct messages, QoS 1
 * for guaranteed ones, which keep their place until the broker's PUBACK and
 * go again after a reconnect), SUBSCRIBE and its SUBACK, and publishes in
 * (decoded, matched against the subscriptions in the library's meaning of
 * the wildcards, handed to the receive callback).
 */
#include <mosquitto.h>
#include <mqtt_protocol.h>

#include <algorithm>

#include "velClientLog/logPrivate.h"
#include "velClientMqtt/mqttCodec.h"
#include "velClientMqtt/mqttConnection.h"
#include "velClientMsg/message/recordApi.h"
#include "velClientMsg/velClientMsgPrivate.h"
#include "velClientSession/sessionPrivate.h"

namespace vel::mqtt {

void Connection::runCommands()
{
    /* What was queued before a close still goes out first; while not
     * connected the commands wait. */
    std::deque<broker::Command> batch = takeCommands(opened_ && !closeBegun_);
    for (broker::Command &command : batch) {
        switch (command.kind) {
        case broker::Command::Kind::send: {
            std::uint64_t tag = nextTag_++;
            if (command.message.settled) {
                publish(tag, command.message);
                break;
            }
            unsettled_.add(tag, std::move(command.message));
            publish(tag, *unsettled_.find(tag));
            break;
        }
        case broker::Command::Kind::subscribe:
        case broker::Command::Kind::unsubscribe: {
            bool add = command.kind == broker::Command::Kind::subscribe;
            if (add && command.ticket != 0)
                awaitAnswer(command.subscription, command.ticket);
            if (add ? subscriptions_.insert(command.subscription).second : subscriptions_.erase(command.subscription))
                subscribeNow(command.subscription, add);
            else
                attachAnswered(command.subscription);
            break;
        }
        case broker::Command::Kind::ack: break; /* no queues: nothing waits for one */
        }
    }
    if (closing_ && !closeBegun_)
        beginClose();
}

/* After a new connection: every subscription, the guaranteed messages not
 * yet acknowledged in order, then what was queued meanwhile. */
void Connection::resume()
{
    for (const broker::Subscription &subscription : subscriptions_)
        subscribeNow(subscription, true);
    std::vector<std::uint64_t> again;
    unsettled_.forEach([&](std::uint64_t tag, const broker::Outgoing &) { again.push_back(tag); });
    for (std::uint64_t tag : again)
        publish(tag, *unsettled_.find(tag));
    runCommands();
}

void Connection::dropOutgoing(std::vector<void *> &refused)
{
    unsettled_.forEach(
        [&](std::uint64_t, const broker::Outgoing &message) { refused.push_back(message.correlation_p); });
    unsettled_.clear();
    inFlight_.clear();
}

void Connection::publish(std::uint64_t tag, broker::Outgoing &message)
{
    int mid = 0;
    int qos = message.settled ? 0 : 1;
    const std::string &topic = *message.address;
    int rc = mosquitto_publish_v5(client_, &mid, topic.c_str(), static_cast<int>(message.bytes.size()),
                                  message.bytes.data(), qos, false,
                                  static_cast<const mosquitto_property *>(message.extra.get()));
    if (rc == MOSQ_ERR_SUCCESS) {
        if (qos == 1)
            inFlight_[mid] = tag;
        return;
    }
    std::string info = topic + ": " + mosquitto_strerror(rc);
    VEL_LOG(VELCLIENT_LOG_WARNING, "Publish refused by the client library: %s", info.c_str());
    if (qos == 0)
        return;
    void *correlation_p = message.correlation_p;
    unsettled_.take(tag);
    acknowledged(1);
    emit(VELCLIENT_SESSION_EVENT_REJECTED_MSG_ERROR, info.c_str(), correlation_p);
}

void Connection::subscribeNow(const broker::Subscription &subscription, bool add)
{
    int mid = 0;
    const char *filter = subscription.address.c_str();
    if (!add) {
        mosquitto_unsubscribe_v5(client_, &mid, filter, nullptr);
        return;
    }
    int rc = mosquitto_subscribe_v5(client_, &mid, filter, 1, 0, nullptr);
    if (rc == MOSQ_ERR_SUCCESS) {
        subscribing_[mid] = subscription;
        return;
    }
    subscriptions_.erase(subscription);
    attachAnswered(subscription);
    std::string info = subscription.topic + ": " + mosquitto_strerror(rc);
    emit(VELCLIENT_SESSION_EVENT_SUBSCRIPTION_ERROR, info.c_str(), nullptr);
}

/* The broker's outcome of a publish: a PUBACK for QoS 1 (QoS 0 ones are
 * reported once written, and are not waited for). */
void Connection::published(int mid, int reasonCode)
{
    auto found = inFlight_.find(mid);
    if (found == inFlight_.end())
        return;
    std::optional<broker::Outgoing> message = unsettled_.take(found->second);
    inFlight_.erase(found);
    if (!message)
        return;
    acknowledged(1);
    bool accepted = reasonCode < 0x80;
    emit(accepted ? VELCLIENT_SESSION_EVENT_ACKNOWLEDGEMENT : VELCLIENT_SESSION_EVENT_REJECTED_MSG_ERROR,
         accepted ? "accepted" : mosquitto_reason_string(reasonCode), message->correlation_p, reasonCode);
}

void Connection::subscribed(int mid, int count, const int *granted)
{
    auto found = subscribing_.find(mid);
    if (found == subscribing_.end())
        return;
    broker::Subscription subscription = std::move(found->second);
    subscribing_.erase(found);
    attachAnswered(subscription);
    if (count >= 1 && granted[0] >= 0x80 && subscriptions_.erase(subscription) != 0) {
        std::string info = subscription.topic + ": " + mosquitto_reason_string(granted[0]);
        emit(VELCLIENT_SESSION_EVENT_SUBSCRIPTION_ERROR, info.c_str(), nullptr, granted[0]);
    }
}

/* Whether a subscription of the session, in the library's meaning of "*" and
 * ">" (MQTT's "#" also matches the level above it), takes the topic. */
bool Connection::wanted(const std::string &topic) const
{
    return std::any_of(subscriptions_.begin(), subscriptions_.end(),
                       [&](const broker::Subscription &s) { return broker::topicMatches(s.topic, topic); });
}

void Connection::received(const mosquitto_message *message, const mosquitto_property *properties)
{
    _velClient_msg *msg = nullptr;
    if (decode(message->topic, message->payload, static_cast<std::size_t>(message->payloadlen), properties,
               session_, &msg) != VELCLIENT_OK) {
        /* decode has recorded why. */
        VEL_LOG(VELCLIENT_LOG_WARNING, "Dropped a received message of %d bytes on %s that does not convert",
                message->payloadlen, message->topic);
        return;
    }
    velClient_destination_t dest{};
    if (vel::msg::destination(msg, &dest) != VELCLIENT_OK || !wanted(dest.dest)) {
        broker::freeReceived(msg);
        return;
    }
    deliver(msg, false, false);
}

} // namespace vel::mqtt
