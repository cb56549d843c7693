/*
 * commandSession.h - the session of the send and receive commands: the
 * session properties their command lines give (--transport, --host, --user,
 * --password, --property), and a connected session that keeps what its
 * events report for the command to wait on.
 */
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "commandOptions.h"

namespace vel::tool {

/* The session properties of a command line, in order; the transport is amqp unless set. */
class SessionOptions {
public:
    SessionOptions();
    /* Takes the current option when it is one of the session's; false for any other. */
    bool take(OptionReader &args);
    /* Sets a property; a later value replaces an earlier one. */
    void set(std::string_view name, std::string value);
    /* The property's value, "" when it is not set. */
    std::string get(std::string_view name) const;
    /* True for the transports that connect to a broker, amqp and mqtt. */
    bool isBroker() const;
    /* Refuses a --queue on an mqtt session, which has no queues. */
    void refuseQueue() const;
    const std::vector<std::pair<std::string, std::string>> &properties() const { return props_; }

private:
    std::vector<std::pair<std::string, std::string>> props_;
};

/* The help lines of the session options. */
extern const char *const kSessionOptionsHelp;

/* What the session's events have reported so far. */
struct SessionState {
    std::uint64_t acknowledged = 0;
    /* The correlation tag and the broker's text of each refused message. */
    std::vector<std::pair<void *, std::string>> rejected;
    std::uint64_t canSend = 0;
    bool down = false;
    /* Texts of what ends a command: the session given up, a subscription refused, a receive that failed. */
    std::vector<std::string> failures;
};

/* A connected session; notices and failures are printed on standard error as they come, prefixed by the
 * program name. The destructor destroys it (a broker session first waits, bounded by its send timeout, for
 * the acknowledgements still due). */
class CommandSession {
public:
    /* Called for each message received, on the session's thread of delivery; what it throws is kept as a
     * failure and the message is accepted. */
    using Receiver = std::function<void(velClient_opaqueSession_pt, velClient_opaqueMsg_pt)>;

    /* Creates and connects the session; a library failure throws velclient::Error. */
    CommandSession(const char *program, const SessionOptions &options, Receiver receiver);
    ~CommandSession();
    CommandSession(const CommandSession &) = delete;
    CommandSession &operator=(const CommandSession &) = delete;

    velClient_opaqueSession_pt handle() const { return session_; }
    /* Waits up to timeout until done holds of the state; returns whether it does. */
    bool waitUntil(const std::function<bool(const SessionState &)> &done, std::chrono::milliseconds timeout);
    /* A copy of the state. */
    SessionState state();
    /* Records a failure as the events do. */
    void fail(const std::string &text);

private:
    static velClient_rxMsgCallback_returnCode_t onMessage(velClient_opaqueSession_pt, velClient_opaqueMsg_pt, void *);
    static void onEvent(velClient_opaqueSession_pt, velClient_session_eventCallbackInfo_pt, void *);
    void record(const velClient_session_eventCallbackInfo_t &info);

    const char *program_;
    Receiver receiver_;
    velClient_opaqueSession_pt session_ = nullptr;
    std::mutex mutex_;
    std::condition_variable changed_;
    SessionState state_;
};

} // namespace vel::tool
