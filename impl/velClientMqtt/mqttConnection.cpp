/*
 * mqttConnection.cpp - the life of an MQTT 5 connection: the I/O thread's
 * poll loop, one libmosquitto client per attempt (connecting without
 * blocking, within the connect timeout), the broker's CONNACK, a lost socket
 * or keepalive, the timer, the wake descriptor and the close.
 */
#include "velClientMqtt/mqttConnection.h"

#include <mosquitto.h>
#include <mqtt_protocol.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <mutex>
#include <new>

#include "velClientLog/logPrivate.h"
#include "velClientMqtt/mqttCodec.h"
#include "velClientSession/sessionPrivate.h"

namespace vel::mqtt {

namespace {

/* How long a close waits for the broker to take the DISCONNECT. */
constexpr std::int64_t kCloseGraceMs = 2000;
/* libmosquitto's keepalive and retries need a call at least this often. */
constexpr int kMiscIntervalMs = 1000;
/* Most packets read in one go before the loop looks at its other work. */
constexpr int kReadBurst = 64;
/* How long the broker keeps the session (subscriptions, QoS 1 messages) after
 * the connection is lost, in seconds: at least a minute, at most a day. */
constexpr std::uint32_t kMinExpiry = 60, kMaxExpiry = 86400;

/* The inbox: the session's topic base and every level below. */
broker::Subscription inboxOf(_velClient_session *session)
{
    std::string inbox = session->p2pTopicBase;
    inbox.append("/>");
    return {topicFilter(inbox), false, inbox};
}

/* MQTT's keepalive is in whole seconds, at least 5; a dead broker is noticed
 * within about twice the keepalive, so half of the asked time is used. */
int keepaliveSeconds(std::int64_t ms)
{
    if (ms == 0)
        return 0;
    return static_cast<int>(std::clamp<std::int64_t>((ms + 1999) / 2000, 5, 65535));
}

std::uint32_t sessionExpiry(const session::BrokerSettings &b)
{
    if (b.reconnectRetries < 0)
        return kMaxExpiry;
    std::int64_t ms = (b.reconnectRetries + 1) * (b.reconnectRetryWaitMs + b.connectTimeoutMs);
    return static_cast<std::uint32_t>(std::clamp<std::int64_t>(ms / 1000, kMinExpiry, kMaxExpiry));
}

/* The text of a libmosquitto result; errno's for a system error. */
std::string resultText(int rc, int savedErrno)
{
    if (rc == MOSQ_ERR_ERRNO && savedErrno != 0)
        return std::strerror(savedErrno);
    return mosquitto_strerror(rc);
}

bool isLoginRefusal(int reasonCode)
{
    return reasonCode == MQTT_RC_BAD_USERNAME_OR_PASSWORD || reasonCode == MQTT_RC_NOT_AUTHORIZED ||
           reasonCode == MQTT_RC_BAD_AUTHENTICATION_METHOD;
}

std::once_flag libraryStarted_s;

} // namespace

Connection::Connection(_velClient_session *session)
    : broker::Connection(session, inboxOf(session)), wakeFd_(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC))
{
    std::call_once(libraryStarted_s, [] { mosquitto_lib_init(); });
}

Connection::~Connection()
{
    if (ioThread_.joinable())
        close();
    if (client_ != nullptr)
        mosquitto_destroy(client_);
    if (wakeFd_ >= 0)
        ::close(wakeFd_);
}

void Connection::wakeIo()
{
    std::uint64_t one = 1;
    [[maybe_unused]] ssize_t n = write(wakeFd_, &one, sizeof one);
}

void Connection::run()
{
    startAttempt();
    while (!finished_) {
        pollOnce();
        notifyWindow();
    }
    if (client_ != nullptr) {
        mosquitto_destroy(client_);
        client_ = nullptr;
    }
}

int Connection::pollTimeoutMs() const
{
    int timeout = kMiscIntervalMs;
    if (timerAt_) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(*timerAt_ - Clock::now()).count();
        timeout = static_cast<int>(std::clamp<std::int64_t>(left, 0, timeout));
    }
    return timeout;
}

