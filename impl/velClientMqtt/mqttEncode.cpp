/*
 * mqttEncode.cpp - a message, as the send path has prepared it, as an MQTT 5
 * publish. The payload is the binary attachment's bytes. What a plain MQTT 5
 * client understands goes into MQTT's own properties: response topic
 * (reply-to topic), correlation data (correlation id), content type, message
 * expiry interval, and one user property per string entry of the user
 * property map. Everything else - and those again - travels in the frame
 * property: the base64 of the message's wire frame built without the binary
 * attachment, the topic, and the correlation tag (which never travels), so
 * that a receiver of this library rebuilds the message exactly.
 */
#include <mosquitto.h>
#include <mqtt_protocol.h>

#include <cstring>

#include "velClientMqtt/mqttPublish.h"
#include "velClientMsg/container/tlvCodec.h"
#include "velClientMsg/header/headerMaps.h"
#include "velClientMsg/message/recordApi.h"
#include "velClientTime/clock.h"
#include "velClientVwf/vwf.h"

namespace {

/* Parts the publish carries itself (payload, topic name) or that never travel. */
constexpr int kPartsLeftOut[] = {VELCLIENT_BUFINFO_BINARY_ATTACHMENT_PART, VELCLIENT_BUFINFO_TOPIC_PART,
                                 VELCLIENT_BUFINFO_CORRELATION_TAG_PART, VELCLIENT_BUFINFO_QUEUENAME_PART,
                                 _VELCLIENT_BUFINFO_DEST_PREFIX_PART};

/* The property list being built; freed unless handed over. */
struct ListBuilder {
    mosquitto_property *head = nullptr;
    bool outOfMemory = false;
    ~ListBuilder()
    {
        if (head != nullptr)
            mosquitto_property_free_all(&head);
    }
    /* Notes the result of a mosquitto_property_add_* call: only running out
     * of memory fails the encode; a value MQTT cannot hold is left out. */
    void added(int rc) { outOfMemory = outOfMemory || rc == MOSQ_ERR_NOMEM; }
};

/* A text MQTT accepts as a string property: UTF-8 without control characters, short enough. */
bool isMqttText(const char *text, std::size_t n)
{
    return n <= vel::mqtt::kMaxPropertyValue &&
           mosquitto_validate_utf8(text, static_cast<int>(n)) == MOSQ_ERR_SUCCESS;
}

bool isMqttText(const char *text)
{
    return isMqttText(text, std::strlen(text));
}

/* Receive flags that are the receiving transport's to set, and the mark of a frame without a message. */
constexpr std::uint32_t kFlagsLeftOut =
    _VELCLIENT_RX_FLAG_MSG_ID | _VELCLIENT_RX_FLAG_REDELIVERED_MASK | vel::vwf::kFlagControlFrame;

/* The frame without the left-out parts and flags, as base64 in text. A
 * guaranteed message is framed as a direct one and then marked guaranteed,
 * so that the frame holds no message id. */
velClient_returnCode_t frameText(_velClient_msg *msg, std::string &text)
{
    velClient_bufInfo_t parts[_VELCLIENT_BUFINFO_NUM_PARTS];
    std::memcpy(parts, msg->bufInfo_a, sizeof parts);
    for (int part : kPartsLeftOut)
        parts[part] = velClient_bufInfo_t{nullptr, 0};
    const std::uint32_t flags = msg->msgInfo.flags & ~kFlagsLeftOut;
    vel::vwf::Frame frame;
    if (frame.build(parts, _VELCLIENT_BUFINFO_NUM_PARTS, flags & ~_VELCLIENT_RX_FLAG_DELIVERY_MODE_MASK, 0, msg) !=
        VELCLIENT_OK)
        return VELCLIENT_FAIL;
    if (flags & _VELCLIENT_RX_FLAG_DELIVERY_MODE_MASK) {
        frame.scratch.bytes[1] = vel::vwf::kProtocolGuaranteed;
        vel::tlv::putBE(frame.scratch.bytes + 2, flags, 4);
    }
    thread_local std::string flat; /* kept: no allocation per message */
    flat.clear();
    for (std::uint32_t i = 0; i < frame.numChunks; ++i)
        flat.append(reinterpret_cast<const char *>(frame.chunks[i].p), frame.chunks[i].len);
    text.clear();
    vel::mqtt::appendBase64(reinterpret_cast<const std::uint8_t *>(flat.data()), flat.size(), text);
    return VELCLIENT_OK;
}

/* Seconds left until the expiration, else the time-to-live rounded up; 0 when neither is set. */
std::uint32_t expirySeconds(_velClient_msg *msg)
{
    velClient_int64_t expiration = 0;
    std::uint64_t ms = msg->timeToLive;
    if (vel::msg::expiration(msg, &expiration) == VELCLIENT_OK && expiration > 0) {
        const auto now = static_cast<velClient_int64_t>(_velClient_getTimeInUs() / 1000);
        ms = expiration > now ? static_cast<std::uint64_t>(expiration - now) : 1;
    }
    const std::uint64_t seconds = ms / 1000 + (ms % 1000 != 0 ? 1 : 0);
    return seconds > UINT32_MAX ? UINT32_MAX : static_cast<std::uint32_t>(seconds);
}

void addStandard(_velClient_msg *msg, ListBuilder &list)
{
    velClient_destination_t replyTo{};
    /* A received header map's kind byte may name no known type: read as a number. */
    const auto isTopic = [](std::int64_t type) {
        return type == VELCLIENT_TOPIC_DESTINATION || type == VELCLIENT_TOPIC_TEMP_DESTINATION;
    };
    if (vel::msg::replyTo(msg, &replyTo) == VELCLIENT_OK && replyTo.dest != nullptr &&
        isTopic(vel::enumValue(replyTo.destType))) {
        const std::string name = vel::mqtt::topicName(replyTo.dest);
        if (isMqttText(name.c_str()))
            list.added(mosquitto_property_add_string(&list.head, MQTT_PROP_RESPONSE_TOPIC, name.c_str()));
    }
    const char *text = nullptr;
    if (vel::msg::headerString(msg, vel::msg::HeaderProperty::correlationId, &text) == VELCLIENT_OK &&
        text != nullptr && std::strlen(text) <= vel::mqtt::kMaxPropertyValue)
        list.added(mosquitto_property_add_binary(&list.head, MQTT_PROP_CORRELATION_DATA, text,
                                                 static_cast<std::uint16_t>(std::strlen(text))));
    if (vel::msg::headerMapString(msg, vel::mqtt::kContentTypeKey, &text) == VELCLIENT_OK && text != nullptr &&
        isMqttText(text))
        list.added(mosquitto_property_add_string(&list.head, MQTT_PROP_CONTENT_TYPE, text));
    if (std::uint32_t seconds = expirySeconds(msg); seconds != 0)
        list.added(mosquitto_property_add_int32(&list.head, MQTT_PROP_MESSAGE_EXPIRY_INTERVAL, seconds));
}

/* One user property per string entry of the user property map (part 7:
 * entry key, map header, entries), in order, when MQTT can hold it. */
void addUserProperties(_velClient_msg *msg, ListBuilder &list)
{
    const velClient_bufInfo_t &part = msg->bufInfo_a[VELCLIENT_BUFINFO_USER_PROPERTY_PART];
    constexpr std::uint32_t kFront = kMapEntryKeySize + vel::tlv::kContainerHeaderSize;
    const auto *p = static_cast<const std::uint8_t *>(part.buf_p);
    if (p == nullptr || part.bufSize < kFront || vel::tlv::getBE(p + kMapEntryKeySize + 1, 4) + kMapEntryKeySize !=
                                                     part.bufSize)
        return;
    const std::uint8_t *end = p + part.bufSize;
    vel::tlv::Entry e;
    for (const std::uint8_t *at = p + kFront; at < end; at += e.keyLength + e.valueLength) {
        if (vel::tlv::decodeEntry(at, end, e) != vel::tlv::Fault::none)
            return;
        if (e.value.type != VELCLIENT_STRING)
            continue;
        const char *name = e.name != nullptr ? e.name : "";
        const char *value = e.value.value.string != nullptr ? e.value.value.string : "";
        if (isMqttText(name) && isMqttText(value))
            list.added(mosquitto_property_add_string_pair(&list.head, MQTT_PROP_USER_PROPERTY, name, value));
    }
}

void addFrame(const std::string &text, ListBuilder &list)
{
    thread_local std::string chunk;
    for (std::size_t at = 0; at < text.size() && !list.outOfMemory; at += vel::mqtt::kFrameChunk) {
        chunk.assign(text, at, vel::mqtt::kFrameChunk);
        list.added(mosquitto_property_add_string_pair(&list.head, MQTT_PROP_USER_PROPERTY, vel::mqtt::kFrameProperty,
                                                      chunk.c_str()));
    }
}

velClient_returnCode_t outOfMemory()
{
    return VEL_FAIL(VELCLIENT_SUBCODE_OUT_OF_MEMORY, VELCLIENT_LOG_ERROR,
                    "Could not allocate the MQTT properties in velClient_session_sendMsg");
}

} // namespace

