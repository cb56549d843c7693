/*
 * mqttForeign.cpp - a message from another MQTT client (a publish without
 * the frame property), built from what MQTT 5 itself carries: the payload
 * becomes the binary attachment, the response topic the reply-to topic, the
 * correlation data the correlation id (dropped when it holds a NUL, which no
 * text of this library can), the content type the HTTP content type, the
 * message expiry interval the expiration, and the user properties, in
 * order, the string entries of the user property map (one without a name,
 * which a map entry needs, is dropped). The message is direct, of class of
 * service 1.
 */
#include <mosquitto.h>
#include <mqtt_protocol.h>

#include <cstring>

#include "velClientMqtt/mqttPublish.h"
#include "velClientMsg/header/headerMaps.h"
#include "velClientMsg/message/recordApi.h"
#include "velClientTime/clock.h"

namespace {

using vel::mqtt::refuse;

constexpr char kReplyToKey[] = "rt";
/* Room asked for when the user property map is created; it grows as needed. */
constexpr std::uint32_t kUserPropertyRoom = 128;

velClient_returnCode_t noMemory()
{
    return VEL_FAIL(VELCLIENT_SUBCODE_OUT_OF_MEMORY, VELCLIENT_LOG_ERROR,
                    "Could not read the MQTT properties in the MQTT receive path");
}

velClient_returnCode_t setPart(_velClient_msg *msg, int part, const void *bytes, std::size_t n)
{
    if (n == 0)
        return VELCLIENT_OK;
    if (n > UINT32_MAX - 16)
        return refuse("payload too large");
    return _velClient_msg_setBufinfo(msg, part, bytes, static_cast<std::uint32_t>(n), 0);
}

/* The topic part: its characters and a NUL, the part's size not counting the NUL. */
velClient_returnCode_t setTopic(_velClient_msg *msg, std::string_view topic)
{
    if (setPart(msg, VELCLIENT_BUFINFO_TOPIC_PART, topic.data(), topic.size() + 1) != VELCLIENT_OK)
        return VELCLIENT_FAIL;
    static_cast<char *>(msg->bufInfo_a[VELCLIENT_BUFINFO_TOPIC_PART].buf_p)[topic.size()] = '\0';
    msg->bufInfo_a[VELCLIENT_BUFINFO_TOPIC_PART].bufSize = static_cast<std::uint32_t>(topic.size());
    return VELCLIENT_OK;
}

velClient_returnCode_t setReplyTo(_velClient_msg *msg, const mosquitto_property *p)
{
    vel::mqtt::ReadTexts name;
    if (mosquitto_property_read_string(p, MQTT_PROP_RESPONSE_TOPIC, &name.first, false) == nullptr)
        return noMemory();
    thread_local std::string topic;
    if (!vel::mqtt::topicOf(name.first, topic))
        return refuse("response topic does not map to a topic");
    const velClient_destination_t dest{VELCLIENT_TOPIC_DESTINATION, topic.c_str()};
    return vel::hdr::set(msg, kReplyToKey, _VELCLIENT_MSG_FLAG_REPLY_TO, _VELCLIENT_MSG_FLAG_REPLY_TO,
                         [&](_velClient_container *map) {
                             return vel::container::addDestination(map, &dest, sizeof dest, kReplyToKey);
                         });
}

velClient_returnCode_t setCorrelationId(_velClient_msg *msg, const mosquitto_property *p)
{
    vel::mqtt::ReadTexts data;
    std::uint16_t n = 0;
    if (mosquitto_property_read_binary(p, MQTT_PROP_CORRELATION_DATA, reinterpret_cast<void **>(&data.first), &n,
                                       false) == nullptr)
        return noMemory();
    if (n == 0 || std::memchr(data.first, 0, n) != nullptr)
        return VELCLIENT_OK; /* no text of this library: dropped */
    return vel::msg::setHeaderString(msg, vel::msg::HeaderProperty::correlationId, data.first);
}

velClient_returnCode_t setContentType(_velClient_msg *msg, const mosquitto_property *p)
{
    vel::mqtt::ReadTexts type;
    if (mosquitto_property_read_string(p, MQTT_PROP_CONTENT_TYPE, &type.first, false) == nullptr)
        return noMemory();
    const char *text = type.first;
    return vel::hdr::set(msg, vel::mqtt::kContentTypeKey, _VELCLIENT_MSG_FLAG_HTTP_CONTENT_TYPE,
                         _VELCLIENT_MSG_FLAG_HTTP_CONTENT_TYPE, [&](_velClient_container *map) {
                             return vel::container::addString(map, text, vel::mqtt::kContentTypeKey);
                         });
}

velClient_returnCode_t setExpiration(_velClient_msg *msg, const mosquitto_property *p)
{
    std::uint32_t seconds = 0;
    mosquitto_property_read_int32(p, MQTT_PROP_MESSAGE_EXPIRY_INTERVAL, &seconds, false);
    msg->expirationTime = _velClient_getTimeInUs() / 1000 + std::uint64_t{seconds} * 1000;
    return _velClient_msg_setMessageExpiration(msg);
}

velClient_returnCode_t addUserProperty(_velClient_msg *msg, const mosquitto_property *p)
{
    vel::mqtt::ReadTexts pair;
    if (mosquitto_property_read_string_pair(p, MQTT_PROP_USER_PROPERTY, &pair.first, &pair.second, false) == nullptr)
        return noMemory();
    if (pair.first[0] == '\0')
        return VELCLIENT_OK; /* a map entry needs a name: dropped */
    if (msg->userPropertyMap_p == nullptr &&
        _velClient_msg_createContainer(msg, VELCLIENT_BUFINFO_USER_PROPERTY_PART, &msg->userPropertyMap_p,
                                       kUserPropertyRoom, VELCLIENT_CONTAINER_MAP) != VELCLIENT_OK)
        return VELCLIENT_FAIL;
    return vel::container::addString(msg->userPropertyMap_p, pair.second, pair.first);
}

velClient_returnCode_t setProperty(_velClient_msg *msg, const mosquitto_property *p)
{
    switch (mosquitto_property_identifier(p)) {
    case MQTT_PROP_RESPONSE_TOPIC: return setReplyTo(msg, p);
    case MQTT_PROP_CORRELATION_DATA: return setCorrelationId(msg, p);
    case MQTT_PROP_CONTENT_TYPE: return setContentType(msg, p);
    case MQTT_PROP_MESSAGE_EXPIRY_INTERVAL: return setExpiration(msg, p);
    case MQTT_PROP_USER_PROPERTY: return addUserProperty(msg, p);
    default: return VELCLIENT_OK; /* nothing of this library's */
    }
}

velClient_returnCode_t fill(_velClient_msg *msg, std::string_view topic, const void *payload, std::size_t size,
                            const mosquitto_property *properties)
{
    if (setTopic(msg, topic) != VELCLIENT_OK ||
        setPart(msg, VELCLIENT_BUFINFO_BINARY_ATTACHMENT_PART, payload, size) != VELCLIENT_OK)
        return VELCLIENT_FAIL;
    for (const mosquitto_property *p = properties; p != nullptr; p = mosquitto_property_next(p))
        if (setProperty(msg, p) != VELCLIENT_OK)
            return VELCLIENT_FAIL;
    return _velClient_container_closeMapStream(&msg->userPropertyMap_p, true, true, false);
}

} // namespace

velClient_returnCode_t vel::mqtt::decodeForeign(std::string_view topic, const void *payload, std::size_t size,
                                                const mosquitto_property *properties, _velClient_msg **msg_p)
{
    _velClient_msg *msg = nullptr;
    if (_velClient_msg_alloc(&msg) != VELCLIENT_OK)
        return VELCLIENT_FAIL;
    if (fill(msg, topic, payload, size, properties) != VELCLIENT_OK ||
        vel::msg::issueHandle(msg, "the MQTT receive path") != VELCLIENT_OK) {
        _velClient_msg_free(msg);
        return VELCLIENT_FAIL;
    }
    *msg_p = msg;
    return VELCLIENT_OK;
}
