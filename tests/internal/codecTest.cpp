/* What the AMQP and MQTT codecs both promise: topics map to addresses, names and filters and back, and a
 * message that goes through encode and decode reads back as it was sent, without the receive side's flags. */
#include <fstream>
#include <string>

#include "codecMessages.h"

using namespace codectest;

TEST(CodecTopics, TopicsMapToAddressesNamesAndFiltersAndBack)
{
    const struct {
        const char *topic, *address, *subscription, *name, *filter; /* nullptr: does not map */
    } rows[] = {
        {"a/b/c", "/topic/a.b.c", "/topic/a.b.c", "a/b/c", "a/b/c"},
        {"a.b/c", "/topic/a%2Eb.c", "/topic/a%2Eb.c", "a.b/c", "a.b/c"},
        {"50%/off", "/topic/50%25.off", "/topic/50%25.off", "50%25/off", "50%25/off"},
        {"a+b/#c/d#", "/topic/a+b.#c.d#", "/topic/a+b.#c.d#", "a%2Bb/%23c/d%23", "a%2Bb/%23c/d%23"},
        {"$SYS/x", "/topic/$SYS.x", "/topic/$SYS.x", "%24SYS/x", "%24SYS/x"},
        {"a/$b$", "/topic/a.$b$", "/topic/a.$b$", "a/$b$", "a/$b$"},
        {"a/*/c", "/topic/a.%2A.c", "/topic/a.*.c", "a/*/c", "a/+/c"},
        {"*/x*/**", "/topic/%2A.x*.**", "/topic/*.x*.**", "*/x*/**", "+/x*/**"},
        {"a/>", "/topic/a.>", "/topic/a.#", "a/>", "a/#"},
        {">", "/topic/>", "/topic/#", ">", "#"},
        {"a/>/c", "/topic/a.>.c", "/topic/a.>.c", "a/>/c", "a/>/c"},
        {"a/#", "/topic/a.%23", "/topic/a.%23", "a/%23", "a/%23"},
        {"a//c/", "/topic/a..c.", "/topic/a..c.", "a//c/", "a//c/"},
        {"", "/topic/", "/topic/", nullptr, nullptr},
        {"#P2P/v:host/me", "/topic/#P2P.v:host.me", "/topic/#P2P.v:host.me", "%23P2P/v:host/me", "%23P2P/v:host/me"},
        {"x*y/a%2E", "/topic/x*y.a%252E", "/topic/x*y.a%252E", "x*y/a%252E", "x*y/a%252E"},
    };
    const vel::amqp::Addressing rules;
    for (const auto &r : rows) {
        SCOPED_TRACE(r.topic);
        EXPECT_EQ(r.address, vel::amqp::topicAddress(rules, r.topic, false));
        EXPECT_EQ(r.subscription, vel::amqp::topicAddress(rules, r.topic, true));
        for (const char *address : {r.address, r.subscription}) {
            velClient_destinationType_t type = VELCLIENT_QUEUE_DESTINATION;
            std::string back;
            ASSERT_TRUE(vel::amqp::destinationOf(rules, address, &type, &back)) << address;
            EXPECT_EQ(VELCLIENT_TOPIC_DESTINATION, type);
            EXPECT_EQ(r.topic, back) << address;
        }
        std::string back;
        EXPECT_EQ(r.name != nullptr, vel::mqtt::topicOf(vel::mqtt::topicName(r.topic), back));
        if (r.name != nullptr) {
            EXPECT_EQ(r.name, vel::mqtt::topicName(r.topic));
            EXPECT_EQ(r.filter, vel::mqtt::topicFilter(r.topic));
            EXPECT_EQ(r.topic, back);
        }
    }
}

TEST(CodecTopics, EveryByteOfALevelSurvivesTheAddressAndTheTopicName)
{
    const vel::amqp::Addressing rules;
    for (int b = 1; b < 256; ++b) {
        const std::string b1(1, static_cast<char>(b));
        for (const std::string &topic : {b1 + "x/y", "x/" + b1 + "y" + b1}) {
            const std::string name = vel::mqtt::topicName(topic);
            EXPECT_EQ(std::string::npos, name.find_first_of("+#")) << b;
            EXPECT_NE('$', name[0]) << b;
            std::string back;
            EXPECT_TRUE(vel::mqtt::topicOf(name, back)) << b;
            EXPECT_EQ(topic, back) << b;
            velClient_destinationType_t type{};
            EXPECT_TRUE(vel::amqp::destinationOf(rules, vel::amqp::topicAddress(rules, topic, false), &type, &back));
            EXPECT_EQ(topic, back) << b;
        }
    }
}

