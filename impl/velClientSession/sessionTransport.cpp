/*
 * sessionTransport.cpp - where a broker session's calls meet its transport:
 * which connection it starts, how its topics and queues are named on the
 * broker, and how its messages are encoded (AMQP 1.0 or MQTT 5). MQTT has no
 * queues: they are refused here, with the call named.
 */
#include <mosquitto.h>

#include <new>

#include "velClientAmqp/amqpCodec.h"
#include "velClientAmqp/amqpConnection.h"
#include "velClientLog/logPrivate.h"
#include "velClientMqtt/mqttCodec.h"
#include "velClientMqtt/mqttConnection.h"
#include "velClientSession/sessionPrivate.h"

namespace {

velClient_returnCode_t noQueues(const char *call)
{
    return VEL_FAIL_RANGE("Queues are not available on an MQTT session in %s", call);
}

void freeProperties(void *list)
{
    vel::mqtt::PropertiesFree()(static_cast<mosquitto_property *>(list));
}

} // namespace

namespace vel::session {

velClient_returnCode_t openConnection(_velClient_session *s, std::shared_ptr<vel::broker::Connection> &out)
{
    vel::broker::Connection *c = nullptr;
    if (s->transport == _velClient_transport::mqtt)
        c = new (std::nothrow) vel::mqtt::Connection(s);
    else
        c = new (std::nothrow) vel::amqp::Connection(s);
    return vel::broker::Connection::start(c, out);
}

velClient_returnCode_t subscriptionOf(_velClient_session *s, const char *name, bool queue, const char *call,
                                      vel::broker::Subscription &out)
{
    if (s->transport == _velClient_transport::mqtt) {
        if (queue)
            return noQueues(call);
        out = {vel::mqtt::topicFilter(name), false, name};
        return VELCLIENT_OK;
    }
    const vel::amqp::Addressing &rules = s->broker.addressing;
    out = {queue ? vel::amqp::queueAddress(rules, name) : vel::amqp::topicAddress(rules, name, true), queue,
           queue ? "" : name};
    return VELCLIENT_OK;
}

velClient_returnCode_t targetOf(_velClient_session *s, const char *name, bool queue, std::string &out)
{
    if (s->transport == _velClient_transport::mqtt) {
        if (queue)
            return noQueues("velClient_session_sendMsg");
        out = vel::mqtt::topicName(name);
        return VELCLIENT_OK;
    }
    const vel::amqp::Addressing &rules = s->broker.addressing;
    out = queue ? vel::amqp::queueAddress(rules, name) : vel::amqp::topicAddress(rules, name, false);
    return VELCLIENT_OK;
}

velClient_returnCode_t encodeFor(_velClient_session *s, _velClient_msg *msg, vel::broker::Outgoing &out)
{
    if (s->transport == _velClient_transport::mqtt) {
        vel::mqtt::Properties properties;
        if (vel::mqtt::encode(msg, out.bytes, properties) != VELCLIENT_OK)
            return VELCLIENT_FAIL;
        out.extra = vel::broker::Extra(properties.release(), freeProperties);
        return VELCLIENT_OK;
    }
    return vel::amqp::encode(msg, s->broker.addressing, out.bytes, out.address.get());
}

} // namespace vel::session
