/*
 * mosquittoPeer.cpp - bench_broker's plain libmosquitto contender on an MQTT 5
 * broker: the same workloads written as directly as libmosquitto allows. Each
 * client is one MQTT v5 connection with TCP_NODELAY whose network loop runs on
 * a thread of its own, libmosquitto's threaded loop (as velclient's sessions
 * each have an I/O thread); the main thread publishes into it. Loops of the
 * program's own (a thread polling the socket with mosquitto_loop_read and
 * _write, the publisher running its client's loop itself) measured slower in
 * every workload. Direct messages go at QoS 0, persistent ones at QoS 1 with
 * at most --window awaiting their PUBACK (a full window waits until half of
 * it is acknowledged); subscriptions are QoS 1 and ready once the broker's
 * SUBACK is in. A requester's reply address is MQTT 5's response topic, its
 * correlation id correlation data.
 */
#include <mosquitto.h>
#include <mqtt_protocol.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "broker/brokerBench.h"

namespace velbench {

namespace {

void check(int rc, const char *what)
{
    if (rc != MOSQ_ERR_SUCCESS)
        throw Failure(std::string("libmosquitto: ") + what + ": " + mosquitto_strerror(rc));
}

/* One connection and the thread of its network loop. */
class Client {
public:
    Client(const Settings &settings, const std::string &id) : settings_(settings)
    {
        static const int started = mosquitto_lib_init();
        check(started, "lib_init");
        mosq_ = mosquitto_new(id.c_str(), true, this);
        if (mosq_ == nullptr)
            throw Failure("libmosquitto: mosquitto_new failed");
        check(mosquitto_int_option(mosq_, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V5), "protocol version");
        check(mosquitto_int_option(mosq_, MOSQ_OPT_TCP_NODELAY, 1), "TCP_NODELAY");
        mosquitto_connect_v5_callback_set(mosq_, onConnect);
        mosquitto_subscribe_v5_callback_set(mosq_, onSubscribe);
        mosquitto_publish_v5_callback_set(mosq_, onPublish);
        mosquitto_message_v5_callback_set(mosq_, onMessage);
        check(mosquitto_connect_bind_v5(mosq_, "127.0.0.1", settings.port, 60, nullptr, nullptr), "connect");
        check(mosquitto_loop_start(mosq_), "loop_start");
        if (!connected_.waitFor(1, settings.stall))
            throw Failure("libmosquitto: no CONNACK");
    }
    virtual ~Client() { mosquitto_destroy(mosq_); }
    Client(const Client &) = delete;
    Client &operator=(const Client &) = delete;

    /* Subscribes at QoS 1 and waits for the broker's SUBACK. */
    void subscribe(const std::string &topic)
    {
        const long before = subscribed_.count();
        check(mosquitto_subscribe_v5(mosq_, nullptr, topic.c_str(), 1, 0, nullptr), "subscribe");
        if (!subscribed_.waitFor(before + 1, settings_.stall))
            throw Failure("libmosquitto: no SUBACK for " + topic);
    }

    mosquitto *mosq() const { return mosq_; }
    /* Disconnects and ends the loop's thread; each derived class calls it first thing in its destructor, so that
     * no callback reaches a part already destroyed. */
    void stop()
    {
        if (stopping_.exchange(true))
            return;
        mosquitto_disconnect_v5(mosq_, 0, nullptr);
        mosquitto_loop_stop(mosq_, false);
    }
    /* PUBACKs of QoS 1 publishes (and, as libmosquitto reports them, QoS 0 publishes written). */
    Progress published;

protected:
    virtual void received(const mosquitto_message *message, const mosquitto_property *props) = 0;

    const Settings &settings_;
    mosquitto *mosq_ = nullptr;

private:
    static Client *self(void *user) { return static_cast<Client *>(user); }
    static void onConnect(mosquitto *, void *user, int rc, int, const mosquitto_property *)
    {
        if (rc == 0)
            self(user)->connected_.add();
        else
            std::fprintf(stderr, "libmosquitto: CONNACK %d\n", rc);
    }
    static void onSubscribe(mosquitto *, void *user, int, int, const int *, const mosquitto_property *)
    {
        self(user)->subscribed_.add();
    }
    static void onPublish(mosquitto *, void *user, int, int reason, const mosquitto_property *)
    {
        if (reason >= 0x80)
            std::fprintf(stderr, "libmosquitto: PUBACK reason %d\n", reason);
        self(user)->published.add();
    }
    static void onMessage(mosquitto *, void *user, const mosquitto_message *message, const mosquitto_property *props)
    {
        self(user)->received(message, props);
    }

