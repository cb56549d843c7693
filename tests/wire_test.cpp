/* Encoding messages to wire frames and back, and sending them on loopback
 * and null sessions. */
#include <cstring>
#include <string>
#include <vector>

#include "support/velTestSupport.h"

namespace {

using Bytes = std::vector<std::uint8_t>;

void putBE(Bytes &b, std::uint64_t v, int width)
{
    for (int i = width - 1; i >= 0; --i)
        b.push_back(static_cast<std::uint8_t>(v >> (8 * i)));
}

void item(Bytes &b, std::uint8_t tag, const Bytes &value)
{
    b.push_back(tag);
    putBE(b, value.size(), 4);
    b.insert(b.end(), value.begin(), value.end());
}

/* A frame with the given protocol, flags and item bytes. */
Bytes frame(std::uint8_t protocol, std::uint32_t flags, const Bytes &items)
{
    Bytes b{1, protocol};
    putBE(b, flags, 4);
    putBE(b, items.size() + 12, 4);
    b.push_back(0);
    b.push_back(0);
    b.insert(b.end(), items.begin(), items.end());
    return b;
}

Bytes text(const char *s)
{
    return Bytes(s, s + std::strlen(s) + 1);
}

using veltest::Msg;

using veltest::encode;

velClient_returnCode_t decode(Bytes bytes, velClient_opaqueMsg_pt *msg)
{
    velClient_bufInfo_t info{bytes.data(), static_cast<velClient_uint32_t>(bytes.size())};
    return velClient_msg_decodeFromVwf(&info, msg);
}

} // namespace

TEST(WireFormat, DocumentedExampleBytes)
{
    Msg m;
    const std::uint8_t attachment[] = {1, 2, 3};
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setTopicPtr(m.h, "a/b"));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setBinaryAttachment(m.h, attachment, sizeof attachment));
    Bytes expected = {0x01, 0x0D, 0, 0, 0, 0, 0, 0, 0, 0x1D, 0, 0,     0x11, 0, 0, 0, 4, 'a', '/',
                      'b',  0,    0x10, 0, 0, 0, 3, 1, 2,   3};
    EXPECT_EQ(expected, encode(m.h));
}

TEST(WireFormat, EncodeCachesTheImageUntilTheMessageChanges)
{
    Msg m;
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setTopicPtr(m.h, "t"));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_encodeToVWF(m.h, nullptr, nullptr)); /* build and cache only */
    velClient_bufInfo_t a{}, b{};
    velClient_opaqueDatablock_pt ba = nullptr, bb = nullptr;
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_encodeToVWF(m.h, &a, &ba));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_encodeToVWF(m.h, &b, &bb));
    EXPECT_EQ(ba, bb);
    EXPECT_EQ(a.buf_p, b.buf_p);
    /* Both references are the caller's; the message still holds its own. */
    EXPECT_EQ(VELCLIENT_OK, velClient_datablock_free(&ba));
    EXPECT_EQ(VELCLIENT_OK, velClient_datablock_free(&bb));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setTopicPtr(m.h, "u"));
    Bytes changed = encode(m.h);
    EXPECT_EQ('u', changed[17]);
}

TEST(WireFormat, ChangingAMapAfterEncodingInvalidatesTheImage)
{
    Msg m;
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setSenderId(m.h, "first"));
    Bytes before = encode(m.h);
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setSenderId(m.h, "other")); /* same size, written in place */
    Bytes after = encode(m.h);
    EXPECT_NE(before, after);
    velClient_opaqueMsg_pt out = nullptr;
    velClient_bufInfo_t info{after.data(), static_cast<velClient_uint32_t>(after.size())};
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_decodeFromVwf(&info, &out));
    Msg r(out);
    const char *s = nullptr;
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_getSenderId(r.h, &s));
    EXPECT_STREQ("other", s);
}

