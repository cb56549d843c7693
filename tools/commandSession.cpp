/*
 * commandSession.cpp - the session options of the send and receive commands
 * and their connected session: creation and connection from the options,
 * the receive trampoline, and the event record the commands wait on.
 */
#include "commandSession.h"

#include <algorithm>
#include <cstdio>

namespace vel::tool {

const char *const kSessionOptionsHelp =
    "Session:\n"
    "  --transport amqp|mqtt|loopback\n"
    "                             amqp (the default) connects to an AMQP 1.0 broker, mqtt to an MQTT 5\n"
    "                             broker (topics only: --queue is refused); loopback stays in the process\n"
    "  --host HOST[:PORT]         a broker; repeat it, or give a comma-separated list, for failover\n"
    "                             (default 127.0.0.1, port 5672 for amqp, 1883 for mqtt)\n"
    "  --user NAME                log in with this user name (SASL PLAIN on amqp); else anonymously\n"
    "  --password PASSWORD        the password that goes with --user\n"
    "  --property NAME=VALUE      any other session property, e.g. SESSION_SSL=1,\n"
    "                             SESSION_SSL_TRUST_STORE=ca.pem, SESSION_CONNECT_TIMEOUT_MS=3000\n";

SessionOptions::SessionOptions()
{
    set("SESSION_TRANSPORT", "amqp");
}

void SessionOptions::set(std::string_view name, std::string value)
{
    auto it = std::find_if(props_.begin(), props_.end(), [&](const auto &p) { return p.first == name; });
    if (it != props_.end())
        it->second = std::move(value);
    else
        props_.emplace_back(std::string(name), std::move(value));
}

std::string SessionOptions::get(std::string_view name) const
{
    auto it = std::find_if(props_.begin(), props_.end(), [&](const auto &p) { return p.first == name; });
    return it != props_.end() ? it->second : std::string();
}

bool SessionOptions::take(OptionReader &args)
{
    if (args.is("--transport")) {
        std::string transport = args.value();
        if (transport != "amqp" && transport != "mqtt" && transport != "loopback")
            refuseValue(args.name(), transport, "amqp, mqtt or loopback");
        set("SESSION_TRANSPORT", std::move(transport));
    } else if (args.is("--host")) {
        std::string hosts = get("SESSION_HOST");
        set("SESSION_HOST", hosts.append(hosts.empty() ? "" : ",").append(args.value()));
    } else if (args.is("--user")) {
        set("SESSION_USERNAME", args.value());
    } else if (args.is("--password")) {
        set("SESSION_PASSWORD", args.value());
    } else if (args.is("--property")) {
        const std::string property = args.value();
        const std::size_t equals = property.find('=');
        if (equals == 0 || equals == std::string::npos)
            refuseValue(args.name(), property, "NAME=VALUE");
        set(property.substr(0, equals), property.substr(equals + 1));
    } else {
        return false;
    }
    return true;
}

bool SessionOptions::isBroker() const
{
    const std::string transport = get("SESSION_TRANSPORT");
    return transport == "amqp" || transport == "mqtt";
}

void SessionOptions::refuseQueue() const
{
    if (get("SESSION_TRANSPORT") == "mqtt")
        throw UsageError("option --queue: an mqtt session has no queues (use --topic)");
}

CommandSession::CommandSession(const char *program, const SessionOptions &options, Receiver receiver)
    : program_(program), receiver_(std::move(receiver))
{
    std::vector<const char *> list;
    for (const auto &[name, value] : options.properties()) {
        list.push_back(name.c_str());
        list.push_back(value.c_str());
    }
    list.push_back(nullptr);
    check(velClient_session_create(list.data(), &CommandSession::onMessage, this, &session_));
    check(velClient_session_setEventCallback(session_, &CommandSession::onEvent, this));
    check(velClient_session_connect(session_));
}

CommandSession::~CommandSession()
{
    if (session_ != nullptr)
        velClient_session_destroy(&session_);
}

bool CommandSession::waitUntil(const std::function<bool(const SessionState &)> &done,
                               std::chrono::milliseconds timeout)
{
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] { return done(state_); });
}

SessionState CommandSession::state()
{
    std::lock_guard lock(mutex_);
    return state_;
}

void CommandSession::fail(const std::string &text)
{
    std::fprintf(stderr, "%s: %s\n", program_, text.c_str());
    std::lock_guard lock(mutex_);
    state_.failures.push_back(text);
    changed_.notify_all();
}

velClient_rxMsgCallback_returnCode_t CommandSession::onMessage(velClient_opaqueSession_pt session,
                                                               velClient_opaqueMsg_pt msg, void *user)
{
    auto *self = static_cast<CommandSession *>(user);
    try {
        if (self->receiver_)
            self->receiver_(session, msg);
    } catch (const std::exception &e) {
        self->fail(e.what());
    }
    return VELCLIENT_CALLBACK_OK;
}

void CommandSession::onEvent(velClient_opaqueSession_pt, velClient_session_eventCallbackInfo_pt info, void *user)
{
    static_cast<CommandSession *>(user)->record(*info);
}

void CommandSession::record(const velClient_session_eventCallbackInfo_t &info)
{
    const std::string text = std::string(velClient_session_eventToString(info.event)) + ": " +
                             (info.info_p != nullptr ? info.info_p : "");
    switch (info.event) {
    case VELCLIENT_SESSION_EVENT_RECONNECTING_NOTICE:
    case VELCLIENT_SESSION_EVENT_RECONNECTED_NOTICE:
        std::fprintf(stderr, "%s: %s\n", program_, text.c_str());
        return;
    case VELCLIENT_SESSION_EVENT_DOWN_ERROR:
    case VELCLIENT_SESSION_EVENT_SUBSCRIPTION_ERROR:
        fail(text);
        break;
    default:
        break;
    }
    std::lock_guard lock(mutex_);
    if (info.event == VELCLIENT_SESSION_EVENT_ACKNOWLEDGEMENT)
        ++state_.acknowledged;
    else if (info.event == VELCLIENT_SESSION_EVENT_REJECTED_MSG_ERROR)
        state_.rejected.emplace_back(info.correlation_p, info.info_p != nullptr ? info.info_p : "");
    else if (info.event == VELCLIENT_SESSION_EVENT_CAN_SEND)
        ++state_.canSend;
    else if (info.event == VELCLIENT_SESSION_EVENT_DOWN_ERROR)
        state_.down = true;
    changed_.notify_all();
}

} // namespace vel::tool
