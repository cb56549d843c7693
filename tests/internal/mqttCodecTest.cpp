/* The MQTT codec: topics as MQTT names and filters, fidelity of a message that goes through encode and
 * decode, what a plain MQTT 5 client sees of it and sends, and refusal of damaged publishes. */
#include <mosquitto.h>
#include <mqtt_protocol.h>

#include <cstdlib>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "codecMessages.h"
#include "corpusFiles.h"
#include "mqttWalk.h"
#include "support/velTestSupport.h"
#include "velClientMqtt/mqttCodec.h"
#include "velClientMqtt/mqttPublish.h"
#include "velClientMsg/header/headerMaps.h"
#include "velClientTime/clock.h"

namespace {

using namespace codectest;
using veltest::Bytes;

/* ---- Topics ----------------------------------------------------------------------------------------- */

TEST(MqttCodec, TopicsMapToNamesAndFiltersAndBack)
{
    const struct {
        const char *topic, *name, *filter;
    } cases[] = {
        {"a/b/c", "a/b/c", "a/b/c"},
        {"50%/off", "50%25/off", "50%25/off"},
        {"a+b/#c/d#", "a%2Bb/%23c/d%23", "a%2Bb/%23c/d%23"},
        {"$SYS/x", "%24SYS/x", "%24SYS/x"},
        {"a/$b$", "a/$b$", "a/$b$"},
        {"a/*/c", "a/*/c", "a/+/c"},
        {"*/x*/**", "*/x*/**", "+/x*/**"},
        {"a/>", "a/>", "a/#"},
        {">", ">", "#"},
        {"a/>/c", "a/>/c", "a/>/c"},
        {"a//c/", "a//c/", "a//c/"},
        {"#P2P/v:127.0.0.1/host/1/00001", "%23P2P/v:127.0.0.1/host/1/00001", "%23P2P/v:127.0.0.1/host/1/00001"},
    };
    for (const auto &t : cases) {
        EXPECT_EQ(t.name, vel::mqtt::topicName(t.topic)) << t.topic;
        EXPECT_EQ(t.filter, vel::mqtt::topicFilter(t.topic)) << t.topic;
        std::string back;
        EXPECT_TRUE(vel::mqtt::topicOf(t.name, back)) << t.name;
        EXPECT_EQ(t.topic, back);
    }
}

TEST(MqttCodec, EveryByteOfALevelSurvivesTheTopicName)
{
    for (int b = 1; b < 256; ++b) {
        const char c = static_cast<char>(b);
        const std::string b1(1, c);
        for (const std::string &topic : {b1 + "x/y", "x/" + b1 + "y" + b1}) {
            const std::string name = vel::mqtt::topicName(topic);
            EXPECT_EQ(std::string::npos, name.find_first_of("+#")) << b;
            EXPECT_NE('$', name[0]) << b;
            std::string back;
            EXPECT_TRUE(vel::mqtt::topicOf(name, back)) << b;
            EXPECT_EQ(topic, back) << b;
        }
    }
}

TEST(MqttCodec, TopicNamesThatDoNotDecodeAreRefused)
{
    const std::pair<std::string, bool> cases[] = {
        {"a%2b/%2F", true}, {std::string(250, 'x'), true}, {std::string(251, 'x'), false},
        {"a%", false},      {"a%2", false},                {"a%G1", false},
        {"a%00", false},    {std::string("a\0b", 3), false}, {"", false},
    };
    for (const auto &[name, maps] : cases) {
        std::string topic;
        EXPECT_EQ(maps, vel::mqtt::topicOf(name, topic)) << name;
    }
    std::string topic;
    ASSERT_TRUE(vel::mqtt::topicOf("a%2b/%2F", topic));
    EXPECT_EQ("a+/", topic.substr(0, 3)) << "escapes decode in either case";
}

/* ---- Encode and decode --------------------------------------------------------------------------------- */

struct Published {
    std::string name;
    std::vector<char> payload;
    vel::mqtt::Properties properties;
};

/* The message published after the send path's preparation. */
Published published(velClient_opaqueMsg_pt m)
{
    Published p;
    velClient_destination_t dest{};
    EXPECT_EQ(VELCLIENT_OK, velClient_msg_getDestination(m, &dest, sizeof dest));
    p.name = vel::mqtt::topicName(dest.dest);
    EXPECT_EQ(VELCLIENT_OK, vel::meta::prepareForWire(vel::msgOf(m), false));
    EXPECT_EQ(VELCLIENT_OK, vel::mqtt::encode(vel::msgOf(m), p.payload, p.properties)) << veltest::lastErrorText();
    return p;
}

_velClient_msg *decoded(const Published &p)
{
    _velClient_msg *m = nullptr;
    EXPECT_EQ(VELCLIENT_OK, vel::mqtt::decode(p.name, p.payload.data(), p.payload.size(), p.properties.get(),
                                              nullptr, &m))
        << veltest::lastErrorText();
    return m;
}

using Pairs = std::vector<std::pair<std::string, std::string>>;

Pairs userProperties(const mosquitto_property *list)
{
    Pairs out;
    for (const mosquitto_property *p = list; p != nullptr; p = mosquitto_property_next(p)) {
        char *name = nullptr, *value = nullptr;
        if (mosquitto_property_read_string_pair(p, MQTT_PROP_USER_PROPERTY, &name, &value, false) == p)
            out.emplace_back(name, value);
        std::free(name);
        std::free(value);
    }
    return out;
}

/* The frame property's values joined. */
std::string frameText(const mosquitto_property *list)
{
    std::string text;
    for (const auto &[name, value] : userProperties(list))
        text += name == vel::mqtt::kFrameProperty ? value : "";
    return text;
}

Bytes frameBytes(const mosquitto_property *list)
{
    const std::string text = frameText(list);
    std::size_t size = 0;
    EXPECT_TRUE(vel::mqtt::base64Size(text, size));
    Bytes bytes(size);
    EXPECT_TRUE(vel::mqtt::decodeBase64(text, bytes.data()));
    return bytes;
}

const Case kCases[] = {
    {"direct, binary", VELCLIENT_DELIVERY_MODE_DIRECT, false, Attachment::bytes, Props::scalars},
    {"persistent, map", VELCLIENT_DELIVERY_MODE_PERSISTENT, false, Attachment::mapAmqpCannotHold, Props::scalars},
    {"non-persistent, stream", VELCLIENT_DELIVERY_MODE_NONPERSISTENT, false, Attachment::stream, Props::nested},
    {"direct, text", VELCLIENT_DELIVERY_MODE_DIRECT, false, Attachment::text, Props::nested},
    {"persistent, no attachment", VELCLIENT_DELIVERY_MODE_PERSISTENT, false, Attachment::none, Props::none},
    {"direct, empty user property map", VELCLIENT_DELIVERY_MODE_DIRECT, false, Attachment::map, Props::empty},
};

} // namespace

