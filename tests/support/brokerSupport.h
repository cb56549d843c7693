/* What the broker tests share. The executable runs on one transport, named by
 * its first argument ("amqp", the default, or "mqtt"): one of the scripts/
 * throwaway-broker scripts starts that broker once for the run (RabbitMQ with a
 * TLS listener, or mosquitto) on a free port of 127.0.0.1 with its state in a
 * temporary directory, and stops it after the last test, each process by its
 * own pid. Tests in suites named Amqp... or Mqtt... run only on that
 * transport, every other test on both. Without the broker every test fails,
 * unless VELCLIENT_SKIP_BROKER_TESTS=1, which skips them all and says so.
 * Also a session that collects what it receives, and the message helpers. */
#pragma once

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

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
    /* The run's certificates on AMQP: "ca.pem" signed the one of the TLS
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

private:
    /* Runs the broker's script with verb; fails the test unless it succeeds. */
    std::string script(const std::string &verb, const std::string &more = "");
};
Broker &broker();

/* "127.0.0.1:port" of a port on which nothing listens. */
std::string closedHost();
/* A name no other test run uses (topics, queues). */
std::string unique(const std::string &stem);

constexpr velClient_uint32_t kModes[] = {VELCLIENT_DELIVERY_MODE_DIRECT, VELCLIENT_DELIVERY_MODE_PERSISTENT,
                                         VELCLIENT_DELIVERY_MODE_NONPERSISTENT};

/* An event as the callback saw it. */
struct Event {
    velClient_session_event_t event;
    std::string info;
    void *correlation_p;
};

/* A session on the run's broker whose callbacks keep every message (taken) and event. */
class Client {
public:
    explicit Client(std::vector<std::string> props = {});
    ~Client();
    Client(const Client &) = delete;
    Client &operator=(const Client &) = delete;

    velClient_opaqueSession_pt session() const { return session_; }
    /* Connects; false, with the library's text as a test failure, when it fails. */
    bool connect();
    /* Waits up to timeout for at least count messages (kept ones) or received ones (kept or not). */
    bool waitMessages(std::size_t count, std::chrono::milliseconds timeout = 20s);
    bool waitReceived(std::size_t count, std::chrono::milliseconds timeout);
    std::size_t received();
    /* Whether the messages are kept (the default) or left to the library to free. */
    void keepMessages(bool keep) { keep_ = keep; }
    bool waitEvents(velClient_session_event_t event, std::size_t count, std::chrono::milliseconds timeout = 20s);
    std::size_t countEvents(velClient_session_event_t event);
    std::vector<Event> events();
    /* The kept messages, now the caller's. */
    std::vector<velClient_opaqueMsg_pt> messages();
    /* Waits for expected messages and a little longer for any beyond them; their attachments. */
    std::multiset<std::string> bodies(std::size_t expected, std::chrono::milliseconds timeout = 20s);
    /* Subscribes; the broker has the subscription when it returns. */
    void subscribe(const std::string &name, bool queue = false);
    /* Returns once the broker has handled every request the session made
     * before: a message to a topic of the session's own goes round. */
    void sync();
    /* Called on the I/O thread for each message or event before it is kept. */
    std::function<void(velClient_opaqueSession_pt, velClient_opaqueMsg_pt)> onMessage;
    std::function<void(velClient_opaqueSession_pt, const Event &)> onEvent;

private:
    static velClient_rxMsgCallback_returnCode_t rx(velClient_opaqueSession_pt, velClient_opaqueMsg_pt, void *);
    static void ev(velClient_opaqueSession_pt, velClient_session_eventCallbackInfo_pt, void *);

    velClient_opaqueSession_pt session_ = nullptr;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<velClient_opaqueMsg_pt> messages_;
    std::size_t received_ = 0;
    std::size_t probes_ = 0;
    std::atomic<bool> keep_{true};
    std::vector<Event> events_;
};

/* Connects each client in turn; false at the first that fails. */
template <typename... Clients>
bool connectAll(Clients &...clients)
{
    return (... && clients.connect());
}

/* props with more after them. */
std::vector<std::string> with(std::vector<std::string> props, const std::vector<std::string> &more);
/* A message to topic or queue with an attachment, sent in delivery mode. */
velClient_opaqueMsg_pt makeMessage(const std::string &destination, bool queue, velClient_uint32_t mode,
                                   const std::string &attachment = "payload");
/* Sends a message made by makeMessage on c's session. */
velClient_returnCode_t send(Client &c, const std::string &to, bool queue, velClient_uint32_t mode,
                            const std::string &body);
/* A message with every part and header property a sender sets: a user
 * property map with one entry of each type, an attachment map holding a
 * nested one, every text, number and mark of the header. */
velClient_opaqueMsg_pt richMessage(const std::string &destination, bool queue, velClient_uint32_t mode);
/* Answers request on s, when it has a reply-to: body there, with its correlation id, marked as a reply. */
void reply(velClient_opaqueSession_pt s, velClient_opaqueMsg_pt request, velClient_uint32_t mode,
           const std::string &body);
/* Adds one field of each scalar type (bool, u8, i8, u16, i16, u32, i32, u64,
 * i64, wchar, float, double, string, bytes, null; named so) and closes the map. */
void addOneOfEachType(velClient_opaqueContainer_pt map);
/* The dump of a message without the lines that only the receive side sets. */
std::string dumpWithoutReceiveLines(velClient_opaqueMsg_pt msg);
std::string attachmentOf(velClient_opaqueMsg_pt msg);
std::string destinationOf(velClient_opaqueMsg_pt msg);
/* The dump of the message as a loopback session receives it. */
std::string loopbackDump(velClient_opaqueMsg_pt m);
void freeAll(const std::vector<velClient_opaqueMsg_pt> &messages);

} // namespace veltest::broker
