/* What the broker tests share. The executable runs on one transport, named by
 * its first argument ("amqp", the default, or "mqtt"): one of the scripts/
 * throwaway-broker scripts starts that broker once for the run (RabbitMQ or
 * mosquitto, each with a TLS listener too) on a free port of 127.0.0.1 with
 * its state in a temporary directory, and stops it after the last test, each process by its
 * own pid. Tests in suites named Amqp... or Mqtt... run only on that
 * transport, every other test on both. Without the broker every test fails,
 * unless VELCLIENT_SKIP_BROKER_TESTS=1, which skips them all and says so.
 * Also a session that collects what it receives, and the message helpers. */
#pragma once

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <iterator>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "support/velTestSupport.h"
#include "velclient/velClient.h"
#include "velclient/velClientMsg.h"

namespace veltest::broker {

using namespace std::chrono_literals;

/* The run's broker. */
class Broker : public ::testing::Environment {
public:
    explicit Broker(bool onAmqp) : amqp(onAmqp) {}
    void SetUp() override;
    void TearDown() override;
    const char *transport() const { return amqp ? "amqp" : "mqtt"; }
    std::string host() const { return "127.0.0.1:" + std::to_string(port); }
    /* The run's certificates: "ca.pem" signed the one of the TLS
     * listener, which names 127.0.0.1 and localhost; "other-ca.pem" signed nothing. */
    std::string tlsFile(const char *name) const { return dir + "/tls/" + name; }
    /* Ends the broker with signal ("TERM" or "KILL") and waits until it is gone. */
    void kill(const char *signal) { script("kill", signal); }
    /* Starts the broker again on the same port with its data. */
    void restart() { EXPECT_EQ(port, std::atoi(script("restart").c_str())); }

    const bool amqp;
    std::string dir;
    int port = 0;
    int tlsPort = 0;
    int loginPort = 0; /* MQTT: a listener that admits only user "velclient" with password "secret" */

private:
    /* Runs the broker's script with verb; fails the test unless it succeeds. */
    std::string script(const std::string &verb, const std::string &more = "");
};
Broker &broker();

constexpr velClient_uint32_t kModes[] = {VELCLIENT_DELIVERY_MODE_DIRECT, VELCLIENT_DELIVERY_MODE_PERSISTENT,
                                         VELCLIENT_DELIVERY_MODE_NONPERSISTENT};

/* A name no other test run uses (topics, queues). */
inline std::string unique(const std::string &stem)
{
    static std::atomic<int> counter{0};
    return stem + std::to_string(getpid()) + "x" + std::to_string(++counter);
}

inline std::string attachmentOf(velClient_opaqueMsg_pt msg)
{
    void *p = nullptr;
    velClient_uint32_t size = 0;
    velClient_msg_getBinaryAttachmentPtr(msg, &p, &size);
    return p != nullptr ? std::string(static_cast<const char *>(p), size) : std::string();
}

inline std::string destinationOf(velClient_opaqueMsg_pt msg)
{
    velClient_destination_t d{};
    if (velClient_msg_getDestination(msg, &d, sizeof d) != VELCLIENT_OK || d.dest == nullptr)
        return "(none)";
    return (d.destType == VELCLIENT_QUEUE_DESTINATION ? "queue " : "") + std::string(d.dest);
}

inline void freeAll(const std::vector<velClient_opaqueMsg_pt> &messages)
{
    for (velClient_opaqueMsg_pt m : messages)
        velClient_msg_free(&m);
}

/* A message (m, or a new one) to topic or queue with an attachment, sent in delivery mode. */
inline velClient_opaqueMsg_pt makeMessage(const std::string &destination, bool queue, velClient_uint32_t mode,
                                          const std::string &attachment = "payload", velClient_opaqueMsg_pt m = nullptr)
{
    if (m == nullptr) {
        EXPECT_EQ(VELCLIENT_OK, velClient_msg_alloc(&m));
    }
    const velClient_destination_t to{queue ? VELCLIENT_QUEUE_DESTINATION : VELCLIENT_TOPIC_DESTINATION,
                                     destination.c_str()};
    const auto size = static_cast<velClient_uint32_t>(attachment.size());
    EXPECT_EQ(VELCLIENT_OK, velClient_msg_setDestination(m, &to, sizeof to));
    EXPECT_EQ(VELCLIENT_OK, velClient_msg_setDeliveryMode(m, mode));
    EXPECT_EQ(VELCLIENT_OK, velClient_msg_setBinaryAttachment(m, attachment.data(), size));
    return m;
}

/* An event as the callback saw it. */
struct Event {
    velClient_session_event_t event;
    std::string info;
    void *correlation_p;
};

/* A session on the run's broker whose callbacks keep every message (taken) and event. */
class Client {
public:
    explicit Client(std::vector<std::string> props = {})
    {
        props.insert(props.begin(), {"SESSION_TRANSPORT", broker().transport(), "SESSION_HOST", broker().host(),
                                     "SESSION_CONNECT_TIMEOUT_MS", "20000"});
        std::vector<const char *> list;
        for (const std::string &p : props)
            list.push_back(p.c_str());
        list.push_back(nullptr);
        EXPECT_EQ(VELCLIENT_OK, velClient_session_create(list.data(), &Client::rx, this, &session_));
        EXPECT_EQ(VELCLIENT_OK, velClient_session_setEventCallback(session_, &Client::ev, this));
    }
    ~Client()
    {
        if (session_ != nullptr) {
            EXPECT_EQ(VELCLIENT_OK, velClient_session_destroy(&session_));
        }
        freeAll(messages_);
    }
    Client(const Client &) = delete;
    Client &operator=(const Client &) = delete;