TEST(MqttCodec, EveryPartPropertyAndFieldSurvivesEncodeAndDecode)
{
    const veltest::LiveCounts before;
    for (const Case &c : kCases) {
        SCOPED_TRACE(c.name);
        Owned received;
        const std::string expected = receivedWithDump(c, received);
        ASSERT_NE(nullptr, received.h);
        const Published sent = published(received.h);
        Owned back(decoded(sent));
        ASSERT_NE(nullptr, back.h);
        EXPECT_EQ(expected, dumpOf(back.h));
        /* Sent again, the decoded message publishes the same payload and frame. */
        const Published again = published(back.h);
        EXPECT_EQ(sent.payload, again.payload);
        EXPECT_EQ(frameText(sent.properties.get()), frameText(again.properties.get()));
        /* With VEL_WRITE_MQTT_CORPUS naming a folder, the publishes are written there as the fuzz
         * target reads them (how the seeds in fuzz/corpus/mqtt were made, then named for their case). */
        if (const char *dir = std::getenv("VEL_WRITE_MQTT_CORPUS")) {
            const Bytes seed = velfuzz::mqttInput(sent.name, frameBytes(sent.properties.get()), sent.payload);
            std::ofstream(std::string(dir) + "/seed" + std::to_string(&c - kCases), std::ios::binary)
                .write(reinterpret_cast<const char *>(seed.data()), static_cast<std::streamsize>(seed.size()));
        }
    }
    before.expectBalanced();
}

