/* The MQTT codec on its own: topic names that do not decode, a frame over several properties, what a plain
 * MQTT 5 client sees of a message and sends, and refusal of damaged publishes. */
#include <tuple>

#include "codecMessages.h"

namespace {

using namespace codectest;

std::string base64(const Bytes &b)
{
    std::string text;
    vel::mqtt::appendBase64(b.data(), b.size(), text);
    return text;
}

/* A publish on topic name `name` with frame properties holding the given texts and the properties from more. */
Wire publish(const std::vector<std::string> &frames, mosquitto_property *more = nullptr, std::string name = "t")
{
    for (const std::string &frame : frames)
        EXPECT_EQ(0, mosquitto_property_add_string_pair(&more, MQTT_PROP_USER_PROPERTY, vel::mqtt::kFrameProperty,
                                                        frame.c_str()));
    return {std::move(name), {'p', 'a', 'y'}, vel::mqtt::Properties(more)};
}

} // namespace

/* What MQTT cannot hold (control characters, a queue as response topic) is left out of its properties and
 * still travels in the frame; the expiry comes from the time-to-live when there is no expiration; a frame
 * longer than one property value holds is split over several frame properties. */
TEST(MqttCodec, StandardPropertiesMqttCannotHoldTravelOnlyInTheFrame)
{
    const struct {
        velClient_destination_t replyTo;
        const char *correlationId, *contentType, *propertyValue;
        velClient_int64_t ttl;
        const char *responseTopic; /* expected; "": none */
        std::uint32_t expiry;      /* expected; 0: none */
        std::size_t userProperties, xml;
    } rows[] = {
        {{VELCLIENT_TOPIC_DESTINATION, "$x/+/50%"}, "c", "t", "v", 1500, "%24x/%2B/50%25", 2, 2, 0},
        {{VELCLIENT_QUEUE_DESTINATION, "replies"}, "c", "t", "v", 1000, "", 1, 2, 0},
        {{VELCLIENT_TOPIC_DESTINATION, "a\tb"}, "c\x01", "t\n", "v\x7f", 0, "", 0, 1, 0},
        {{VELCLIENT_TOPIC_DESTINATION, "r"}, "c", "t", "v", 0, "r", 0, 6, 200000}, /* 266,708 base64 characters */
    };
    for (const auto &r : rows) {
        Msg m;
        const velClient_destination_t dest{VELCLIENT_TOPIC_DESTINATION, "t"};
        velClient_opaqueContainer_pt map = nullptr;
        ASSERT_EQ(VELCLIENT_OK, velClient_msg_setDestination(m.h, &dest, sizeof dest));
        ASSERT_EQ(VELCLIENT_OK, velClient_msg_setReplyTo(m.h, &r.replyTo, sizeof r.replyTo));
        ASSERT_EQ(VELCLIENT_OK, velClient_msg_setCorrelationId(m.h, r.correlationId));
        ASSERT_EQ(VELCLIENT_OK, velClient_msg_setHttpContentType(m.h, r.contentType));
        ASSERT_EQ(VELCLIENT_OK, velClient_msg_setTimeToLive(m.h, r.ttl));
        const std::string xml(r.xml, 'x');
        ASSERT_EQ(VELCLIENT_OK, velClient_msg_setXml(m.h, xml.data(), static_cast<velClient_uint32_t>(xml.size())));
        ASSERT_EQ(VELCLIENT_OK, velClient_msg_createUserPropertyMap(m.h, &map, 64));
        ASSERT_EQ(VELCLIENT_OK, velClient_container_addString(map, r.propertyValue, "k"));
        ASSERT_EQ(VELCLIENT_OK, velClient_container_addInt32(map, 5, "n")); /* only strings are user properties */
        ASSERT_EQ(VELCLIENT_OK, velClient_container_closeMapStream(&map));
        const Wire p = mqttEncode(m.h);
        char *text = nullptr;
        mosquitto_property_read_string(p.properties.get(), MQTT_PROP_RESPONSE_TOPIC, &text, false);
        EXPECT_EQ(r.responseTopic, std::string(text != nullptr ? text : ""));
        std::free(text);
        std::uint32_t seconds = 0;
        mosquitto_property_read_int32(p.properties.get(), MQTT_PROP_MESSAGE_EXPIRY_INTERVAL, &seconds, false);
        EXPECT_EQ(r.expiry, seconds);
        EXPECT_EQ(r.userProperties, userProperties(p.properties.get()).size());
        Msg back(decoded(mqttDecode, p));
        ASSERT_NE(nullptr, back.h);
        EXPECT_EQ(dumpOf(m.h), dumpOf(back.h));
    }
}