    std::atomic<bool> stopping_{false};
    Progress connected_;
    Progress subscribed_;
};

/* Counts the messages that arrive. */
class Counter : public Client {
public:
    using Client::Client;
    ~Counter() override { stop(); }
    Progress messages;

private:
    void received(const mosquitto_message *, const mosquitto_property *) override { messages.add(); }
};

Throughput publish(const Settings &settings, const std::string &tag, long count, bool persistent)
{
    Counter subscriber(settings, "sub-" + tag);
    Counter publisher(settings, "pub-" + tag);
    const std::string topic = "bench/" + tag;
    subscriber.subscribe(topic);
    const int qos = persistent ? 1 : 0;
    auto start = Clock::now();
    for (long i = 0; i < count; ++i) {
        /* A full window waits until half of it is acknowledged: one wake per batch of PUBACKs, not one each. */
        if (persistent && i - publisher.published.count() >= settings.window &&
            !publisher.published.waitFor(i - settings.window / 2, settings.stall))
            throw Failure("libmosquitto: PUBACKs stalled");
        check(mosquitto_publish_v5(publisher.mosq(), nullptr, topic.c_str(), static_cast<int>(kPayloadSize), payload(),
                                   qos, false, nullptr),
              "publish");
    }
    Throughput result = throughputSince(start, count, subscriber.messages, settings);
    if (persistent)
        awaitAcknowledged(publisher.published, count, count, settings, "libmosquitto", "PUBACKs");
    return result;
}

/* A property list freed with its scope. */
struct Properties {
    mosquitto_property *list = nullptr;
    ~Properties() { mosquitto_property_free_all(&list); }
};

/* The requester: each reply's callback times the round trip and sends the next request. */
class Requester : public Client {
public:
    Requester(const Settings &settings, const std::string &tag)
        : Client(settings, "req-" + tag), requests_("bench/" + tag + "/request"), inbox_("bench/" + tag + "/reply")
    {
        subscribe(inbox_);
    }
    ~Requester() override { stop(); }

    void send()
    {
        char id[32];
        const int size = std::snprintf(id, sizeof id, "req-%ld", done_);
        Properties props;
        check(mosquitto_property_add_string(&props.list, MQTT_PROP_RESPONSE_TOPIC, inbox_.c_str()), "response topic");
        check(mosquitto_property_add_binary(&props.list, MQTT_PROP_CORRELATION_DATA, id, static_cast<uint16_t>(size)),
              "correlation data");
        sentAt_ = Clock::now();
        check(mosquitto_publish_v5(mosq_, nullptr, requests_.c_str(), static_cast<int>(kPayloadSize), payload(), 0,
                                   false, props.list),
              "publish (request)");
    }

    const std::string &requests() const { return requests_; }
    Progress replies;
    Latency latency;

private:
    void received(const mosquitto_message *, const mosquitto_property *) override
    {
        auto now = Clock::now();
        if (done_ >= settings_.warmup)
            latency.samples.push_back(std::chrono::duration<double, std::micro>(now - sentAt_).count());
        ++done_;
        try {
            if (done_ < settings_.warmup + settings_.requests)
                send();
        } catch (const Failure &failure) {
            std::fprintf(stderr, "%s\n", failure.what());
        }
        replies.add();
    }

    std::string requests_;
    std::string inbox_;
    long done_ = 0;
    Clock::time_point sentAt_;
};

/* The responder answers each request to its response topic with its correlation data. */
class Responder : public Client {
public:
    using Client::Client;
    ~Responder() override { stop(); }

private:
    void received(const mosquitto_message *, const mosquitto_property *props) override
    {
        char *topic = nullptr;
        void *id = nullptr;
        uint16_t size = 0;
        Properties reply;
        if (mosquitto_property_read_string(props, MQTT_PROP_RESPONSE_TOPIC, &topic, false) == nullptr ||
            mosquitto_property_read_binary(props, MQTT_PROP_CORRELATION_DATA, &id, &size, false) == nullptr ||
            mosquitto_property_add_binary(&reply.list, MQTT_PROP_CORRELATION_DATA, id, size) != MOSQ_ERR_SUCCESS ||
            mosquitto_publish_v5(mosq_, nullptr, topic, static_cast<int>(kPayloadSize), payload(), 0, false,
                                 reply.list) != MOSQ_ERR_SUCCESS)
            std::fprintf(stderr, "libmosquitto: responder could not answer\n");
        std::free(topic);
        std::free(id);
    }
};

Latency requestReply(const Settings &settings, const std::string &tag)
{
    Responder responder(settings, "rsp-" + tag);
    Requester requester(settings, tag);
    responder.subscribe(requester.requests());
    requester.send();
    if (!requester.replies.waitFor(settings.warmup + settings.requests, settings.stall))
        throw Failure("libmosquitto: request/reply stalled after " + std::to_string(requester.replies.count()) +
                      " rounds");
    return std::move(requester.latency);
}

} // namespace

const Contender kMosquitto = {"libmosquitto", publish, requestReply};

} // namespace velbench
