/*
 * sessionCalls.cpp - the calls of a session beyond sending: connect and
 * disconnect, topic and queue subscriptions, client acknowledgement, the event
 * callback and the names of events. A loopback or null session is up at once
 * and keeps no subscriptions (a loopback session receives what it sends); a
 * broker session hands each call to its connection.
 */
#include <cstring>
#include <iterator>

#include "velClientBroker/brokerConnection.h"
#include "velClientLog/logPrivate.h"
#include "velClientSession/sessionPrivate.h"

namespace {

using vel::session::connectionOf;

/* A topic or queue name a subscription call accepts: 1 to 250 characters. */
velClient_returnCode_t checkName(const char *name, const char *what, const char *call)
{
    if (name == nullptr)
        return VEL_FAIL_NULL("Null %s pointer in %s", what, call);
    std::size_t length = std::strlen(name);
    if (length == 0)
        return VEL_FAIL_RANGE("Empty %s in %s", what, call);
    if (length > kSessionMaxTopic)
        return VEL_FAIL_RANGE("%s length of %d exceeds maximum of %d in %s", what, static_cast<int>(length),
                              static_cast<int>(kSessionMaxTopic), call);
    return VELCLIENT_OK;
}

velClient_returnCode_t notConnected(const char *call)
{
    return VEL_FAIL(VELCLIENT_SUBCODE_SESSION_NOT_ESTABLISHED, VELCLIENT_LOG_WARNING, "Session not connected in %s",
                    call);
}

velClient_returnCode_t fromOwnCallback(const char *call)
{
    return VEL_FAIL(VELCLIENT_SUBCODE_PARAM_CONFLICT, VELCLIENT_LOG_WARNING,
                    "Called from inside the session's own callback in %s", call);
}

/* The four subscription calls: check, then hand to the connection. */
velClient_returnCode_t subscription(velClient_opaqueSession_pt session, const char *name, bool queue, bool add,
                                    const char *call, vel::HandleFormat badHandle)
{
    _velClient_session *s = vel::sessionOrFail(session, badHandle);
    if (s == nullptr)
        return VELCLIENT_FAIL;
    if (checkName(name, queue ? "queueName" : "topic", call) != VELCLIENT_OK)
        return VELCLIENT_FAIL;
    if (!vel::session::onBroker(s))
        return VELCLIENT_OK;
    vel::broker::Subscription wanted;
    if (vel::session::subscriptionOf(s, name, queue, call, wanted) != VELCLIENT_OK)
        return VELCLIENT_FAIL;
    std::shared_ptr<vel::broker::Connection> connection = connectionOf(s);
    if (connection == nullptr)
        return notConnected(call);
    return connection->subscribe(std::move(wanted), add, call);
}

} // namespace

bool vel::session::onOwnIoThread(_velClient_session *s)
{
    std::shared_ptr<vel::broker::Connection> connection = connectionOf(s);
    return connection != nullptr && connection->onIoThread();
}

std::shared_ptr<vel::broker::Connection> vel::session::connectionOf(_velClient_session *s)
{
    std::lock_guard lock(s->connectionMutex);
    return s->connection;
}

void vel::session::disconnect(_velClient_session *s)
{
    std::lock_guard serial(s->connectMutex);
    std::shared_ptr<vel::broker::Connection> connection;
    {
        std::lock_guard lock(s->connectionMutex);
        connection.swap(s->connection);
    }
    if (connection != nullptr)
        connection->close();
}

extern "C" VELCLIENT_API velClient_returnCode_t velClient_session_connect(velClient_opaqueSession_pt session)
{
    _velClient_session *s = vel::sessionOrFail(session, "Bad session pointer (%p) in velClient_session_connect");
    if (s == nullptr)
        return VELCLIENT_FAIL;
    if (!vel::session::onBroker(s))
        return VELCLIENT_OK;
    if (vel::session::onOwnIoThread(s))
        return fromOwnCallback("velClient_session_connect");
    std::lock_guard serial(s->connectMutex);
    if (connectionOf(s) != nullptr)
        return VELCLIENT_OK;
    std::shared_ptr<vel::broker::Connection> connection;
    if (vel::session::openConnection(s, connection) != VELCLIENT_OK)
        return VELCLIENT_FAIL;
    std::lock_guard lock(s->connectionMutex);
    s->connection = std::move(connection);
    return VELCLIENT_OK;
}

extern "C" VELCLIENT_API velClient_returnCode_t velClient_session_disconnect(velClient_opaqueSession_pt session)
{
    _velClient_session *s = vel::sessionOrFail(session, "Bad session pointer (%p) in velClient_session_disconnect");
    if (s == nullptr)
        return VELCLIENT_FAIL;
    if (vel::session::onOwnIoThread(s))
        return fromOwnCallback("velClient_session_disconnect");
    vel::session::disconnect(s);
    return VELCLIENT_OK;
}

/* An export that starts or ends a topic or queue subscription. */
#define VEL_SUBSCRIPTION_EXPORT(function, name, queue, subscribe)                                               \
    extern "C" VELCLIENT_API velClient_returnCode_t function(velClient_opaqueSession_pt session, const char *name) \
    {                                                                                                          \
        return subscription(session, name, queue, subscribe, #function, "Bad session pointer (%p) in " #function); \
    }

VEL_SUBSCRIPTION_EXPORT(velClient_session_topicSubscribe, topic, false, true)
VEL_SUBSCRIPTION_EXPORT(velClient_session_topicUnsubscribe, topic, false, false)
VEL_SUBSCRIPTION_EXPORT(velClient_session_queueSubscribe, queueName, true, true)
VEL_SUBSCRIPTION_EXPORT(velClient_session_queueUnsubscribe, queueName, true, false)

extern "C" VELCLIENT_API velClient_returnCode_t velClient_session_ack(velClient_opaqueSession_pt session,
                                                                     velClient_msgId_t msgId)
{
    _velClient_session *s = vel::sessionOrFail(session, "Bad session pointer (%p) in velClient_session_ack");
    if (s == nullptr)
        return VELCLIENT_FAIL;
    std::shared_ptr<vel::broker::Connection> connection = connectionOf(s);
    if (connection == nullptr)
        return VEL_FAIL_RANGE("No message with id %llu awaits acknowledgement in velClient_session_ack",
                              static_cast<unsigned long long>(msgId));
    return connection->ack(msgId);
}

extern "C" VELCLIENT_API velClient_returnCode_t velClient_session_setEventCallback(
    velClient_opaqueSession_pt session, velClient_session_eventCallbackFunc_t cb, void *user_p)
{
    _velClient_session *s =
        vel::sessionOrFail(session, "Bad session pointer (%p) in velClient_session_setEventCallback");
    if (s == nullptr)
        return VELCLIENT_FAIL;
    std::lock_guard lock(s->eventMutex);
    s->events = {cb, user_p};
    return VELCLIENT_OK;
}

extern "C" VELCLIENT_API const char *velClient_session_eventToString(velClient_session_event_t event)
{
    static constexpr const char *kNames[] = {"UP_NOTICE",          "DOWN_ERROR",      "RECONNECTING_NOTICE",
                                             "RECONNECTED_NOTICE", "ACKNOWLEDGEMENT", "REJECTED_MSG_ERROR",
                                             "CAN_SEND",           "SUBSCRIPTION_ERROR"};
    auto index = static_cast<unsigned>(event);
    return index < std::size(kNames) ? kNames[index] : "Unknown";
}
