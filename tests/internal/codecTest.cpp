/* What the AMQP and MQTT codecs both promise: topics map to addresses, names and filters and back; every seed of
 * the fuzz corpus decodes and encodes again byte for byte, and each failed allocation of its decode fails it
 * cleanly. */
#include <filesystem>

#include "codecMessages.h"
#include "velClientAlloc/systemMemory.h"

using namespace codectest;

TEST(CodecTopics, TopicsMapToAddressesNamesAndFiltersAndBackOrAreRefused)
{
    const struct {
        const char *topic, *address, *subscription, *name, *filter; /* nullptr: as the one before, or no name */
    } rows[] = {
        {"a/b/c", "/topic/a.b.c", nullptr, "a/b/c", nullptr},
        {"a.b/c", "/topic/a%2Eb.c", nullptr, "a.b/c", nullptr},
        {"50%/off", "/topic/50%25.off", nullptr, "50%25/off", nullptr},
        {"a/*/c", "/topic/a.%2A.c", "/topic/a.*.c", "a/*/c", "a/+/c"},
        {"a+b/#c/d#", "/topic/a+b.#c.d#", nullptr, "a%2Bb/%23c/d%23", nullptr},
        {"$SYS/x", "/topic/$SYS.x", nullptr, "%24SYS/x", nullptr},
        {"a/$b$", "/topic/a.$b$", nullptr, "a/$b$", nullptr},
        {"*/x*/**", "/topic/%2A.x*.**", "/topic/*.x*.**", "*/x*/**", "+/x*/**"},
        {"a/>/c", "/topic/a.>.c", nullptr, "a/>/c", nullptr},
        {"a/#", "/topic/a.%23", nullptr, "a/%23", nullptr},
        {"a//c/", "/topic/a..c.", nullptr, "a//c/", nullptr},
        {"a/>", "/topic/a.>", "/topic/a.#", "a/>", "a/#"},
        {"#P2P/v:host/me", "/topic/#P2P.v:host.me", nullptr, "%23P2P/v:host/me", nullptr},
        {"", "/topic/", nullptr, nullptr, nullptr},
        {"x*y/a%2E", "/topic/x*y.a%252E", nullptr, "x*y/a%252E", nullptr},
    };
    const vel::amqp::Addressing rules;
    for (const auto &r : rows) {
        SCOPED_TRACE(r.topic);
        EXPECT_EQ(r.address, vel::amqp::topicAddress(rules, r.topic, false));
        const char *subscription = r.subscription != nullptr ? r.subscription : r.address;
        EXPECT_EQ(subscription, vel::amqp::topicAddress(rules, r.topic, true));
        for (const char *address : {r.address, subscription}) {
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
            EXPECT_EQ(r.filter != nullptr ? r.filter : r.name, vel::mqtt::topicFilter(r.topic));
            EXPECT_EQ(r.topic, back);
        }
    }
    /* Every byte survives in a level: no '+' or '#' in a name, no '$' at its start. */
    for (int b = 1; b < 256; ++b) {
        const std::string c(1, static_cast<char>(b));
        for (const std::string &topic : {c + "x/y", "x/" + c + "y" + c}) {
            const std::string name = vel::mqtt::topicName(topic);
            EXPECT_TRUE(name.find_first_of("+#") == std::string::npos && name[0] != '$') << b;
            std::string back;
            EXPECT_TRUE(vel::mqtt::topicOf(name, back) && back == topic) << b;
        }
    }
    /* Other addressing rules; escapes that do not decode, a NUL, and names too long or empty are refused. */
    const vel::amqp::Addressing custom{"topic://", "topic://queue/", "::", "*", "**"};
    EXPECT_EQ("topic://a::b%3A%3Ac::**", vel::amqp::topicAddress(custom, "a/b::c/>", true));
    EXPECT_EQ("topic://queue/jobs.eu", vel::amqp::queueAddress(custom, "jobs.eu"));
    velClient_destinationType_t type = VELCLIENT_NULL_DESTINATION;
    std::string back;
    EXPECT_TRUE(vel::amqp::destinationOf(custom, "topic://queue/jobs", &type, &back));
    EXPECT_TRUE(type == VELCLIENT_QUEUE_DESTINATION && back == "jobs") << back;
    EXPECT_TRUE(vel::amqp::destinationOf(custom, "topic://a::b%3a%3Ac::**", &type, &back));
    EXPECT_TRUE(type == VELCLIENT_TOPIC_DESTINATION && back == "a/b::c/>") << back;
    for (const char *address : {"topic://a%", "topic://a%4", "topic://a%G1", "/exchange/x"})
        EXPECT_FALSE(vel::amqp::destinationOf(custom, address, &type, &back)) << address;
    for (const std::string &name : {std::string(251, 'x'), std::string("a%"), std::string("a%2"), std::string("a%G1"),
                                    std::string("a%00"), std::string("a\0b", 3), std::string()})
        EXPECT_FALSE(vel::mqtt::topicOf(name, back)) << name;
    EXPECT_TRUE(vel::mqtt::topicOf(std::string(250, 'x'), back));
    EXPECT_TRUE(vel::mqtt::topicOf("a%2b/%2F", back));
    EXPECT_EQ("a+//", back) << "escapes decode in either case";
}