    velClient_opaqueSession_pt session() const { return session_; }
    /* Connects; false, with the library's text as a test failure, when it fails. */
    bool connect()
    {
        if (velClient_session_connect(session_) == VELCLIENT_OK)
            return true;
        ADD_FAILURE() << "velClient_session_connect: " << velClient_getLastErrorInfo()->errorStr;
        return false;
    }
    /* Subscribes; the broker has the subscription when it returns. */
    void subscribe(const std::string &name, bool queue = false)
    {
        ASSERT_EQ(VELCLIENT_OK, queue ? velClient_session_queueSubscribe(session_, name.c_str())
                                      : velClient_session_topicSubscribe(session_, name.c_str()));
    }
    /* Waits up to timeout until done() holds (called under the client's lock). */
    template <typename Done>
    bool waitFor(std::chrono::milliseconds timeout, Done done)
    {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, timeout, done);
    }
    /* Waits up to timeout for at least count messages kept. */
    bool waitMessages(std::size_t count, std::chrono::milliseconds timeout = 20s)
    {
        return waitFor(timeout, [&] { return messages_.size() >= count; });
    }
    bool waitEvents(velClient_session_event_t event, std::size_t count, std::chrono::milliseconds timeout = 20s)
    {
        auto seen = [&] { return std::ranges::count(events_, event, &Event::event); };
        return waitFor(timeout, [&] { return std::cmp_greater_equal(seen(), count); });
    }
    std::size_t countEvents(velClient_session_event_t event) { return events(event).size(); }
    /* The events seen, or those of one kind. */
    std::vector<Event> events(std::optional<velClient_session_event_t> only = std::nullopt)
    {
        std::lock_guard lock(mutex_);
        std::vector<Event> kept;
        std::ranges::copy_if(events_, std::back_inserter(kept),
                             [&](const Event &e) { return !only || e.event == *only; });
        return kept;
    }
    /* The kept messages, now the caller's. */
    std::vector<velClient_opaqueMsg_pt> messages()
    {
        std::lock_guard lock(mutex_);
        return std::exchange(messages_, {});
    }
    /* Waits for expected messages and a little longer for any beyond them; their attachments. */
    std::multiset<std::string> bodies(std::size_t expected, std::chrono::milliseconds timeout = 20s)
    {
        EXPECT_TRUE(waitMessages(expected, timeout)) << "expected " << expected << ", received " << received_;
        std::this_thread::sleep_for(300ms);
        std::multiset<std::string> seen;
        const std::vector<velClient_opaqueMsg_pt> got = messages();
        for (velClient_opaqueMsg_pt m : got)
            seen.insert(attachmentOf(m));
        freeAll(got);
        return seen;
    }
    /* Returns once the broker has handled every request the session made
     * before: the broker handles them in order, and a message to a topic of
     * the session's own, sent after them, has come back. */
    void sync()
    {
        const std::string topic = unique(kProbeStem);
        const std::size_t before = probes_;
        ASSERT_EQ(VELCLIENT_OK, velClient_session_topicSubscribe(session_, topic.c_str()));
        velClient_opaqueMsg_pt probe = makeMessage(topic, false, VELCLIENT_DELIVERY_MODE_DIRECT);
        ASSERT_EQ(VELCLIENT_OK, velClient_session_sendMsg(session_, probe));
        velClient_msg_free(&probe);
        ASSERT_TRUE(waitFor(20s, [&] { return probes_ > before; })) << "no message back on " << topic;
        EXPECT_EQ(VELCLIENT_OK, velClient_session_topicUnsubscribe(session_, topic.c_str()));
    }
    /* Called on the I/O thread for each message before it is kept. */
    std::function<void(velClient_opaqueSession_pt, velClient_opaqueMsg_pt)> onMessage;
    std::function<void(velClient_opaqueSession_pt, const Event &)> onEvent;

private:
    static constexpr const char *kProbeStem = "velclient-test-sync/";

