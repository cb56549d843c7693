/*
 * sessionPrivate.h - the session record: the channel messages are
 * sent on. It holds the client name, the point-to-point inbox topic base, the
 * send-time generation settings, the send counters, the transport, the broker
 * settings and connection, the receive and event callbacks, and the mutex held
 * around a send.
 */
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "velClientAmqp/amqpCodec.h"

#include "velClientLog/checkedFormat.h"
#include "velclient/velClient.h"

inline constexpr std::size_t kSessionMaxTopic = 250;

enum class _velClient_transport : std::uint8_t {
    loopback, /* sent bytes are parsed back and delivered to this session's callback */
    drop,     /* sent bytes are built and dropped */
    amqp,     /* a broker over AMQP 1.0 */
    mqtt      /* a broker over MQTT 5 */
};

struct _velClient_msg;

namespace vel::broker {
class Connection;
struct Outgoing;
struct Subscription;
}

namespace vel::session {

/* One entry of the broker host list; port 0 takes the default (5672, or 5671
 * with TLS). */
struct BrokerHost {
    std::string name;
    std::uint16_t port = 0;
};

/* What a broker session reads from its properties. */
struct BrokerSettings {
    std::vector<BrokerHost> hosts{BrokerHost{"127.0.0.1", 0}};
    std::string userName; /* empty: SASL ANONYMOUS */
    std::string password;
    bool ssl = false;
    std::string trustStore;
    bool validateCertificate = true;
    std::int64_t connectTimeoutMs = 10000;
    std::int64_t reconnectRetries = 20; /* -1: forever */
    std::int64_t reconnectRetryWaitMs = 3000;
    std::int64_t keepaliveMs = 30000;
    bool sendBlocking = true;
    std::int64_t sendTimeoutMs = 10000;
    std::uint32_t pubWindowSize = 255;
    bool clientAck = false; /* SESSION_RECEIVE_ACK_MODE client */
    vel::amqp::Addressing addressing;
};

/* The target of the last message sent to the broker: sends mostly go to one
 * destination, whose address is then not worked out again. */
struct LastTarget {
    bool queue = false;
    std::string name;
    std::shared_ptr<const std::string> address;
};

/* The event callback and its argument, replaced together. */
struct EventSink {
    velClient_session_eventCallbackFunc_t callback_p = nullptr;
    void *user_p = nullptr;
};

} // namespace vel::session

struct _velClient_session {
    velClient_opaqueSession_pt opaqueSession_p;
    char clientName[kSessionMaxTopic + 1];
    char p2pTopicBase[kSessionMaxTopic + 1];
    bool genSendTimestamps;
    bool genSenderId;
    bool genSequenceNumber;
    bool autoGenForSendEnabled; /* any of the three above */
    bool calcMessageExpiration;
    _velClient_transport transport;
    std::uint64_t sendSeqNum;    /* next generated sequence number, from 1 */
    std::uint64_t lastMsgIdSent; /* one per persistent or non-persistent message sent */
    velClient_session_rxMsgCallbackFunc_t rxMsgCallback_p;
    void *user_p;
    vel::session::BrokerSettings broker;
    /* The broker connection and its I/O thread while connected, replaced
     * under connectionMutex (held only to copy or swap it); connect and
     * disconnect run one at a time under connectMutex. */
    std::shared_ptr<vel::broker::Connection> connection;
    std::mutex connectionMutex;
    std::mutex connectMutex;
    std::mutex eventMutex; /* guards events */
    vel::session::EventSink events;
    /* Held around the send path; recursive because a receive callback may
     * send again on the same session. */
    std::recursive_mutex mutex;
    vel::session::LastTarget lastTarget; /* under mutex */
};

namespace vel {

/* Reads props into a new session record (defaults for what they leave out);
 * VELCLIENT_FAIL with PARAM_OUT_OF_RANGE and the property named. */
velClient_returnCode_t configureSession(_velClient_session &s, const char *const *props);

/* The session behind handle, or nullptr after recording badHandleFormat
 * (whose optional %p receives the handle) as PARAM_NULL_PTR, warning. */
_velClient_session *sessionOrFail(velClient_opaqueSession_pt handle, HandleFormat badHandleFormat);

} // namespace vel

namespace vel::session {

/* True on the I/O thread of the session's connection (inside its callbacks). */
bool onOwnIoThread(_velClient_session *s);
/* The session's connection, shared for the length of a call; null when not connected. */
std::shared_ptr<vel::broker::Connection> connectionOf(_velClient_session *s);
/* Closes the session's connection, if any (see velClient_session_disconnect). */
void disconnect(_velClient_session *s);

/* Whether the session's transport is a broker's. */
inline bool onBroker(const _velClient_session *s)
{
    return s->transport == _velClient_transport::amqp || s->transport == _velClient_transport::mqtt;
}
/* Starts a connection of the session's transport (see broker::Connection::start). */
velClient_returnCode_t openConnection(_velClient_session *s, std::shared_ptr<vel::broker::Connection> &out);
/* The subscription to a topic (wildcards allowed) or queue, as the transport
 * names it; PARAM_OUT_OF_RANGE, with call named, when the transport has no queues. */
velClient_returnCode_t subscriptionOf(_velClient_session *s, const char *name, bool queue, const char *call,
                                      vel::broker::Subscription &out);
/* The address of a topic or queue a message is sent to (false: the
 * transport has no queues, recorded as for subscriptionOf). */
velClient_returnCode_t targetOf(_velClient_session *s, const char *name, bool queue, std::string &out);
/* The message encoded for the transport into out.bytes (and out.extra). */
velClient_returnCode_t encodeFor(_velClient_session *s, _velClient_msg *msg, vel::broker::Outgoing &out);

} // namespace vel::session

struct velClient_bufInfo;

/* Sends msg on the session's transport; the caller holds the session mutex.
 * When seqNumPtr is set, the session's next sequence number is written there
 * (8 bytes, big-endian) before the bytes go out. */
velClient_returnCode_t _velClient_session_fastSend(_velClient_session *session, const velClient_bufInfo *parts,
                                                   std::uint32_t numParts, std::uint32_t flags,
                                                   std::uint64_t *seqNumPtr, _velClient_msg *msg);