void Connection::pollOnce()
{
    int sock = client_ != nullptr ? mosquitto_socket(client_) : -1;
    pollfd fds[2] = {{wakeFd_, POLLIN, 0}, {sock, POLLIN, 0}};
    if (sock >= 0 && mosquitto_want_write(client_))
        fds[1].events |= POLLOUT;
    poll(fds, sock >= 0 ? 2 : 1, pollTimeoutMs());
    if (fds[0].revents & POLLIN) {
        std::uint64_t count = 0;
        [[maybe_unused]] ssize_t n = read(wakeFd_, &count, sizeof count);
        runCommands();
    }
    if (sock >= 0 && (fds[1].revents & (POLLIN | POLLERR | POLLHUP)))
        readBurst();
    if (client_ != nullptr && !lost_ && mosquitto_socket(client_) >= 0 && mosquitto_want_write(client_))
        afterCall(mosquitto_loop_write(client_, 1));
    if (client_ != nullptr && !lost_ && mosquitto_socket(client_) >= 0)
        afterCall(mosquitto_loop_misc(client_));
    if (timerAt_ && Clock::now() >= *timerAt_) {
        timerAt_.reset();
        timedOut();
    }
    if (queuedByCallback_ && !finished_) { /* an event raised outside libmosquitto's calls */
        queuedByCallback_ = false;
        runCommands();
    }
}

/* libmosquitto reads one packet per call while no QoS 1 message is pending:
 * the packets already received are read without polling again in between. */
void Connection::readBurst()
{
    for (int i = 0; i < kReadBurst && client_ != nullptr && !lost_; ++i) {
        errno = 0;
        int rc = mosquitto_loop_read(client_, 1);
        bool drained = errno == EAGAIN || errno == EWOULDBLOCK;
        afterCall(rc);
        if (rc != MOSQ_ERR_SUCCESS || drained)
            return;
    }
}

void Connection::afterCall(int rc)
{
    int savedErrno = errno;
    if (client_ != nullptr && !lost_ && rc != MOSQ_ERR_SUCCESS && mosquitto_socket(client_) < 0) {
        lost_ = true;
        lostReason_ = resultText(rc, savedErrno);
    }
    if (lost_)
        dropped();
    if (queuedByCallback_) {
        queuedByCallback_ = false;
        runCommands();
    }
}

/* A fresh client for the attempt, set up from the session's properties. */
bool Connection::newClient()
{
    const session::BrokerSettings &b = session_->broker;
    client_ = mosquitto_new(session_->clientName, !everUp_, this);
    if (client_ == nullptr)
        return false;
    mosquitto_int_option(client_, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V5);
    mosquitto_int_option(client_, MOSQ_OPT_TCP_NODELAY, 1);
    mosquitto_connect_v5_callback_set(client_, onConnect);
    mosquitto_disconnect_v5_callback_set(client_, onDisconnect);
    mosquitto_publish_v5_callback_set(client_, onPublish);
    mosquitto_message_v5_callback_set(client_, onMessage);
    mosquitto_subscribe_v5_callback_set(client_, onSubscribe);
    if (!b.userName.empty())
        mosquitto_username_pw_set(client_, b.userName.c_str(), b.password.c_str());
    if (b.ssl) {
        const char *file = b.trustStore.empty() ? nullptr : b.trustStore.c_str();
        mosquitto_tls_set(client_, file, file == nullptr ? "/etc/ssl/certs" : nullptr, nullptr, nullptr, nullptr);
        if (!b.validateCertificate) {
            mosquitto_tls_opts_set(client_, 0, nullptr, nullptr);
            mosquitto_tls_insecure_set(client_, true);
        }
    }
    return true;
}

/* Connects to the current host without blocking; the outcome arrives as a
 * CONNACK, a lost socket or the connect timeout. */
void Connection::startAttempt()
{
    const session::BrokerSettings &b = session_->broker;
    const session::BrokerHost &host = b.hosts[hostIndex_];
    int port = host.port != 0 ? host.port : (b.ssl ? 8883 : 1883);
    attemptHost_ = host.name + ":" + std::to_string(port);
    lost_ = false;
    opened_ = false;
    refusal_.clear();
    refusalCode_ = VELCLIENT_SUBCODE_COMMUNICATION_ERROR;
    if (client_ != nullptr)
        mosquitto_destroy(client_);
    client_ = nullptr;
    if (!newClient()) {
        attemptFailed("no memory for the client", VELCLIENT_SUBCODE_OUT_OF_MEMORY);
        return;
    }
    /* libmosquitto has no asynchronous connect that takes MQTT 5 properties,
     * but its synchronous one keeps them before it checks its keepalive: a
     * call refused for a keepalive of 1 leaves them for the asynchronous one. */
    mosquitto_property *properties = nullptr;
    mosquitto_property_add_int32(&properties, MQTT_PROP_SESSION_EXPIRY_INTERVAL, sessionExpiry(b));
    mosquitto_connect_bind_v5(client_, host.name.c_str(), port, 1, nullptr, properties);
    mosquitto_property_free_all(&properties);
    setTimer(b.connectTimeoutMs);
    int rc = mosquitto_connect_async(client_, host.name.c_str(), port, keepaliveSeconds(b.keepaliveMs));
    if (rc != MOSQ_ERR_SUCCESS && rc != MOSQ_ERR_CONN_PENDING) {
        int savedErrno = errno;
        mosquitto_destroy(client_);
        client_ = nullptr;
        attemptFailed(resultText(rc, savedErrno), VELCLIENT_SUBCODE_COMMUNICATION_ERROR);
    }
}

