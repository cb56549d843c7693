/*
 * mqttConnection.h - a broker connection over MQTT 5: the I/O thread's poll
 * loop over libmosquitto's socket and a wake descriptor, one mosquitto client
 * object per connection attempt, publishes at QoS 0 (direct) or QoS 1
 * (guaranteed, the PUBACK being the outcome), topic subscriptions at QoS 1,
 * and received publishes handed to the receive callback. Only the I/O thread
 * calls libmosquitto; application threads queue commands through the doors
 * every broker connection shares and wake it.
 */
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "velClientBroker/brokerConnection.h"
#include "velClientBroker/byTag.h"

struct mosquitto;
struct mosquitto_message;
struct mqtt5__property;
typedef struct mqtt5__property mosquitto_property;

namespace vel::mqtt {

class Connection final : public broker::Connection {
public:
    /* A new connection for the session, not yet started (broker::Connection::start). */
    explicit Connection(_velClient_session *session);
    ~Connection() override;

private:
    using Clock = std::chrono::steady_clock;

    bool ready() const override { return wakeFd_ >= 0; }
    void run() override;
    void wakeIo() override;
    void startAttempt() override;
    void setTimer(std::int64_t ms) override;
    void cancelTimer() override;
    void resume() override;
    void dropOutgoing(std::vector<void *> &refused) override;

    bool newClient();
    int pollTimeoutMs() const;
    void pollOnce();
    void readBurst();
    /* After each libmosquitto call: a dropped connection, then what callbacks queued. */
    void afterCall(int rc);
    void dropped();
    void timedOut();
    void runCommands();
    void beginClose();
    void publish(std::uint64_t tag, broker::Outgoing &message);
    void subscribeNow(const broker::Subscription &subscription, bool add);
    bool wanted(const std::string &topic) const;

    void connected(int reasonCode);
    void disconnected(int rc, int savedErrno);
    void published(int mid, int reasonCode);
    void subscribed(int mid, int count, const int *granted);
    void received(const mosquitto_message *message, const mosquitto_property *properties);

    static void onConnect(mosquitto *, void *self, int reasonCode, int flags, const mosquitto_property *);
    static void onDisconnect(mosquitto *, void *self, int rc, const mosquitto_property *);
    static void onPublish(mosquitto *, void *self, int mid, int reasonCode, const mosquitto_property *);
    static void onMessage(mosquitto *, void *self, const mosquitto_message *message,
                          const mosquitto_property *properties);
    static void onSubscribe(mosquitto *, void *self, int mid, int count, const int *granted,
                            const mosquitto_property *);

    int wakeFd_ = -1;

    /* The I/O thread's own. */
    mosquitto *client_ = nullptr;
    std::optional<Clock::time_point> timerAt_;
    bool closeBegun_ = false;
    bool lost_ = false;          /* the current client's socket went */
    std::string lostReason_;
    std::string refusal_;        /* the broker's CONNACK refusal of this attempt */
    velClient_subCode_t refusalCode_ = VELCLIENT_SUBCODE_COMMUNICATION_ERROR;
    std::uint64_t nextTag_ = 1;
    broker::ByTag<broker::Outgoing> unsettled_; /* guaranteed, sent or waiting */
    std::map<int, std::uint64_t> inFlight_;     /* message id of a QoS 1 publish -> its tag */
    std::map<int, broker::Subscription> subscribing_; /* message id of a SUBSCRIBE -> its subscription */
};

} // namespace vel::mqtt