/* A frame longer than one property value holds is split over several frame properties. */
TEST(MqttCodec, LargeFrameTravelsInSeveralProperties)
{
    const veltest::LiveCounts before;
    {
        Owned m;
        ASSERT_EQ(VELCLIENT_OK, velClient_msg_alloc(&m.h));
        const velClient_destination_t dest{VELCLIENT_TOPIC_DESTINATION, "big"};
        const std::string xml(200000, 'x');
        ASSERT_EQ(VELCLIENT_OK, velClient_msg_setDestination(m.h, &dest, sizeof dest));
        ASSERT_EQ(VELCLIENT_OK, velClient_msg_setXml(m.h, xml.data(), static_cast<velClient_uint32_t>(xml.size())));
        const Published sent = published(m.h);
        int frames = 0;
        for (const auto &[name, value] : userProperties(sent.properties.get())) {
            frames += name == vel::mqtt::kFrameProperty ? 1 : 0;
            EXPECT_LE(value.size(), 65535u);
        }
        EXPECT_EQ(5, frames) << "200,029 frame bytes are 266,708 base64 characters";
        Owned back(decoded(sent));
        ASSERT_NE(nullptr, back.h);
        void *p = nullptr;
        velClient_uint32_t n = 0;
        ASSERT_EQ(VELCLIENT_OK, velClient_msg_getXmlPtr(back.h, &p, &n));
        EXPECT_EQ(xml, std::string(static_cast<char *>(p), n));
    }
    before.expectBalanced();
}

/* The message id and the redelivered flag are the receiving transport's: they do not travel. */
TEST(MqttCodec, ReceiveSideFlagsDoNotTravel)
{
    Owned m;
    m.h = receivedOnLoopback(kCases[1]);
    ASSERT_NE(nullptr, m.h);
    vel::msgOf(m.h)->msgInfo.flags |= _VELCLIENT_RX_FLAG_REDELIVERED_MASK;
    velClient_msgId_t id = 0;
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_getMsgId(m.h, &id));
    Owned back(decoded(published(m.h)));
    ASSERT_NE(nullptr, back.h);
    EXPECT_EQ(VELCLIENT_NOT_FOUND, velClient_msg_getMsgId(back.h, &id));
    EXPECT_FALSE(velClient_msg_isRedelivered(back.h));
    velClient_uint32_t mode = 0;
    EXPECT_EQ(VELCLIENT_OK, velClient_msg_getDeliveryMode(back.h, &mode));
    EXPECT_EQ(VELCLIENT_DELIVERY_MODE_PERSISTENT, mode);
}

/* ---- The plain MQTT 5 client's view ---------------------------------------------------------------------- */

