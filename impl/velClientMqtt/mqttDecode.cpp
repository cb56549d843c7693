/*
 * mqttDecode.cpp - a received MQTT 5 publish as a new message of this
 * library. A publish with the frame property came from this library: the
 * frame is decoded from base64 into one data block, followed by a topic item
 * (the topic of the publish's topic name) and a binary attachment item (the
 * payload), its length fixed, and the whole parsed by the wire parser, so
 * the message reads back exactly as it was sent. The frame is checked before
 * anything is added to it: a header this library writes, every item inside
 * it, and none of the items the publish supplies itself. A publish without
 * the frame property is another client's (mqttForeign.cpp).
 */
#include <mosquitto.h>
#include <mqtt_protocol.h>

#include <cstring>

#include "velClientMqtt/mqttPublish.h"
#include "velClientMsg/container/tlvCodec.h"
#include "velClientVwf/vwf.h"

namespace {

using vel::mqtt::refuse;
using namespace vel::vwf;

/* Gathers the frame property's values, in order, into text; false when
 * there is none. *noMemory tells that a value could not be read. */
bool frameTextOf(const mosquitto_property *properties, std::string &text, bool *noMemory)
{
    bool found = false;
    text.clear();
    for (const mosquitto_property *p = properties; p != nullptr; p = mosquitto_property_next(p)) {
        if (mosquitto_property_identifier(p) != MQTT_PROP_USER_PROPERTY)
            continue;
        vel::mqtt::ReadTexts pair;
        if (mosquitto_property_read_string_pair(p, MQTT_PROP_USER_PROPERTY, &pair.first, &pair.second, false) ==
            nullptr) {
            *noMemory = true;
            return found;
        }
        if (std::strcmp(pair.first, vel::mqtt::kFrameProperty) == 0) {
            found = true;
            text += pair.second;
        }
    }
    return found;
}

/* A frame header this library writes, and items that lie inside the frame,
 * none of them an attachment, topic or queue name. */
bool isUsableFrame(const std::uint8_t *p, std::size_t n)
{
    if (n < kFrameHeaderSize || p[0] != kVersion || (p[1] != kProtocolDirect && p[1] != kProtocolGuaranteed) ||
        (vel::tlv::getBE(p + 2, 4) & kFlagControlFrame) != 0 || vel::tlv::getBE(p + 6, 4) != n || p[10] != 0 ||
        p[11] != 0)
        return false;
    for (std::size_t at = kFrameHeaderSize; at < n;) {
        if (n - at < kItemHeaderSize)
            return false;
        const std::uint64_t length = vel::tlv::getBE(p + at + 1, 4);
        if (length > n - at - kItemHeaderSize || p[at] == kTagBinaryAttachment || p[at] == kTagTopic ||
            p[at] == kTagQueueName)
            return false;
        at += kItemHeaderSize + length;
    }
    return true;
}

std::uint8_t *putItem(std::uint8_t *p, Tag tag, const void *value, std::size_t n, bool text)
{
    p[0] = tag;
    vel::tlv::putBE(p + 1, n + (text ? 1 : 0), 4);
    std::memcpy(p + kItemHeaderSize, value, n);
    p += kItemHeaderSize + n;
    if (text)
        *p++ = 0;
    return p;
}

/* Takes the message the parser built. */
velClient_returnCode_t keep(void *, void *parserVoid_p)
{
    static_cast<_velClient_vwfParsing *>(parserVoid_p)->appOwnsMessage = 1;
    return VELCLIENT_OK;
}

/* The frame of text, the topic item and the attachment item in one block, parsed. */
velClient_returnCode_t fromFrame(const std::string &text, const std::string &topic, const void *payload,
                                 std::size_t size, _velClient_session *session, _velClient_msg **msg_p)
{
    std::size_t frameSize = 0;
    if (!vel::mqtt::base64Size(text, frameSize))
        return refuse("frame property is not base64");
    const std::uint64_t total = std::uint64_t{frameSize} + kItemHeaderSize + topic.size() + 1 +
                                (size > 0 ? kItemHeaderSize + std::uint64_t{size} : 0);
    if (total > UINT32_MAX)
        return refuse("message too large");
    _velClient_datab *block = nullptr;
    if (_velClient_datablock_alloc(&block, static_cast<std::uint32_t>(total)) != VELCLIENT_OK)
        return VELCLIENT_FAIL;
    std::uint8_t *p = block->dbData_p;
    const char *fault = !vel::mqtt::decodeBase64(text, p)  ? "frame property is not base64"
                        : !isUsableFrame(p, frameSize) ? "frame property holds no usable frame"
                                                       : nullptr;
    if (fault != nullptr) {
        VEL_DATAB_RELEASE(block);
        return refuse(fault);
    }
    std::uint8_t *end = putItem(p + frameSize, kTagTopic, topic.data(), topic.size(), true);
    if (size > 0)
        putItem(end, kTagBinaryAttachment, payload, size, false);
    vel::tlv::putBE(p + 6, total, 4);
    _velClient_vwfParsing parse;
    _velClient_initVwfParseBlock(&parse, session, keep, block, static_cast<std::uint32_t>(total));
    const velClient_returnCode_t rc = _velClient_vwfParse(nullptr, &parse);
    _velClient_cleanUpParse(&parse);
    if (rc != VELCLIENT_OK)
        return VELCLIENT_FAIL;
    *msg_p = parse.ownedMsg;
    return VELCLIENT_OK;
}

} // namespace

velClient_returnCode_t vel::mqtt::refuse(const char *what)
{
    return VEL_FAIL(VELCLIENT_SUBCODE_PROTOCOL_ERROR, VELCLIENT_LOG_WARNING,
                    "Invalid MQTT message (%s) in the MQTT receive path", what);
}

velClient_returnCode_t vel::mqtt::decode(std::string_view name, const void *payload, std::size_t size,
                                         const mosquitto_property *properties, _velClient_session *session,
                                         _velClient_msg **msg_p)
{
    *msg_p = nullptr;
    thread_local std::string topic, text; /* kept: no allocation per message */
    if (!topicOf(name, topic))
        return refuse("topic name does not map to a topic");
    if (size > 0 && payload == nullptr)
        return refuse("no payload bytes");
    bool noMemory = false;
    const bool framed = frameTextOf(properties, text, &noMemory);
    if (noMemory)
        return VEL_FAIL(VELCLIENT_SUBCODE_OUT_OF_MEMORY, VELCLIENT_LOG_ERROR,
                        "Could not read the MQTT properties in the MQTT receive path");
    if (framed)
        return fromFrame(text, topic, payload, size, session, msg_p);
    return decodeForeign(topic, payload, size, properties, msg_p);
}
