/* What the AMQP and MQTT codec tests share: a message with every part, header property, mark and a user
 * property map or attachment of every field type, as a loopback session receives it; its dump without the
 * lines the receive path owns; and each codec's encode and decode behind one interface. */
#pragma once

#include <cstdlib>
#include <initializer_list>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "mqttWalk.h"
#include "support/velTestSupport.h"
#include "velClientAmqp/amqpCodec.h"
#include "velClientMqtt/mqttCodec.h"
#include "velClientMqtt/mqttPublish.h"
#include "velClientMsg/header/headerMaps.h"
#include "velClientMsg/velClientMsgPrivate.h"
#include "velclient/velClient.h"

namespace codectest {

using veltest::Bytes;
using veltest::Msg;

/* ---- Building the messages --------------------------------------------------- */

enum class Attachment { none, bytes, text, map, stream, mapAmqpCannotHold };
enum class Props { none, empty, scalars, nested };

struct Case {
    const char *name;
    velClient_uint32_t mode;
    bool queue;
    Attachment attachment;
    Props props;
};

/* Every scalar type, named when keyed (a map). */
inline void fillScalars(velClient_opaqueContainer_pt c, bool keyed)
{
    auto n = [keyed](const char *name) { return keyed ? name : nullptr; };
    const velClient_uint8_t bytes[] = {0, 1, 0xFE, 0xFF};
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addBoolean(c, 1, n("bool")));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addUint8(c, 250, n("u8")));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addInt8(c, -7, n("i8")));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addUint16(c, 65000, n("u16")));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addInt16(c, -300, n("i16")));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addUint32(c, 4000000000u, n("u32")));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addInt32(c, -70000, n("i32")));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addUint64(c, 18000000000000000000ull, n("u64")));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addInt64(c, -5000000000ll, n("i64")));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addWchar(c, L'W', n("wchar")));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addFloat(c, 1.5f, n("float")));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addDouble(c, -2.25, n("double")));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addString(c, "text", n("string")));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addString(c, "", n("empty")));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addByteArray(c, bytes, sizeof bytes, n("bytes")));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addNull(c, n("null")));
}

/* The scalars, then a stream holding the scalars and a map of them. */
inline void fillNested(velClient_opaqueContainer_pt c, bool keyed)
{
    fillScalars(c, keyed);
    velClient_opaqueContainer_pt stream = nullptr, inner = nullptr;
    ASSERT_EQ(VELCLIENT_OK, velClient_container_openSubStream(c, &stream, keyed ? "stream" : nullptr));
    fillScalars(stream, false);
    ASSERT_EQ(VELCLIENT_OK, velClient_container_openSubMap(stream, &inner, nullptr));
    fillScalars(inner, true);
    ASSERT_EQ(VELCLIENT_OK, velClient_container_closeMapStream(&inner));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_closeMapStream(&stream));
}

inline void setAttachment(velClient_opaqueMsg_pt m, Attachment kind)
{
    velClient_opaqueContainer_pt c = nullptr;
    const velClient_uint8_t raw[] = {0x2B, 0, 1, 2, 3, 0xFF};
    switch (kind) {
    case Attachment::none: return;
    case Attachment::bytes: ASSERT_EQ(VELCLIENT_OK, velClient_msg_setBinaryAttachment(m, raw, sizeof raw)); return;
    case Attachment::text: ASSERT_EQ(VELCLIENT_OK, velClient_msg_setBinaryAttachmentString(m, "hello")); return;
    case Attachment::map:
    case Attachment::mapAmqpCannotHold: ASSERT_EQ(VELCLIENT_OK, velClient_msg_createBinaryAttachmentMap(m, &c, 64)); break;
    case Attachment::stream: ASSERT_EQ(VELCLIENT_OK, velClient_msg_createBinaryAttachmentStream(m, &c, 64)); break;
    }
    fillNested(c, kind != Attachment::stream);
    if (kind == Attachment::mapAmqpCannotHold) {
        const velClient_destination_t d{VELCLIENT_QUEUE_DESTINATION, "q"};
        ASSERT_EQ(VELCLIENT_OK, velClient_container_addDestination(c, &d, sizeof d, "dest"));
        ASSERT_EQ(VELCLIENT_OK, velClient_container_addString(c, "again", "string")); /* repeated name */
    }
    ASSERT_EQ(VELCLIENT_OK, velClient_container_closeMapStream(&c));
}

inline void setProps(velClient_opaqueMsg_pt m, Props props)
{
    if (props == Props::none)
        return;
    velClient_opaqueContainer_pt c = nullptr;
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_createUserPropertyMap(m, &c, 64));
    if (props == Props::scalars)
        fillScalars(c, true);
    else if (props == Props::nested)
        fillNested(c, true);
    ASSERT_EQ(VELCLIENT_OK, velClient_container_closeMapStream(&c));
}