TEST(MqttCodec, DamagedPublishesAreRefused)
{
    /* A valid frame as this library writes it: a direct message with user data "ud". */
    auto validFrame = [](const Bytes &extraItems = {}) {
        return veltest::frame(13, 0, veltest::cat(veltest::item(0x13, {'u', 'd'}), extraItems));
    };
    const Bytes frame = validFrame();
    Bytes huge = frame, control = frame;
    huge[6] = huge[7] = huge[8] = huge[9] = 0xFF;
    control[5] = 0x04;
    const auto protocol = VELCLIENT_SUBCODE_PROTOCOL_ERROR, invalidVwf = VELCLIENT_SUBCODE_INVALID_VWF_MESSAGE;
    const std::tuple<const char *, std::vector<std::string>, velClient_subCode_t> rows[] = {
        {"not base64", {"!!!!"}, protocol},
        {"base64 length", {"QUJD="}, protocol},
        {"padding inside", {"QQ==QUJD"}, protocol},
        {"huge frame length", {base64(huge)}, protocol},
        {"control frame", {base64(control)}, protocol},
        {"item with a huge length", {base64(veltest::frame(13, 0, {0x13, 0xFF, 0xFF, 0xFF, 0xF0, 'x'}))}, protocol},
        {"attachment item", {base64(validFrame(veltest::item(0x10, {1})))}, protocol},
        {"topic item", {base64(validFrame(veltest::item(0x11, {'a', 0})))}, protocol},
        {"queue item", {base64(validFrame(veltest::item(0x16, {'q', 0})))}, protocol},
        {"repeated item", {base64(validFrame(veltest::item(0x13, {1})))}, invalidVwf},
        {"bad number length", {base64(validFrame(veltest::item(0x01, {1, 2})))}, invalidVwf},
        {"second half not base64", {base64(frame), "!"}, protocol},
    };
    const veltest::LiveCounts before;
    for (const auto &[what, frames, subCode] : rows) {
        EXPECT_EQ(VELCLIENT_FAIL, answer(mqttDecode, publish(frames))) << what;
        EXPECT_EQ(subCode, veltest::lastSubCode()) << what << ": " << veltest::lastErrorText();
    }
    mosquitto_property *badResponseTopic = nullptr, *foreignExtras = nullptr;
    mosquitto_property_add_string(&badResponseTopic, MQTT_PROP_RESPONSE_TOPIC, "a/%4");
    EXPECT_EQ(VELCLIENT_FAIL, answer(mqttDecode, publish({}, badResponseTopic)));
    EXPECT_EQ(VELCLIENT_FAIL, answer(mqttDecode, publish({base64(frame)}, nullptr, "a%zz"))) << "topic name";
    /* A frame split anywhere over two properties, other properties a publish does not carry, and
     * correlation data that is no text (dropped) are fine. */
    const std::string text = base64(frame);
    EXPECT_EQ(VELCLIENT_OK, answer(mqttDecode, publish({text.substr(0, 4), text.substr(4)})));
    mosquitto_property_add_binary(&foreignExtras, MQTT_PROP_CORRELATION_DATA, "a\0b", 3);
    mosquitto_property_add_int32(&foreignExtras, MQTT_PROP_SESSION_EXPIRY_INTERVAL, 9);
    EXPECT_EQ(VELCLIENT_OK, answer(mqttDecode, publish({}, foreignExtras)));
    /* A plain MQTT 5 client's publish maps to the natural fields; a user property needs a name. */
    mosquitto_property *plain = nullptr;
    mosquitto_property_add_byte(&plain, MQTT_PROP_PAYLOAD_FORMAT_INDICATOR, 1);
    mosquitto_property_add_string(&plain, MQTT_PROP_RESPONSE_TOPIC, "answers/%2Bdesk");
    mosquitto_property_add_binary(&plain, MQTT_PROP_CORRELATION_DATA, "req-1", 5);
    mosquitto_property_add_string(&plain, MQTT_PROP_CONTENT_TYPE, "text/plain");
    mosquitto_property_add_varint(&plain, MQTT_PROP_SUBSCRIPTION_IDENTIFIER, 7);
    for (const auto &[name, value] : {std::pair{"qty", "12"}, {"", "no name"}, {"qty", ""}})
        mosquitto_property_add_string_pair(&plain, MQTT_PROP_USER_PROPERTY, name, value);
    EXPECT_EQ("Destination:                            Topic 'prices/$eu'\n"
              "CorrelationId:                          req-1\n"
              "HTTP Content Type:                      text/plain\n"
              "Class Of Service:                       COS_1\n"
              "DeliveryMode:                           DIRECT\n"
              "Reply To:                               Topic 'answers/+desk'\n"
              "User Property Map:                      \n"
              "  Key 'qty' (STRING) 12\n"
              "  Key 'qty' (STRING) \n"
              "Binary Attachment:                      len=3\n"
              "  70 61 79                                              pay\n",
              dumpOf(Msg(decoded(mqttDecode, publish({}, plain, "prices/%24eu"))).h));
    /* Every cut of a real frame is refused. */
    const Bytes whole = frameBytes(mqttWire(seedBytes(kMqtt, "nonpersistent_stream")));
    for (std::size_t n = 0; n < whole.size(); ++n) {
        const Bytes cut(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(n));
        EXPECT_EQ(VELCLIENT_FAIL, answer(mqttDecode, publish({base64(cut)}))) << n;
    }
    before.expectBalanced();
}