void Connection::setTimer(std::int64_t ms)
{
    timerAt_ = Clock::now() + std::chrono::milliseconds(ms);
}

void Connection::cancelTimer()
{
    timerAt_.reset();
}

void Connection::timedOut()
{
    if (closeBegun_) {
        finished_ = true;
    } else if (client_ != nullptr && !opened_) {
        mosquitto_destroy(client_);
        client_ = nullptr;
        attemptFailed("no answer within " + std::to_string(session_->broker.connectTimeoutMs) + " ms",
                      VELCLIENT_SUBCODE_TIMEOUT);
    } else if (client_ == nullptr && !closing_) {
        startAttempt();
    }
}

/* The socket of the current client went: the attempt failed, or the connection was lost. */
void Connection::dropped()
{
    lost_ = false;
    mosquitto_destroy(client_);
    client_ = nullptr;
    inFlight_.clear();
    subscribing_.clear();
    ended(refusal_.empty() ? lostReason_ : refusal_, refusalCode_);
}

/* Disconnect asked: what was queued goes out, then a DISCONNECT that ends the
 * broker's session, bounded by a grace time. */
void Connection::beginClose()
{
    closeBegun_ = true;
    if (client_ == nullptr || !opened_) {
        finished_ = true;
        return;
    }
    mosquitto_property *properties = nullptr;
    mosquitto_property_add_int32(&properties, MQTT_PROP_SESSION_EXPIRY_INTERVAL, 0);
    int rc = mosquitto_disconnect_v5(client_, MQTT_RC_NORMAL_DISCONNECTION, properties);
    mosquitto_property_free_all(&properties);
    if (rc != MOSQ_ERR_SUCCESS) {
        finished_ = true;
        return;
    }
    setTimer(kCloseGraceMs);
}

void Connection::connected(int reasonCode)
{
    if (reasonCode == MQTT_RC_SUCCESS) {
        connectionUp();
        return;
    }
    refusal_ = mosquitto_reason_string(reasonCode);
    refusalCode_ = isLoginRefusal(reasonCode) ? VELCLIENT_SUBCODE_LOGIN_FAILURE
                                              : VELCLIENT_SUBCODE_COMMUNICATION_ERROR;
}

void Connection::disconnected(int rc, int savedErrno)
{
    if (lost_)
        return;
    lost_ = true;
    lostReason_ = rc == MOSQ_ERR_SUCCESS ? "closed" : resultText(rc, savedErrno);
}

/* ---- libmosquitto's callbacks, on the I/O thread inside its loop calls ---- */

void Connection::onConnect(mosquitto *, void *self, int reasonCode, int, const mosquitto_property *)
{
    static_cast<Connection *>(self)->connected(reasonCode);
}

void Connection::onDisconnect(mosquitto *, void *self, int rc, const mosquitto_property *)
{
    int savedErrno = errno;
    static_cast<Connection *>(self)->disconnected(rc, savedErrno);
}

void Connection::onPublish(mosquitto *, void *self, int mid, int reasonCode, const mosquitto_property *)
{
    static_cast<Connection *>(self)->published(mid, reasonCode);
}

void Connection::onMessage(mosquitto *, void *self, const mosquitto_message *message,
                           const mosquitto_property *properties)
{
    static_cast<Connection *>(self)->received(message, properties);
}

void Connection::onSubscribe(mosquitto *, void *self, int mid, int count, const int *granted,
                             const mosquitto_property *)
{
    static_cast<Connection *>(self)->subscribed(mid, count, granted);
}

} // namespace vel::mqtt