/* Every header property, part and mark, then the case's own choices. */
inline void build(velClient_opaqueMsg_pt m, const Case &c)
{
    velClient_destination_t dest{c.queue ? VELCLIENT_QUEUE_DESTINATION : VELCLIENT_TOPIC_DESTINATION,
                                 c.queue ? "orders.eu" : "orders/eu.west/50%/*/new"};
    velClient_destination_t replyTo{VELCLIENT_TOPIC_DESTINATION, "replies/desk.7"};
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setDestination(m, &dest, sizeof dest));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setReplyTo(m, &replyTo, sizeof replyTo));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setDeliveryMode(m, c.mode));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setClassOfService(m, VELCLIENT_COS_2));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setApplicationMessageId(m, "app-id-1"));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setApplicationMsgType(m, "order"));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setCorrelationId(m, "corr-9"));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setSenderId(m, "sender-a"));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setSequenceNumber(m, 41));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setSenderTimestamp(m, 1700000000123));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setExpiration(m, 1900000000456));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setTimeToLive(m, 60000));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setHttpContentType(m, "application/json"));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setHttpContentEncoding(m, "gzip"));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setUserData(m, "ud\0x", 4));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setXml(m, "<a/>", 4));
    for (auto mark : {velClient_msg_setDMQEligible, velClient_msg_setElidingEligible, velClient_msg_setDeliverToOne,
                      velClient_msg_setAckImmediately, velClient_msg_setDiscardIndication, velClient_msg_setAsReplyMsg})
        ASSERT_EQ(VELCLIENT_OK, mark(m, 1));
    const std::uint8_t ids[] = {0, 0, 0, 7, 0, 1, 0, 2};
    ASSERT_EQ(VELCLIENT_OK,
              _velClient_msg_setBufinfo(vel::msgOf(m), VELCLIENT_BUFINFO_CONSUMER_ID_PART, ids, sizeof ids, 0));
    ASSERT_EQ(VELCLIENT_OK, _velClient_msg_setTopicSequenceNumber(m, 77));
    setProps(m, c.props);
    setAttachment(m, c.attachment);
}

inline velClient_rxMsgCallback_returnCode_t keep(velClient_opaqueSession_pt, velClient_opaqueMsg_pt m, void *user)
{
    *static_cast<velClient_opaqueMsg_pt *>(user) = m;
    return VELCLIENT_CALLBACK_TAKE_MSG;
}

/* The message of case c as a loopback session receives it (owned by the caller). */
inline velClient_opaqueMsg_pt receivedOnLoopback(const Case &c)
{
    Msg sent;
    build(sent.h, c);
    velClient_opaqueMsg_pt got = nullptr;
    velClient_opaqueSession_pt s = nullptr;
    const char *props[] = {"SESSION_GENERATE_SEQUENCE_NUMBER", "1", nullptr};
    EXPECT_EQ(VELCLIENT_OK, velClient_session_create(props, keep, &got, &s));
    EXPECT_EQ(VELCLIENT_OK, velClient_session_sendMsg(s, sent.h));
    velClient_session_destroy(&s);
    return got;
}

/* The full dump without the lines the receive path owns. */
inline std::string dumpOf(velClient_opaqueMsg_pt m)
{
    std::vector<char> buf(1 << 16);
    EXPECT_EQ(VELCLIENT_OK, velClient_msg_dump(m, buf.data(), buf.size()));
    std::string out, line;
    std::istringstream all(buf.data());
    while (std::getline(all, line))
        if (line.rfind("RcvTimestamp:", 0) != 0 && line.rfind("Message Id:", 0) != 0)
            out.append(line).append("\n");
    return out;
}

/* Each getter gives its text, and the destination getter its destination. */
using TextGetter = velClient_returnCode_t (*)(velClient_opaqueMsg_pt, const char **);
inline void expectTexts(velClient_opaqueMsg_pt m, std::initializer_list<std::pair<TextGetter, const char *>> rows)
{
    for (const auto &[get, text] : rows) {
        const char *s = nullptr;
        EXPECT_EQ(VELCLIENT_OK, get(m, &s)) << text;
        EXPECT_STREQ(text, s);
    }
}

inline void expectDestination(velClient_opaqueMsg_pt m, decltype(&velClient_msg_getDestination) get,
                              velClient_destinationType_t type, const char *name)
{
    velClient_destination_t d{};
    ASSERT_EQ(VELCLIENT_OK, get(m, &d, sizeof d)) << name;
    EXPECT_EQ(type, d.destType) << name;
    EXPECT_STREQ(name, d.dest);
}