TEST(MqttCodec, PlainMqttClientFindsTheStandardProperties)
{
    Owned m;
    m.h = receivedOnLoopback({"", VELCLIENT_DELIVERY_MODE_PERSISTENT, false, Attachment::bytes, Props::scalars});
    ASSERT_NE(nullptr, m.h);
    const Published p = published(m.h);
    EXPECT_EQ("orders/eu.west/50%25/*/new", p.name);
    EXPECT_EQ(std::vector<char>({0x2B, 0, 1, 2, 3, -1}), p.payload);
    char *text = nullptr;
    ASSERT_NE(nullptr, mosquitto_property_read_string(p.properties.get(), MQTT_PROP_RESPONSE_TOPIC, &text, false));
    EXPECT_STREQ("replies/desk.7", text);
    std::free(text);
    ASSERT_NE(nullptr, mosquitto_property_read_string(p.properties.get(), MQTT_PROP_CONTENT_TYPE, &text, false));
    EXPECT_STREQ("application/json", text);
    std::free(text);
    void *data = nullptr;
    std::uint16_t n = 0;
    ASSERT_NE(nullptr, mosquitto_property_read_binary(p.properties.get(), MQTT_PROP_CORRELATION_DATA, &data, &n,
                                                      false));
    EXPECT_EQ("corr-9", std::string(static_cast<char *>(data), n));
    std::free(data);
    std::uint32_t seconds = 0;
    ASSERT_NE(nullptr, mosquitto_property_read_int32(p.properties.get(), MQTT_PROP_MESSAGE_EXPIRY_INTERVAL, &seconds,
                                                     false));
    EXPECT_EQ(60u, seconds) << "the send path gives a message with a time-to-live no expiration of its own";
    /* The string entries of the user property map in order, then the frame. */
    Pairs props = userProperties(p.properties.get());
    ASSERT_EQ(3u, props.size());
    EXPECT_EQ(Pairs({{"string", "text"}, {"empty", ""}}), Pairs(props.begin(), props.begin() + 2));
    EXPECT_EQ(vel::mqtt::kFrameProperty, props[2].first);
    EXPECT_EQ(MOSQ_ERR_SUCCESS, mosquitto_property_check_all(CMD_PUBLISH, p.properties.get()));
}

/* What MQTT cannot hold (control characters, a queue as response topic) is left out of its properties and
 * still travels in the frame; the expiry comes from the time-to-live when there is no expiration. */
TEST(MqttCodec, StandardPropertiesMqttCannotHoldTravelOnlyInTheFrame)
{
    const struct {
        const char *name;
        velClient_destination_t replyTo;
        const char *correlationId, *contentType, *propertyValue;
        velClient_int64_t ttl;
        const char *responseTopic; /* expected; nullptr: none */
        std::uint32_t expiry;      /* expected; 0: none */
        std::size_t userProperties;
    } cases[] = {
        {"encoded reply topic", {VELCLIENT_TOPIC_DESTINATION, "$x/+/50%"}, "c", "t", "v", 1500, "%24x/%2B/50%25", 2, 2},
        {"queue reply", {VELCLIENT_QUEUE_DESTINATION, "replies"}, "c", "t", "v", 1000, nullptr, 1, 2},
        {"control characters", {VELCLIENT_TOPIC_DESTINATION, "a\tb"}, "c\x01", "t\n", "v\x7f", 0, nullptr, 0, 1},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        veltest::Msg m;
        const velClient_destination_t dest{VELCLIENT_TOPIC_DESTINATION, "t"};
        velClient_opaqueContainer_pt map = nullptr;
        ASSERT_EQ(VELCLIENT_OK, velClient_msg_setDestination(m.h, &dest, sizeof dest));
        ASSERT_EQ(VELCLIENT_OK, velClient_msg_setReplyTo(m.h, &c.replyTo, sizeof c.replyTo));
        ASSERT_EQ(VELCLIENT_OK, velClient_msg_setCorrelationId(m.h, c.correlationId));
        ASSERT_EQ(VELCLIENT_OK, velClient_msg_setHttpContentType(m.h, c.contentType));
        ASSERT_EQ(VELCLIENT_OK, velClient_msg_setTimeToLive(m.h, c.ttl));
        ASSERT_EQ(VELCLIENT_OK, velClient_msg_createUserPropertyMap(m.h, &map, 64));
        ASSERT_EQ(VELCLIENT_OK, velClient_container_addString(map, c.propertyValue, "k"));
        ASSERT_EQ(VELCLIENT_OK, velClient_container_closeMapStream(&map));
        const Published p = published(m.h);
        char *text = nullptr;
        const bool hasTopic =
            mosquitto_property_read_string(p.properties.get(), MQTT_PROP_RESPONSE_TOPIC, &text, false) != nullptr;
        EXPECT_EQ(c.responseTopic != nullptr, hasTopic);
        EXPECT_EQ(c.responseTopic != nullptr ? c.responseTopic : "", std::string(text != nullptr ? text : ""));
        std::free(text);
        std::uint32_t seconds = 0;
        mosquitto_property_read_int32(p.properties.get(), MQTT_PROP_MESSAGE_EXPIRY_INTERVAL, &seconds, false);
        EXPECT_EQ(c.expiry, seconds);
        EXPECT_EQ(c.userProperties, userProperties(p.properties.get()).size());
        Owned back(decoded(p));
        ASSERT_NE(nullptr, back.h);
        EXPECT_EQ(dumpOf(m.h), dumpOf(back.h));
    }
}