TEST(WireFormat, EncodeRefusesOneNullOutput)
{
    Msg m;
    velClient_bufInfo_t info{};
    EXPECT_EQ(VELCLIENT_FAIL, velClient_msg_encodeToVWF(m.h, &info, nullptr));
    EXPECT_LAST_ERROR(VELCLIENT_SUBCODE_PARAM_CONFLICT,
                      veltest::format("One and only one of %p and %p is a NULL pointer in velClient_msg_encodeToVWF",
                                      static_cast<void *>(&info), static_cast<void *>(nullptr)));
}

TEST(WireFormat, DecodeRefusesMalformedInput)
{
    Bytes good = frame(13, 0, [] {
        Bytes b;
        item(b, 0x11, text("t"));
        return b;
    }());
    velClient_opaqueMsg_pt msg = nullptr;
    ASSERT_EQ(VELCLIENT_OK, decode(good, &msg));
    velClient_msg_free(&msg);

    Bytes two = good;
    two.insert(two.end(), good.begin(), good.end());
    Bytes trailing = good;
    trailing.push_back(0);
    Bytes badVersion = good;
    badVersion[0] = 2;
    Bytes truncated(good.begin(), good.end() - 1);
    Bytes reserved = good;
    reserved[11] = 1;
    Bytes pastEnd = frame(13, 0, Bytes{0x13, 0, 0, 0, 9, 1});
    Bytes repeated = frame(13, 0, [] {
        Bytes b;
        item(b, 0x13, Bytes{1});
        item(b, 0x13, Bytes{2});
        return b;
    }());
    Bytes noNul = frame(13, 0, Bytes{0x11, 0, 0, 0, 1, 'x'});
    Bytes unknownTag = frame(13, 0, Bytes{0x7F, 0, 0, 0, 1, 'x'});
    Bytes oddConsumerIds = frame(13, 0, Bytes{0x12, 0, 0, 0, 3, 1, 2, 3});
    for (const Bytes &bad : {two, trailing, badVersion, truncated, reserved, pastEnd, repeated, noNul, unknownTag,
                             oddConsumerIds}) {
        msg = reinterpret_cast<velClient_opaqueMsg_pt>(1);
        EXPECT_EQ(VELCLIENT_FAIL, decode(bad, &msg));
        EXPECT_EQ(nullptr, msg);
    }
    EXPECT_EQ(0u, veltest::stat(VELCLIENT_MSG_STATS_ALLOC_MSGS));
}

TEST(WireFormat, DecodeRefusesFramesWithoutAnApplicationMessage)
{
    velClient_opaqueMsg_pt msg = nullptr;
    EXPECT_EQ(VELCLIENT_FAIL, decode(frame(5, 0, {}), &msg));
    EXPECT_LAST_ERROR(VELCLIENT_SUBCODE_INVALID_VWF_MESSAGE,
                      "Invalid VWF message for raw vwf transmission on session 'parserSession'");
    EXPECT_EQ(VELCLIENT_FAIL, decode(frame(13, 0x4, {}), &msg));
    EXPECT_EQ(nullptr, msg);
    EXPECT_EQ(VELCLIENT_OK, decode(frame(16, 0x10, {}), &msg));
    velClient_msg_free(&msg);
}

TEST(WireFormat, DecodeArgumentChecks)
{
    velClient_opaqueMsg_pt msg = nullptr;
    std::uint8_t byte = 0;
    velClient_bufInfo_t empty{&byte, 0}, null{nullptr, 4};
    EXPECT_EQ(VELCLIENT_FAIL, velClient_msg_decodeFromVwf(nullptr, nullptr));
    EXPECT_LAST_ERROR(VELCLIENT_SUBCODE_PARAM_NULL_PTR, "Null reference to msg_p pointer in velClient_msg_decodeFromVwf");
    EXPECT_EQ(VELCLIENT_FAIL, velClient_msg_decodeFromVwf(nullptr, &msg));
    EXPECT_LAST_ERROR(VELCLIENT_SUBCODE_PARAM_NULL_PTR, "Null VWF bufinfo pointer in velClient_msg_decodeFromVwf");
    EXPECT_EQ(VELCLIENT_FAIL, velClient_msg_decodeFromVwf(&empty, &msg));
    EXPECT_LAST_ERROR(VELCLIENT_SUBCODE_PARAM_OUT_OF_RANGE, "Zero length VWF buffer in velClient_msg_decodeFromVwf");
    EXPECT_EQ(VELCLIENT_FAIL, velClient_msg_decodeFromVwf(&null, &msg));
    EXPECT_LAST_ERROR(VELCLIENT_SUBCODE_PARAM_NULL_PTR, "Null VWF pointer in velClient_msg_decodeFromVwf");
}