void vel::mqtt::PropertiesFree::operator()(mosquitto_property *list) const
{
    mosquitto_property_free_all(&list);
}

velClient_returnCode_t vel::mqtt::encode(_velClient_msg *msg, std::vector<char> &payload, Properties &properties)
{
    payload.clear();
    properties.reset();
    /* The frame first: reading the maps below may take a received metadata part apart. */
    thread_local std::string text;
    if (frameText(msg, text) != VELCLIENT_OK)
        return VELCLIENT_FAIL;
    if (_velClient_msg_getOrCreateHeaderMaps(msg, 0) == VELCLIENT_FAIL)
        return VELCLIENT_FAIL;
    ListBuilder list;
    addStandard(msg, list);
    addUserProperties(msg, list);
    addFrame(text, list);
    if (list.outOfMemory)
        return outOfMemory();
    const velClient_bufInfo_t &attachment = msg->bufInfo_a[VELCLIENT_BUFINFO_BINARY_ATTACHMENT_PART];
    if (attachment.buf_p != nullptr && attachment.bufSize != 0) {
        const auto *bytes = static_cast<const char *>(attachment.buf_p);
        payload.assign(bytes, bytes + attachment.bufSize);
    }
    properties.reset(list.head);
    list.head = nullptr;
    return VELCLIENT_OK;
}