    static velClient_rxMsgCallback_returnCode_t rx(velClient_opaqueSession_pt s, velClient_opaqueMsg_pt msg, void *user)
    {
        auto *self = static_cast<Client *>(user);
        const bool probe = destinationOf(msg).rfind(kProbeStem, 0) == 0;
        if (!probe && self->onMessage)
            self->onMessage(s, msg);
        std::lock_guard lock(self->mutex_);
        ++(probe ? self->probes_ : self->received_);
        self->changed_.notify_all();
        if (probe)
            return VELCLIENT_CALLBACK_OK;
        self->messages_.push_back(msg);
        return VELCLIENT_CALLBACK_TAKE_MSG;
    }
    static void ev(velClient_opaqueSession_pt s, velClient_session_eventCallbackInfo_pt info, void *user)
    {
        auto *self = static_cast<Client *>(user);
        Event event{info->event, info->info_p ? info->info_p : "", info->correlation_p};
        if (self->onEvent)
            self->onEvent(s, event);
        std::lock_guard lock(self->mutex_);
        self->events_.push_back(std::move(event));
        self->changed_.notify_all();
    }

    velClient_opaqueSession_pt session_ = nullptr;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<velClient_opaqueMsg_pt> messages_;
    std::atomic<std::size_t> received_ = 0;
    std::atomic<std::size_t> probes_ = 0;
    std::vector<Event> events_;
};

/* Connects each client in turn; false at the first that fails. */
template <typename... Clients>
bool connectAll(Clients &...clients)
{
    return (... && clients.connect());
}

/* Sends a message made by makeMessage, with tag as its correlation tag when given, on c's session. */
inline velClient_returnCode_t send(Client &c, const std::string &to, bool queue, velClient_uint32_t mode,
                                   const std::string &body, void *tag = nullptr)
{
    velClient_opaqueMsg_pt m = makeMessage(to, queue, mode, body);
    if (tag != nullptr) {
        EXPECT_EQ(VELCLIENT_OK, velClient_msg_setCorrelationTagPtr(m, tag, 0));
    }
    velClient_returnCode_t rc = velClient_session_sendMsg(c.session(), m);
    velClient_msg_free(&m);
    return rc;
}

/* A message with every part and kind of header property a sender sets, to topic or queue destination in
 * delivery mode: the wire-format fuzz seed "everything" (a user property map, user data, XML, sender id,
 * sequence number, reply-to) without its correlation tag, which stays with the sender, an attachment map made
 * anew over a short attachment, and the header's further texts, numbers, a mark and an expiration instead of
 * the time to live. */
inline velClient_opaqueMsg_pt richMessage(const std::string &destination, bool queue, velClient_uint32_t mode)
{
    std::ifstream in(VELCLIENT_SOURCE_DIR "/fuzz/corpus/vwf/everything", std::ios::binary);
    std::vector<char> seed(std::istreambuf_iterator<char>(in), {});
    velClient_bufInfo_t wire{seed.data(), static_cast<velClient_uint32_t>(seed.size())};
    velClient_opaqueMsg_pt m = nullptr;
    EXPECT_EQ(VELCLIENT_OK, velClient_msg_decodeFromVwf(&wire, &m));
    makeMessage(destination, queue, mode, "payload", m); /* the attachment a short part of its own, first */
    EXPECT_EQ(VELCLIENT_OK, velClient_msg_setCorrelationTagPtr(m, nullptr, 0));
    velClient_opaqueContainer_pt map = nullptr;
    EXPECT_EQ(VELCLIENT_OK, velClient_msg_createBinaryAttachmentMap(m, &map, 512));
    velClient_container_addString(map, "outer", "level");
    EXPECT_EQ(VELCLIENT_OK, velClient_container_closeMapStream(&map));
    velClient_msg_setTimeToLive(m, 0);
    velClient_msg_setExpiration(m, 4102444800000LL);
    velClient_msg_setApplicationMessageId(m, "app-id-1");
    velClient_msg_setApplicationMsgType(m, "app-type");
    velClient_msg_setCorrelationId(m, "corr-1");
    velClient_msg_setHttpContentType(m, "text/plain");
    velClient_msg_setHttpContentEncoding(m, "gzip");
    velClient_msg_setClassOfService(m, VELCLIENT_COS_3);
    velClient_msg_setDMQEligible(m, 1); /* a mark: the others travel the same way, as the codec seeds show */
    velClient_msg_setSenderTimestamp(m, 1700000000123LL);
    return m;
}

using veltest::dumpWithoutReceiveLines;

} // namespace veltest::broker