TEST(MqttCodec, MessageFromPlainMqttClientMapsToTheNaturalFields)
{
    const veltest::LiveCounts before;
    {
        mosquitto_property *list = nullptr;
        vel::mqtt::Properties owner;
        ASSERT_EQ(0, mosquitto_property_add_byte(&list, MQTT_PROP_PAYLOAD_FORMAT_INDICATOR, 1));
        owner.reset(list);
        ASSERT_EQ(0, mosquitto_property_add_string(&list, MQTT_PROP_RESPONSE_TOPIC, "answers/%2Bdesk"));
        ASSERT_EQ(0, mosquitto_property_add_binary(&list, MQTT_PROP_CORRELATION_DATA, "req-1", 5));
        ASSERT_EQ(0, mosquitto_property_add_string(&list, MQTT_PROP_CONTENT_TYPE, "text/plain"));
        ASSERT_EQ(0, mosquitto_property_add_int32(&list, MQTT_PROP_MESSAGE_EXPIRY_INTERVAL, 60));
        ASSERT_EQ(0, mosquitto_property_add_varint(&list, MQTT_PROP_SUBSCRIPTION_IDENTIFIER, 7));
        for (const auto &[name, value] : Pairs{{"qty", "12"}, {"", "no name"}, {"qty", ""}})
            ASSERT_EQ(0, mosquitto_property_add_string_pair(&list, MQTT_PROP_USER_PROPERTY, name.c_str(),
                                                            value.c_str()));
        const auto now = static_cast<std::int64_t>(_velClient_getTimeInUs() / 1000);
        _velClient_msg *rec = nullptr;
        ASSERT_EQ(VELCLIENT_OK, vel::mqtt::decode("prices/%24eu", "12.50", 5, list, nullptr, &rec))
            << veltest::lastErrorText();
        Owned m(rec);
        velClient_destination_t dest{};
        ASSERT_EQ(VELCLIENT_OK, velClient_msg_getDestination(m.h, &dest, sizeof dest));
        EXPECT_EQ(VELCLIENT_TOPIC_DESTINATION, dest.destType);
        EXPECT_STREQ("prices/$eu", dest.dest);
        ASSERT_EQ(VELCLIENT_OK, velClient_msg_getReplyTo(m.h, &dest, sizeof dest));
        EXPECT_EQ(VELCLIENT_TOPIC_DESTINATION, dest.destType);
        EXPECT_STREQ("answers/+desk", dest.dest);
        const char *s = nullptr;
        EXPECT_EQ(VELCLIENT_OK, velClient_msg_getCorrelationId(m.h, &s));
        EXPECT_STREQ("req-1", s);
        EXPECT_EQ(VELCLIENT_OK, velClient_msg_getHttpContentType(m.h, &s));
        EXPECT_STREQ("text/plain", s);
        velClient_int64_t expiration = 0;
        EXPECT_EQ(VELCLIENT_OK, velClient_msg_getExpiration(m.h, &expiration));
        EXPECT_GE(expiration, now + 60000);
        EXPECT_LE(expiration, now + 61000);
        velClient_uint32_t mode = 99;
        EXPECT_EQ(VELCLIENT_OK, velClient_msg_getDeliveryMode(m.h, &mode));
        EXPECT_EQ(VELCLIENT_DELIVERY_MODE_DIRECT, mode);
        void *payload = nullptr;
        velClient_uint32_t n = 0;
        ASSERT_EQ(VELCLIENT_OK, velClient_msg_getBinaryAttachmentPtr(m.h, &payload, &n));
        EXPECT_EQ("12.50", std::string(static_cast<char *>(payload), n));
        velClient_opaqueContainer_pt map = nullptr;
        ASSERT_EQ(VELCLIENT_OK, velClient_msg_getUserPropertyMap(m.h, &map));
        Pairs entries;
        velClient_field_t f{};
        const char *name = nullptr;
        while (velClient_container_getNextField(map, &f, sizeof f, &name) == VELCLIENT_OK) {
            ASSERT_EQ(VELCLIENT_STRING, f.type);
            entries.emplace_back(name != nullptr ? name : "", f.value.string != nullptr ? f.value.string : "");
        }
        EXPECT_EQ(Pairs({{"qty", "12"}, {"qty", ""}}), entries) << "a map entry needs a name";
        velClient_container_closeMapStream(&map);
    }
    before.expectBalanced();
}