using CodecTest = testing::TestWithParam<const Codec *>;

/* Calls f(name, wire) for every seed of the codec's folder under fuzz/corpus. */
template <typename F>
void forEachSeed(const Codec &codec, F f)
{
    for (const auto &entry : std::filesystem::directory_iterator(VELCLIENT_SOURCE_DIR "/fuzz/corpus/" +
                                                                  std::string(codec.name))) {
        const std::string name = entry.path().filename();
        SCOPED_TRACE(name);
        f(name, codec.wire(seedBytes(codec.name, name)));
    }
}

/* The seeds are the codec's own encodings of messages with every part, header property, mark and field type, as
 * a session sends them (one seed excepted, from another client): decoded and encoded again they give the very same
 * bytes, and decode into the same message, so no field is lost or changed either way. */
TEST_P(CodecTest, EverySeedSurvivesDecodeAndEncodeByteForByte)
{
    const Codec &codec = *GetParam();
    const veltest::LiveCounts before;
    forEachSeed(codec, [&](const std::string &name, const Wire &expected) {
        Msg m(decoded(codec.decode, expected));
        ASSERT_NE(nullptr, m.h);
        const std::string dump = dumpWithoutReceiveLines(m.h);
        /* The redelivered flag is the receiving transport's: it does not travel. */
        vel::msgOf(m.h)->msgInfo.flags |= _VELCLIENT_RX_FLAG_REDELIVERED_MASK;
        const Wire sent = codec.encode(vel::msgOf(m.h));
        if (name != codec.otherSeed) {
            EXPECT_EQ(expected.name, sent.name);
            EXPECT_EQ(expected.payload, sent.payload);
            EXPECT_EQ(frameText(expected), frameText(sent));
        }
        EXPECT_EQ(dump, dumpWithoutReceiveLines(Msg(decoded(codec.decode, sent)).h));
    });
    before.expectBalanced();
}

/* Out of memory while a received message is decoded: with the pools empty, each system allocation the decode of
 * a seed makes fails in turn; the decode then fails with the out-of-memory sub-code and leaves nothing behind,
 * or (when the failed allocation was one it can do without) gives the whole message. */
TEST_P(CodecTest, EveryFailedAllocationFailsTheDecodeCleanly)
{
    const Codec &codec = *GetParam();
    velClient_msg_setMaxPoolMem(0);
    const veltest::LiveCounts before;
    int refusals = 0;
    forEachSeed(codec, [&](const std::string &, const Wire &wire) {
        _velClient_allocFail_arm(0);
        const std::string whole = dumpWithoutReceiveLines(Msg(decoded(codec.decode, wire)).h);
        const std::uint64_t points = _velClient_allocFail_calls();
        for (std::uint64_t nth = 1; nth <= points; ++nth) {
            SCOPED_TRACE(nth);
            _velClient_allocFail_arm(nth);
            _velClient_msg *m = nullptr;
            const velClient_returnCode_t rc = codec.decode(wire, &m);
            _velClient_allocFail_arm(0);
            Msg held(m != nullptr ? m->opaqueMsg_p : nullptr);
            if (rc == VELCLIENT_OK) {
                ASSERT_NE(nullptr, held.h);
                EXPECT_EQ(whole, dumpWithoutReceiveLines(held.h));
                continue;
            }
            ++refusals;
            EXPECT_EQ(nullptr, m);
            EXPECT_EQ(VELCLIENT_SUBCODE_OUT_OF_MEMORY, veltest::lastSubCode()) << veltest::lastErrorText();
        }
    });
    EXPECT_GT(refusals, 0);
    before.expectBalanced();
    velClient_msg_setMaxPoolMem(veltest::kDefaultPoolLimit);
}

INSTANTIATE_TEST_SUITE_P(Codecs, CodecTest, testing::Values(&kAmqp, &kMqtt),
                         [](const testing::TestParamInfo<const Codec *> &info) { return info.param->name; });