TEST(WireFormat, EveryPartAndPropertySurvivesARoundTrip)
{
    Msg m;
    const char data[] = "user-data", xml[] = "<a/>", tag[] = "ct-1";
    velClient_destination_t queue{VELCLIENT_QUEUE_DESTINATION, "#P2P/QUE/v:x/orders"};
    velClient_destination_t replyTo{VELCLIENT_TOPIC_DESTINATION, "reply/here"};
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setDestination(m.h, &queue, sizeof queue));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setUserData(m.h, data, sizeof data));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setXml(m.h, xml, sizeof xml));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setCorrelationTag(m.h, tag, sizeof tag));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setDeliveryMode(m.h, VELCLIENT_DELIVERY_MODE_NONPERSISTENT));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setClassOfService(m.h, VELCLIENT_COS_3));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setTimeToLive(m.h, 5000));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setDMQEligible(m.h, 1));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setAsReplyMsg(m.h, 1));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setSenderId(m.h, "sender-9"));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setSequenceNumber(m.h, 77));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setReplyTo(m.h, &replyTo, sizeof replyTo));
    velClient_opaqueContainer_pt props = nullptr, map = nullptr;
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_createUserPropertyMap(m.h, &props, 32));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addInt32(props, -5, "p1"));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_createBinaryAttachmentMap(m.h, &map, 32));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addString(map, "v", "k"));

    velClient_opaqueMsg_pt out = nullptr;
    ASSERT_EQ(VELCLIENT_OK, decode(encode(m.h), &out));
    Msg r(out);
    velClient_destination_t dest{};
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_getDestination(r.h, &dest, sizeof dest));
    EXPECT_EQ(VELCLIENT_QUEUE_DESTINATION, dest.destType);
    EXPECT_STREQ("orders", dest.dest);
    void *p = nullptr;
    velClient_uint32_t len = 0;
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_getUserDataPtr(r.h, &p, &len));
    EXPECT_EQ(std::string(data, sizeof data), std::string(static_cast<char *>(p), len));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_getXmlPtr(r.h, &p, &len));
    EXPECT_EQ(std::string(xml, sizeof xml), std::string(static_cast<char *>(p), len));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_getCorrelationTagPtr(r.h, &p, &len));
    EXPECT_EQ(std::string(tag, sizeof tag), std::string(static_cast<char *>(p), len));
    velClient_uint32_t mode = 0, cos = 0;
    velClient_int64_t ttl = 0, seq = 0;
    EXPECT_EQ(VELCLIENT_OK, velClient_msg_getDeliveryMode(r.h, &mode));
    EXPECT_EQ(static_cast<velClient_uint32_t>(VELCLIENT_DELIVERY_MODE_NONPERSISTENT), mode);
    EXPECT_EQ(VELCLIENT_OK, velClient_msg_getClassOfService(r.h, &cos));
    EXPECT_EQ(static_cast<velClient_uint32_t>(VELCLIENT_COS_3), cos);
    EXPECT_EQ(VELCLIENT_OK, velClient_msg_getTimeToLive(r.h, &ttl));
    EXPECT_EQ(5000, ttl);
    EXPECT_EQ(1, velClient_msg_isDMQEligible(r.h));
    EXPECT_EQ(1, velClient_msg_isReplyMsg(r.h));
    const char *sender = nullptr;
    EXPECT_EQ(VELCLIENT_OK, velClient_msg_getSenderId(r.h, &sender));
    EXPECT_STREQ("sender-9", sender);
    EXPECT_EQ(VELCLIENT_OK, velClient_msg_getSequenceNumber(r.h, &seq));
    EXPECT_EQ(77, seq);
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_getReplyTo(r.h, &dest, sizeof dest));
    EXPECT_STREQ("reply/here", dest.dest);
    velClient_int32_t p1 = 0;
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_getUserPropertyMap(r.h, &props));
    EXPECT_EQ(VELCLIENT_OK, velClient_container_getInt32(props, &p1, "p1"));
    EXPECT_EQ(-5, p1);
    const char *v = nullptr;
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_getBinaryAttachmentMap(r.h, &map));
    EXPECT_EQ(VELCLIENT_OK, velClient_container_getStringPtr(map, &v, "k"));
    EXPECT_STREQ("v", v);
    velClient_msgId_t id = 0;
    EXPECT_EQ(VELCLIENT_OK, velClient_msg_getMsgId(r.h, &id));
}