/* ---- Damaged publishes ------------------------------------------------------------------------------------ */
namespace {

/* A publish on topic name "t" with the given frame properties (base64 of frame bytes, or text as it is). */
struct Hostile {
    const char *name;
    std::string topicName = "t";
    std::vector<std::string> frames;
    mosquitto_property *(*more)() = nullptr;
    velClient_subCode_t subCode = VELCLIENT_SUBCODE_PROTOCOL_ERROR;
};

std::string base64(const Bytes &b)
{
    std::string text;
    vel::mqtt::appendBase64(b.data(), b.size(), text);
    return text;
}

/* A valid frame as this library writes it: a direct message with user data "ud". */
Bytes validFrame(const Bytes &extraItems = {})
{
    return veltest::frame(13, 0, veltest::cat(veltest::item(0x13, {'u', 'd'}), extraItems));
}

velClient_returnCode_t decodeHostile(const Hostile &h)
{
    mosquitto_property *list = h.more != nullptr ? h.more() : nullptr;
    for (const std::string &frame : h.frames)
        EXPECT_EQ(0, mosquitto_property_add_string_pair(&list, MQTT_PROP_USER_PROPERTY, vel::mqtt::kFrameProperty,
                                                        frame.c_str()));
    vel::mqtt::Properties owner(list);
    _velClient_msg *m = nullptr;
    velClient_returnCode_t rc = vel::mqtt::decode(h.topicName, "pay", 3, list, nullptr, &m);
    Owned owned(m);
    EXPECT_EQ(rc == VELCLIENT_OK, m != nullptr);
    return rc;
}

} // namespace

