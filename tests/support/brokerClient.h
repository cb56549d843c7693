/* A broker session that collects what it receives, and the message helpers
 * the broker tests share. The sessions use the transport and the broker that
 * the test executable's main file provides (transport(), and the broker of
 * throwawayBroker.h). */
#pragma once

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "support/throwawayBroker.h"
#include "velclient/velClientMsg.h"

namespace veltest::broker {

/* The sessions' transport; defined by each broker-test executable. */
struct Transport {
    const char *name; /* the "SESSION_TRANSPORT" value */
    /* Whether a subscribe returns only once the broker has the subscription;
     * when not, the tests make sure of it with a message of their own. */
    bool subscribeWaitsForBroker;
};
const Transport &transport();

/* The port of the running broker and "127.0.0.1:port". */
int port();
std::string host();
/* A port of 127.0.0.1 on which nothing listens. */
int closedPort();
/* A name no other test run uses (topics, queues). */
std::string unique(const std::string &stem);
/* Ends the broker with signal ("TERM" or "KILL") and waits until it is gone. */
void killBroker(const char *signal);
/* Starts the broker again on the same port with its data. */
void restartBroker();

/* An event as the callback saw it. */
struct Event {
    velClient_session_event_t event;
    std::string info;
    void *correlation_p;
};

/* A broker session whose callbacks keep every message (taken) and event. */
class Client {
public:
    explicit Client(std::vector<std::string> props = {});
    ~Client();
    Client(const Client &) = delete;
    Client &operator=(const Client &) = delete;

    velClient_opaqueSession_pt session() const { return session_; }
    /* Connects; false, with the library's text as a test failure, when it fails. */
    bool connect();
    /* Waits up to timeout for at least count messages; false on timeout. */
    bool waitMessages(std::size_t count, std::chrono::milliseconds timeout = std::chrono::seconds(20));
    /* Waits until count messages in all have arrived, kept or not. */
    bool waitReceived(std::size_t count, std::chrono::milliseconds timeout);
    std::size_t received();
    /* Whether the messages are kept (the default) or left to the library to free. */
    void keepMessages(bool keep) { keep_ = keep; }
    bool waitEvents(velClient_session_event_t event, std::size_t count,
                    std::chrono::milliseconds timeout = std::chrono::seconds(20));
    std::vector<velClient_opaqueMsg_pt> messages();
    std::vector<Event> events();
    std::size_t countEvents(velClient_session_event_t event);
    /* Subscribes; the broker has the subscription when it returns. */
    void subscribeAndSync(const std::string &topic, bool queue = false);
    /* Returns once the broker has handled every request the session made
     * before: a message to a topic of the session's own goes round. */
    void sync();
    /* Called on the I/O thread for each message before it is kept. */
    std::function<void(velClient_opaqueSession_pt, velClient_opaqueMsg_pt)> onMessage;
    /* Called on the I/O thread for each event before it is kept. */
    std::function<void(velClient_opaqueSession_pt, const Event &)> onEvent;

private:
    static velClient_rxMsgCallback_returnCode_t rx(velClient_opaqueSession_pt, velClient_opaqueMsg_pt, void *);
    static void ev(velClient_opaqueSession_pt, velClient_session_eventCallbackInfo_pt, void *);
    bool isProbe(velClient_opaqueMsg_pt msg);

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
/* Answers request on s: body to its reply-to, with its correlation id, marked as a reply. */
void reply(velClient_opaqueSession_pt s, velClient_opaqueMsg_pt request, velClient_uint32_t mode,
           const std::string &body);
/* Sends count messages to topic, which c subscribes, in modes by turns, at
 * most a tenth of them on their way at once, and waits until all came back. */
void pumpThrough(Client &c, const std::string &topic, std::size_t count, const std::vector<velClient_uint32_t> &modes);
/* Adds one field of each scalar type (bool, u8, i8, u16, i16, u32, i32, u64,
 * i64, wchar, float, double, string, bytes, null; named so) and closes the map. */
void addOneOfEachType(velClient_opaqueContainer_pt map);
/* The dump of a message without the lines that only the receive side sets. */
std::string dumpWithoutReceiveLines(velClient_opaqueMsg_pt msg);
std::string attachmentOf(velClient_opaqueMsg_pt msg);
/* The dump of the message as a loopback session receives it. */
std::string loopbackDump(velClient_opaqueMsg_pt m);
void freeAll(std::vector<velClient_opaqueMsg_pt> messages);

} // namespace veltest::broker