namespace {

class CodecTest : public testing::TestWithParam<const Codec *> {
};

const Case kCases[] = {
    {"direct topic, binary", VELCLIENT_DELIVERY_MODE_DIRECT, false, Attachment::bytes, Props::scalars},
    {"persistent topic, map", VELCLIENT_DELIVERY_MODE_PERSISTENT, false, Attachment::map, Props::scalars},
    {"non-persistent topic, stream", VELCLIENT_DELIVERY_MODE_NONPERSISTENT, false, Attachment::stream, Props::nested},
    {"direct queue, text", VELCLIENT_DELIVERY_MODE_DIRECT, true, Attachment::text, Props::nested},
    {"persistent queue, map AMQP cannot hold", VELCLIENT_DELIVERY_MODE_PERSISTENT, true,
     Attachment::mapAmqpCannotHold, Props::none},
    {"non-persistent queue, no attachment", VELCLIENT_DELIVERY_MODE_NONPERSISTENT, true, Attachment::none,
     Props::scalars},
    {"direct topic, empty user property map", VELCLIENT_DELIVERY_MODE_DIRECT, false, Attachment::map, Props::empty},
};

} // namespace

/* With VEL_WRITE_AMQP_CORPUS or VEL_WRITE_MQTT_CORPUS naming a folder, the encodings are written there as the
 * fuzz target reads them (how the seeds in fuzz/corpus were made, then named for their case). */
TEST_P(CodecTest, EveryPartPropertyAndFieldSurvivesEncodeAndDecode)
{
    const Codec &codec = *GetParam();
    const veltest::LiveCounts before;
    for (Case c : kCases) {
        SCOPED_TRACE(c.name);
        c.queue = c.queue && codec.queues; /* MQTT has topics only */
        Msg received(receivedOnLoopback(c));
        ASSERT_NE(nullptr, received.h);
        const std::string expected = dumpOf(received.h);
        EXPECT_NE(std::string::npos, expected.find("XML:")) << "the dump ran to its last line:\n" << expected;
        const Wire sent = codec.encode(received.h);
        Msg back(codec.decode(sent));
        ASSERT_NE(nullptr, back.h);
        EXPECT_EQ(expected, dumpOf(back.h));
        /* Sent again, the decoded message encodes to the same payload and frame. */
        const Wire again = codec.encode(back.h);
        EXPECT_EQ(sent.payload, again.payload);
        EXPECT_EQ(frameText(sent), frameText(again));
        if (const char *dir = std::getenv(codec.corpusVariable)) {
            const Bytes seed = codec.seed(sent);
            std::ofstream(std::string(dir).append("/seed").append(std::to_string(&c - kCases)), std::ios::binary)
                .write(reinterpret_cast<const char *>(seed.data()), static_cast<std::streamsize>(seed.size()));
        }
    }
    before.expectBalanced();
}

/* The message id and the redelivered flag are the receiving transport's: they do not travel. */
TEST_P(CodecTest, ReceiveSideFlagsDoNotTravel)
{
    Msg m(receivedOnLoopback(kCases[1]));
    ASSERT_NE(nullptr, m.h);
    vel::msgOf(m.h)->msgInfo.flags |= _VELCLIENT_RX_FLAG_REDELIVERED_MASK;
    velClient_msgId_t id = 0;
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_getMsgId(m.h, &id));
    Msg back(GetParam()->decode(GetParam()->encode(m.h)));
    ASSERT_NE(nullptr, back.h);
    EXPECT_EQ(VELCLIENT_NOT_FOUND, velClient_msg_getMsgId(back.h, &id));
    EXPECT_FALSE(velClient_msg_isRedelivered(back.h));
    velClient_uint32_t mode = 0;
    EXPECT_EQ(VELCLIENT_OK, velClient_msg_getDeliveryMode(back.h, &mode));
    EXPECT_EQ(VELCLIENT_DELIVERY_MODE_PERSISTENT, mode);
}

INSTANTIATE_TEST_SUITE_P(Codecs, CodecTest, testing::Values(&kAmqp, &kMqtt),
                         [](const testing::TestParamInfo<const Codec *> &info) { return info.param->name; });
