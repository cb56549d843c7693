/* The MQTT codec on its own: refusal of damaged publishes and topic names that do not decode, a frame over
 * several properties, and what a plain MQTT 5 client's publish maps to. (What such a client sees of a
 * session's message, the broker tests show with mosquitto_sub.) */
#include <mosquitto.h>
#include <mqtt_protocol.h>

#include <tuple>

#include "codecMessages.h"
#include "velClientMqtt/mqttPublish.h"

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
              dumpWithoutReceiveLines(Msg(decoded(mqttDecode, publish({}, plain, "prices/%24eu"))).h));
    /* Every cut of a real frame is refused (a seed: name length (1) | name | frame length (2, BE) | frame | payload). */
    const Bytes seed = seedBytes("mqtt", "nonpersistent_stream");
    const std::size_t n = seed.at(0), size = std::size_t{seed.at(1 + n)} << 8 | seed.at(2 + n);
    const auto at = seed.begin() + 3 + static_cast<std::ptrdiff_t>(n);
    const Bytes whole(at, at + static_cast<std::ptrdiff_t>(size));
    for (std::size_t n = 0; n < whole.size(); ++n) {
        const Bytes cut(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(n));
        EXPECT_EQ(VELCLIENT_FAIL, answer(mqttDecode, publish({base64(cut)}))) << n;
    }
    before.expectBalanced();
}