TEST(WireFormat, ADecodedMessageCanBeChangedWithoutTouchingOthersBuiltFromTheSameBytes)
{
    Msg m;
    velClient_opaqueContainer_pt map = nullptr;
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_createBinaryAttachmentMap(m.h, &map, 32));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addInt32(map, 1, "a"));
    Bytes wire = encode(m.h);
    velClient_opaqueMsg_pt h1 = nullptr;
    ASSERT_EQ(VELCLIENT_OK, decode(wire, &h1));
    Msg r1(h1);
    velClient_opaqueMsg_pt h2 = nullptr;
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_dup(r1.h, &h2));
    Msg r2(h2);
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_getBinaryAttachmentMap(r2.h, &map));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addInt32(map, 2, "b"));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_getBinaryAttachmentMap(r1.h, &map));
    velClient_int32_t b = 0;
    EXPECT_EQ(VELCLIENT_NOT_FOUND, velClient_container_getInt32(map, &b, "b"));
    /* The changed duplicate encodes and decodes again. */
    velClient_opaqueMsg_pt h3 = nullptr;
    ASSERT_EQ(VELCLIENT_OK, decode(encode(r2.h), &h3));
    Msg r3(h3);
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_getBinaryAttachmentMap(r3.h, &map));
    EXPECT_EQ(VELCLIENT_OK, velClient_container_getInt32(map, &b, "b"));
    EXPECT_EQ(2, b);
}

TEST(WireFormat, MutatedFramesNeverCrashTheParser)
{
    Msg m;
    velClient_opaqueContainer_pt map = nullptr;
    velClient_destination_t topic{VELCLIENT_TOPIC_DESTINATION, "a/b/c"};
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setDestination(m.h, &topic, sizeof topic));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setSenderId(m.h, "s"));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_createBinaryAttachmentMap(m.h, &map, 32));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addInt32(map, 1, "a"));
    Bytes wire = encode(m.h);
    std::uint32_t seed = 12345;
    for (int round = 0; round < 3000; ++round) {
        Bytes b = wire;
        for (int k = 0; k < 1 + round % 4; ++k) {
            seed = seed * 1103515245u + 12345u;
            b[(seed >> 8) % b.size()] = static_cast<std::uint8_t>(seed >> 20);
        }
        velClient_opaqueMsg_pt out = nullptr;
        if (decode(b, &out) != VELCLIENT_OK) {
            EXPECT_EQ(nullptr, out);
            continue;
        }
        const char *s = nullptr;
        velClient_msg_getSenderId(out, &s);
        char text[2048];
        EXPECT_EQ(VELCLIENT_OK, velClient_msg_dump(out, text, sizeof text));
        velClient_msg_free(&out);
    }
}