TEST(MqttCodec, DamagedPublishesAreRefused)
{
    Bytes huge = validFrame();
    huge[6] = huge[7] = huge[8] = huge[9] = 0xFF;
    Bytes control = validFrame();
    control[5] = 0x04;
    const Bytes frame = validFrame();
    const Hostile cases[] = {
        {"not base64", "t", {"!!!!"}},
        {"base64 length", "t", {"QUJD="}},
        {"padding inside", "t", {"QQ==QUJD"}},
        {"truncated frame", "t", {base64(Bytes(frame.begin(), frame.end() - 1))}},
        {"frame header only, cut", "t", {base64(Bytes(frame.begin(), frame.begin() + 11))}},
        {"huge frame length", "t", {base64(huge)}},
        {"control frame", "t", {base64(control)}},
        {"item with a huge length", "t", {base64(veltest::frame(13, 0, {0x13, 0xFF, 0xFF, 0xFF, 0xF0, 'x'}))}},
        {"attachment item", "t", {base64(validFrame(veltest::item(0x10, {1})))}},
        {"topic item", "t", {base64(validFrame(veltest::item(0x11, {'a', 0})))}},
        {"queue item", "t", {base64(validFrame(veltest::item(0x16, {'q', 0})))}},
        {"repeated item", "t", {base64(validFrame(veltest::item(0x13, {1})))}, nullptr,
         VELCLIENT_SUBCODE_INVALID_VWF_MESSAGE},
        {"bad number length", "t", {base64(validFrame(veltest::item(0x01, {1, 2})))}, nullptr,
         VELCLIENT_SUBCODE_INVALID_VWF_MESSAGE},
        {"second half not base64", "t", {base64(frame), "!"}},
        {"topic name", "a%zz", {base64(frame)}},
        {"response topic", "t", {}, [] {
             mosquitto_property *list = nullptr;
             mosquitto_property_add_string(&list, MQTT_PROP_RESPONSE_TOPIC, "a/%4");
             return list;
         }},
    };
    const veltest::LiveCounts before;
    for (const Hostile &h : cases) {
        EXPECT_EQ(VELCLIENT_FAIL, decodeHostile(h)) << h.name;
        EXPECT_EQ(h.subCode, veltest::lastSubCode()) << h.name << ": " << veltest::lastErrorText();
    }
    /* A frame split anywhere over two properties, other properties a publish does not carry, and
     * correlation data that is no text (dropped) are fine. */
    const std::string text = base64(frame);
    EXPECT_EQ(VELCLIENT_OK, decodeHostile({"split", "t", {text.substr(0, 4), text.substr(4)}}));
    EXPECT_EQ(VELCLIENT_OK, decodeHostile({"foreign extras", "t", {}, [] {
                                               mosquitto_property *list = nullptr;
                                               mosquitto_property_add_binary(&list, MQTT_PROP_CORRELATION_DATA,
                                                                             "a\0b", 3);
                                               mosquitto_property_add_int32(&list, MQTT_PROP_SESSION_EXPIRY_INTERVAL,
                                                                            9);
                                               return list;
                                           }}));
    /* Every cut of a real frame, and every byte of it changed, through the fuzz target's walk. */
    Published p;
    {
        Owned m;
        m.h = receivedOnLoopback(kCases[2]);
        p = published(m.h);
    }
    const Bytes whole = frameBytes(p.properties.get());
    for (std::size_t n = 0; n < whole.size(); ++n) {
        const Bytes cut(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(n));
        EXPECT_EQ(VELCLIENT_FAIL, decodeHostile({"cut", "t", {base64(cut)}})) << n;
        Bytes changed = whole;
        changed[n] ^= 0xA5;
        const Bytes input = velfuzz::mqttInput(p.name, changed, p.payload);
        EXPECT_TRUE(velfuzz::walkMqtt(input.data(), input.size())) << n;
    }
    before.expectBalanced();
}

TEST(MqttCodec, SeedCorpusDecodesAndSurvivesARoundTrip)
{
    const veltest::LiveCounts before;
    const auto seeds = velfuzz::corpusFiles(VELCLIENT_SOURCE_DIR, "mqtt");
    ASSERT_GE(seeds.size(), 6u);
    for (const auto &seed : seeds) {
        EXPECT_TRUE(velfuzz::walkMqtt(seed.data(), seed.size()));
        for (std::size_t i = 0; i < seed.size(); ++i) {
            std::vector<std::uint8_t> flipped = seed;
            flipped[i] ^= 0xFF;
            EXPECT_TRUE(velfuzz::walkMqtt(flipped.data(), flipped.size())) << "byte " << i << " flipped";
        }
    }
    before.expectBalanced();
}