/* ---- The codecs ----------------------------------------------------------------- */

/* A message on the wire: an AMQP encoding is the payload alone; an MQTT publish has a topic name, a payload
 * and properties (the frame among them). */
struct Wire {
    std::string name;
    std::vector<char> payload;
    vel::mqtt::Properties properties;
};

/* The message encoded after the send path's preparation. */
inline Wire amqpEncode(velClient_opaqueMsg_pt m)
{
    Wire w;
    EXPECT_EQ(VELCLIENT_OK, vel::meta::prepareForWire(vel::msgOf(m), false));
    EXPECT_EQ(VELCLIENT_OK, vel::amqp::encode(vel::msgOf(m), {}, w.payload)) << veltest::lastErrorText();
    return w;
}

inline Wire mqttEncode(velClient_opaqueMsg_pt m)
{
    Wire w;
    velClient_destination_t dest{};
    EXPECT_EQ(VELCLIENT_OK, velClient_msg_getDestination(m, &dest, sizeof dest));
    w.name = vel::mqtt::topicName(dest.dest);
    EXPECT_EQ(VELCLIENT_OK, vel::meta::prepareForWire(vel::msgOf(m), false));
    EXPECT_EQ(VELCLIENT_OK, vel::mqtt::encode(vel::msgOf(m), w.payload, w.properties)) << veltest::lastErrorText();
    return w;
}

/* The decoded message (owned by the caller), nullptr when refused. */
inline velClient_opaqueMsg_pt handleOf(velClient_returnCode_t rc, _velClient_msg *m)
{
    EXPECT_EQ(VELCLIENT_OK, rc) << veltest::lastErrorText();
    return m != nullptr ? m->opaqueMsg_p : nullptr;
}

inline velClient_opaqueMsg_pt amqpDecode(const Wire &w)
{
    _velClient_msg *m = nullptr;
    const auto rc = vel::amqp::decode(w.payload.data(), w.payload.size(), {}, nullptr, &m);
    return handleOf(rc, m);
}

inline velClient_opaqueMsg_pt mqttDecode(const Wire &w)
{
    _velClient_msg *m = nullptr;
    auto rc = vel::mqtt::decode(w.name, w.payload.data(), w.payload.size(), w.properties.get(), nullptr, &m);
    return handleOf(rc, m);
}

/* The "name=value" user properties of an MQTT property list, in order. */
inline std::vector<std::pair<std::string, std::string>> userProperties(const mosquitto_property *list)
{
    std::vector<std::pair<std::string, std::string>> out;
    for (const mosquitto_property *p = list; p != nullptr; p = mosquitto_property_next(p)) {
        char *name = nullptr, *value = nullptr;
        if (mosquitto_property_read_string_pair(p, MQTT_PROP_USER_PROPERTY, &name, &value, false) == p)
            out.emplace_back(name, value);
        std::free(name);
        std::free(value);
    }
    return out;
}

/* The frame property's values joined (empty for AMQP), and the frame bytes they carry. */
inline std::string frameText(const Wire &w)
{
    std::string text;
    for (const auto &[name, value] : userProperties(w.properties.get()))
        text += name == vel::mqtt::kFrameProperty ? value : "";
    return text;
}

inline Bytes frameBytes(const Wire &w)
{
    const std::string text = frameText(w);
    std::size_t size = 0;
    EXPECT_TRUE(vel::mqtt::base64Size(text, size));
    Bytes bytes(size);
    EXPECT_TRUE(vel::mqtt::decodeBase64(text, bytes.data()));
    return bytes;
}

/* The wire form as the codec's fuzz target reads it (how its seeds were made). */
inline Bytes amqpSeed(const Wire &w)
{
    return Bytes(w.payload.begin(), w.payload.end());
}

inline Bytes mqttSeed(const Wire &w)
{
    return velfuzz::mqttInput(w.name, frameBytes(w), w.payload);
}

struct Codec {
    const char *name;
    bool queues;                /* whether a destination may be a queue */
    const char *corpusVariable; /* names a folder for the seeds */
    Wire (*encode)(velClient_opaqueMsg_pt);
    velClient_opaqueMsg_pt (*decode)(const Wire &);
    Bytes (*seed)(const Wire &);
};

inline const Codec kAmqp{"Amqp", true, "VEL_WRITE_AMQP_CORPUS", amqpEncode, amqpDecode, amqpSeed};
inline const Codec kMqtt{"Mqtt", false, "VEL_WRITE_MQTT_CORPUS", mqttEncode, mqttDecode, mqttSeed};

} // namespace codectest