namespace {

struct Inbox {
    std::vector<std::string> senders;
    std::vector<long long> sequence;
    int resendsLeft = 0;
    velClient_opaqueMsg_pt kept = nullptr;
};

velClient_rxMsgCallback_returnCode_t collect(velClient_opaqueSession_pt session, velClient_opaqueMsg_pt msg,
                                             void *user)
{
    auto *inbox = static_cast<Inbox *>(user);
    const char *sender = nullptr;
    velClient_int64_t seq = -1;
    velClient_msg_getSenderId(msg, &sender);
    velClient_msg_getSequenceNumber(msg, &seq);
    inbox->senders.emplace_back(sender != nullptr ? sender : "");
    inbox->sequence.push_back(seq);
    if (inbox->resendsLeft > 0) {
        --inbox->resendsLeft;
        EXPECT_EQ(VELCLIENT_OK, velClient_session_sendMsg(session, msg));
    }
    if (inbox->kept == nullptr) {
        inbox->kept = msg;
        return VELCLIENT_CALLBACK_TAKE_MSG;
    }
    return VELCLIENT_CALLBACK_OK;
}

struct Session {
    velClient_opaqueSession_pt h = nullptr;
    Session(const char *const *props, Inbox *inbox)
    {
        EXPECT_EQ(VELCLIENT_OK, velClient_session_create(props, collect, inbox, &h));
    }
    ~Session() { velClient_session_destroy(&h); }
};

} // namespace

TEST(SessionSend, LoopbackGeneratesSenderIdAndSequenceNumbers)
{
    const char *props[] = {"SESSION_CLIENT_NAME", "client-a", "SESSION_GENERATE_SENDER_ID", "1",
                           "SESSION_GENERATE_SEQUENCE_NUMBER", "1", nullptr};
    Inbox inbox;
    Session s(props, &inbox);
    Msg m;
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setTopicPtr(m.h, "t"));
    for (int i = 0; i < 3; ++i)
        ASSERT_EQ(VELCLIENT_OK, velClient_session_sendMsg(s.h, m.h));
    ASSERT_EQ(3u, inbox.senders.size());
    EXPECT_EQ("client-a", inbox.senders[0]);
    EXPECT_EQ((std::vector<long long>{1, 2, 3}), inbox.sequence);
    /* An application's own sender id is kept. */
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setSenderId(m.h, "mine"));
    ASSERT_EQ(VELCLIENT_OK, velClient_session_sendMsg(s.h, m.h));
    EXPECT_EQ("mine", inbox.senders[3]);
    Msg kept(inbox.kept);
    velClient_destination_t dest{};
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_getDestination(kept.h, &dest, sizeof dest));
    EXPECT_STREQ("t", dest.dest);
    velClient_int64_t received = 0;
    EXPECT_EQ(VELCLIENT_OK, velClient_msg_getRcvTimestamp(kept.h, &received));
    EXPECT_GT(received, 0);
}

TEST(SessionSend, ACallbackMaySendAgainOnTheSameSession)
{
    const char *props[] = {"SESSION_GENERATE_SEQUENCE_NUMBER", "1", nullptr};
    Inbox inbox;
    inbox.resendsLeft = 2;
    Session s(props, &inbox);
    Msg m;
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setTopicPtr(m.h, "t"));
    ASSERT_EQ(VELCLIENT_OK, velClient_session_sendMsg(s.h, m.h));
    /* The received message keeps its number when sent again (it was generated, so it is replaced). */
    EXPECT_EQ(3u, inbox.sequence.size());
    Msg kept(inbox.kept);
}

TEST(SessionSend, ExpirationIsWrittenIntoTheHeaderMapWhenThereIsNoTimeToLive)
{
    Inbox inbox;
    Session s(nullptr, &inbox);
    Msg m;
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setExpiration(m.h, 1234567));
    ASSERT_EQ(VELCLIENT_OK, velClient_session_sendMsg(s.h, m.h));
    ASSERT_NE(nullptr, inbox.kept);
    Msg kept(inbox.kept);
    velClient_int64_t expiration = 0;
    EXPECT_EQ(VELCLIENT_OK, velClient_msg_getExpiration(kept.h, &expiration));
    EXPECT_EQ(1234567, expiration);
}

TEST(SessionSend, ExpirationIsComputedFromTheTimeToLiveWhenTheSessionAsks)
{
    const char *props[] = {"SESSION_CALCULATE_MESSAGE_EXPIRATION", "1", nullptr};
    Inbox inbox;
    Session s(props, &inbox);
    Msg m;
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setTimeToLive(m.h, 60000));
    ASSERT_EQ(VELCLIENT_OK, velClient_session_sendMsg(s.h, m.h));
    velClient_int64_t expiration = 0, ttl = 0;
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_getExpiration(m.h, &expiration));
    ASSERT_NE(nullptr, inbox.kept);
    Msg kept(inbox.kept);
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_getTimeToLive(kept.h, &ttl));
    EXPECT_EQ(60000, ttl);
    velClient_int64_t received = 0;
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_getRcvTimestamp(kept.h, &received));
    /* now + time-to-live, taken before the message was received */
    EXPECT_GT(expiration, received);
    EXPECT_LE(expiration, received + 60000);
}

TEST(SessionSend, NullTransportDeliversNothingAndBadHandlesFail)
{
    const char *props[] = {"SESSION_TRANSPORT", "null", nullptr};
    Inbox inbox;
    Session s(props, &inbox);
    Msg m;
    EXPECT_EQ(VELCLIENT_OK, velClient_session_sendMsg(s.h, m.h));
    EXPECT_TRUE(inbox.senders.empty());
    EXPECT_EQ(VELCLIENT_FAIL, velClient_session_sendMsg(nullptr, m.h));
    EXPECT_LAST_ERROR(VELCLIENT_SUBCODE_PARAM_NULL_PTR,
                      veltest::format("Bad session pointer (%p) in velClient_session_sendMsg", nullptr));
    EXPECT_EQ(VELCLIENT_FAIL, velClient_session_sendMsg(s.h, nullptr));
    EXPECT_LAST_ERROR(VELCLIENT_SUBCODE_PARAM_NULL_PTR,
                      veltest::format("Bad msg_p pointer (%p) in velClient_session_sendMsg", nullptr));
}

TEST(SessionSend, BadPropertiesAreRefusedByName)
{
    struct Case {
        const char *name;
        const char *value;
        std::string text; /* in full: the error record keeps its first 255 characters */
    };
    const std::string longName(251, 'n'), longBase(251, 'b');
    const Case cases[] = {
        {"SESSION_CLIENT_NAME", longName.c_str(),
         "Invalid value for property SESSION_CLIENT_NAME in velClient_session_create: '" + longName + "'"},
        {"SESSION_P2P_TOPIC_BASE", longBase.c_str(),
         "Invalid value for property SESSION_P2P_TOPIC_BASE in velClient_session_create: '" + longBase + "'"},
        {"SESSION_P2P_TOPIC_BASE", nullptr,
         "Invalid value for property SESSION_P2P_TOPIC_BASE in velClient_session_create: '(null)'"},
        {"SESSION_GENERATE_SENDER_ID", "yes",
         "Invalid value for property SESSION_GENERATE_SENDER_ID in velClient_session_create: 'yes'"},
        {"SESSION_CALCULATE_MESSAGE_EXPIRATION", "",
         "Invalid value for property SESSION_CALCULATE_MESSAGE_EXPIRATION in velClient_session_create: ''"},
        {"SESSION_TRANSPORT", "tcp", "Invalid value for property SESSION_TRANSPORT in velClient_session_create: 'tcp'"},
        {"SESSION_COLOUR", "red", "Unknown property SESSION_COLOUR in velClient_session_create"},
    };
    for (const Case &c : cases) {
        /* A good property first: the refusal of a later one still fails the whole call. */
        const char *props[] = {"SESSION_TRANSPORT", "null", c.name, c.value, nullptr};
        velClient_opaqueSession_pt s = nullptr;
        EXPECT_EQ(VELCLIENT_FAIL, velClient_session_create(props, nullptr, nullptr, &s)) << c.name;
        EXPECT_EQ(nullptr, s) << c.name;
        const std::string text = veltest::lastErrorText();
        EXPECT_EQ(VELCLIENT_SUBCODE_PARAM_OUT_OF_RANGE, veltest::lastSubCode()) << c.name;
        EXPECT_EQ(c.text.substr(0, 255), text);
        EXPECT_NE(std::string::npos, text.find(std::string(c.name) + " in velClient_session_create")) << text;
    }
}
