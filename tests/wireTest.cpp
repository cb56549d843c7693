/* Encoding messages to wire frames and back, and sending them on loopback
 * and null sessions. */
#include <unistd.h>

#include <string>
#include <vector>

#include "support/velTestSupport.h"

using veltest::Bytes;
using veltest::decode;
using veltest::encode;
using veltest::frame;
using veltest::item;
using veltest::Msg;

namespace {

Bytes text(const char *s)
{
    return Bytes(s, s + std::strlen(s) + 1);
}

std::string part(velClient_returnCode_t (*get)(velClient_opaqueMsg_pt, void **, velClient_uint32_t *),
                 velClient_opaqueMsg_pt m)
{
    void *p = nullptr;
    velClient_uint32_t len = 0;
    EXPECT_EQ(VELCLIENT_OK, get(m, &p, &len));
    return std::string(static_cast<char *>(p), len);
}

template <class T, class R> std::string number(R (*get)(velClient_opaqueMsg_pt, T *), velClient_opaqueMsg_pt m)
{
    T v{};
    EXPECT_EQ(VELCLIENT_OK, get(m, &v));
    return std::to_string(v);
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

TEST(WireFormat, TheCachedImageIsRebuiltOnlyWhenTheMessageChanges)
{
    Msg m;
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setSenderId(m.h, "first"));
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
    /* A header map changed in place (same size) invalidates the image. */
    Bytes before = encode(m.h);
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setSenderId(m.h, "other"));
    Msg r(nullptr);
    ASSERT_EQ(VELCLIENT_OK, decode(encode(m.h), &r.h));
    const char *s = nullptr;
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_getSenderId(r.h, &s));
    EXPECT_STREQ("other", s);
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setTopicPtr(m.h, "u"));
    EXPECT_EQ('u', encode(m.h)[17]);
    /* A part copied in place at the same size leaves the message unmodified: the image is handed out again. */
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setUserData(m.h, "abcd", 4));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_encodeToVWF(m.h, &a, &ba));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setUserData(m.h, "wxyz", 4));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_encodeToVWF(m.h, &b, &bb));
    EXPECT_EQ(ba, bb);
    velClient_datablock_free(&ba);
    velClient_datablock_free(&bb);
}

TEST(WireFormat, DecodeRefusesMalformedInput)
{
    const Bytes good = frame(13, 0, item(0x11, text("t")));
    velClient_opaqueMsg_pt msg = nullptr;
    ASSERT_EQ(VELCLIENT_OK, decode(good, &msg));
    velClient_msg_free(&msg);
    Bytes badVersion = good, reserved = good;
    badVersion[0] = 2;
    reserved[11] = 1;
    const Bytes cases[] = {
        veltest::cat(good, good),                              /* two frames */
        veltest::cat(good, {0}),                               /* trailing byte */
        badVersion,                                            /* version 2 */
        Bytes(good.begin(), good.end() - 1),                   /* truncated */
        reserved,                                              /* reserved byte set */
        frame(13, 0, Bytes{0x13, 0, 0, 0, 9, 1}),              /* item past the end */
        frame(13, 0, veltest::cat(item(0x13, {1}), item(0x13, {2}))), /* item repeated */
        frame(13, 0, item(0x11, {'x'})),                       /* topic without NUL */
        frame(13, 0, item(0x7F, {'x'})),                       /* unknown tag */
        frame(13, 0, item(0x12, {1, 2, 3})),                   /* consumer ids not in 4s */
        frame(13, 0x4, {}),                                    /* no application message */
    };
    for (const Bytes &bad : cases) {
        SCOPED_TRACE(testing::Message() << "case " << (&bad - cases));
        velClient_resetLastErrorInfo();
        msg = reinterpret_cast<velClient_opaqueMsg_pt>(1);
        EXPECT_EQ(VELCLIENT_FAIL, decode(bad, &msg));
        if (&bad - cases >= 2) { /* the frame-level faults; two frames or trailing bytes only fail */
            EXPECT_EQ(VELCLIENT_SUBCODE_INVALID_VWF_MESSAGE, veltest::lastSubCode()) << veltest::lastErrorText();
        }
        EXPECT_EQ(nullptr, msg);
    }
    EXPECT_EQ(VELCLIENT_FAIL, decode(frame(5, 0, {}), &msg));
    EXPECT_LAST_ERROR(VELCLIENT_SUBCODE_INVALID_VWF_MESSAGE,
                      "Invalid VWF message for raw vwf transmission on session 'parserSession'");
    EXPECT_EQ(VELCLIENT_OK, decode(frame(16, 0x10, {}), &msg));
    velClient_msg_free(&msg);
    EXPECT_EQ(0u, veltest::stat(VELCLIENT_MSG_STATS_ALLOC_MSGS));
}

TEST(WireFormat, EveryPartAndPropertySurvivesARoundTrip)
{
    Msg m;
    velClient_destination_t queue{VELCLIENT_QUEUE_DESTINATION, "#P2P/QUE/v:x/orders"};
    velClient_destination_t replyTo{VELCLIENT_TOPIC_DESTINATION, "reply/here"};
    velClient_opaqueContainer_pt props = nullptr, map = nullptr;
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setDestination(m.h, &queue, sizeof queue));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setUserData(m.h, "user-data", 10));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setXml(m.h, "<a/>", 5));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setCorrelationTag(m.h, "ct-1", 5));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setDeliveryMode(m.h, VELCLIENT_DELIVERY_MODE_NONPERSISTENT));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setClassOfService(m.h, VELCLIENT_COS_3));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setTimeToLive(m.h, 5000));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setDMQEligible(m.h, 1));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setAsReplyMsg(m.h, 1));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setSenderId(m.h, "sender-9"));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setSequenceNumber(m.h, 77));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setReplyTo(m.h, &replyTo, sizeof replyTo));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_createUserPropertyMap(m.h, &props, 32));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addInt32(props, -5, "p1"));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_createBinaryAttachmentMap(m.h, &map, 32));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addString(map, "v", "k"));

    Msg r(nullptr);
    ASSERT_EQ(VELCLIENT_OK, decode(encode(m.h), &r.h));
    velClient_destination_t d = r.destination();
    EXPECT_EQ(VELCLIENT_QUEUE_DESTINATION, d.destType);
    EXPECT_STREQ("orders", d.dest);
    EXPECT_EQ(std::string("user-data", 10), part(velClient_msg_getUserDataPtr, r.h));
    EXPECT_EQ(std::string("<a/>", 5), part(velClient_msg_getXmlPtr, r.h));
    EXPECT_EQ(std::string("ct-1", 5), part(velClient_msg_getCorrelationTagPtr, r.h));
    EXPECT_EQ(std::to_string(VELCLIENT_DELIVERY_MODE_NONPERSISTENT), number<velClient_uint32_t>(velClient_msg_getDeliveryMode, r.h));
    EXPECT_EQ(std::to_string(VELCLIENT_COS_3), number<velClient_uint32_t>(velClient_msg_getClassOfService, r.h));
    EXPECT_EQ("5000", number<velClient_int64_t>(velClient_msg_getTimeToLive, r.h));
    EXPECT_EQ("77", number<velClient_int64_t>(velClient_msg_getSequenceNumber, r.h));
    EXPECT_EQ(1, velClient_msg_isDMQEligible(r.h));
    EXPECT_EQ(1, velClient_msg_isReplyMsg(r.h));
    const char *s = nullptr;
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_getSenderId(r.h, &s));
    EXPECT_STREQ("sender-9", s);
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_getReplyTo(r.h, &d, sizeof d));
    EXPECT_STREQ("reply/here", d.dest);
    velClient_int32_t p1 = 0;
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_getUserPropertyMap(r.h, &props));
    EXPECT_EQ(VELCLIENT_OK, velClient_container_getInt32(props, &p1, "p1"));
    EXPECT_EQ(-5, p1);
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_getBinaryAttachmentMap(r.h, &map));
    EXPECT_EQ(VELCLIENT_OK, velClient_container_getStringPtr(map, &s, "k"));
    EXPECT_STREQ("v", s);
    velClient_msgId_t id = 0;
    EXPECT_EQ(VELCLIENT_OK, velClient_msg_getMsgId(r.h, &id));
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
    if (inbox->kept != nullptr)
        return VELCLIENT_CALLBACK_OK;
    inbox->kept = msg;
    return VELCLIENT_CALLBACK_TAKE_MSG;
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
    EXPECT_STREQ("t", kept.destination().dest);
    velClient_int64_t received = 0;
    EXPECT_EQ(VELCLIENT_OK, velClient_msg_getRcvTimestamp(kept.h, &received));
    EXPECT_GT(received, 0);
}

TEST(SessionSend, TheDefaultClientNameCountsSessions)
{
    /* host/pid/nnnnn, the count one higher for each session made */
    const char *props[] = {"SESSION_GENERATE_SENDER_ID", "1", nullptr};
    Inbox first, second;
    Session a(props, &first), b(props, &second);
    Msg m;
    ASSERT_EQ(VELCLIENT_OK, velClient_session_sendMsg(a.h, m.h));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_deleteSenderId(m.h));
    ASSERT_EQ(VELCLIENT_OK, velClient_session_sendMsg(b.h, m.h));
    ASSERT_EQ(1u, first.senders.size());
    ASSERT_EQ(1u, second.senders.size());
    const std::string pid = "/" + std::to_string(getpid()) + "/";
    const std::string &x = first.senders[0], &y = second.senders[0];
    ASSERT_NE(std::string::npos, x.find(pid)) << x;
    const std::string nx = x.substr(x.find(pid) + pid.size()), ny = y.substr(y.find(pid) + pid.size());
    EXPECT_GE(nx.size(), 5u) << x; /* at least five digits, zero-padded */
    EXPECT_EQ(std::stoul(nx) + 1, std::stoul(ny)) << x << " " << y;
    Msg keptA(first.kept), keptB(second.kept);
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
    EXPECT_EQ(3u, inbox.sequence.size());
    Msg kept(inbox.kept);
}

TEST(SessionSend, ExpirationIsKeptOrComputedFromTheTimeToLive)
{
    for (bool calculate : {false, true}) {
        const char *props[] = {"SESSION_CALCULATE_MESSAGE_EXPIRATION", calculate ? "1" : "0", nullptr};
        Inbox inbox;
        Session s(props, &inbox);
        Msg m;
        ASSERT_EQ(VELCLIENT_OK, calculate ? velClient_msg_setTimeToLive(m.h, 60000) : velClient_msg_setExpiration(m.h, 1234567));
        ASSERT_EQ(VELCLIENT_OK, velClient_session_sendMsg(s.h, m.h));
        ASSERT_NE(nullptr, inbox.kept);
        Msg kept(inbox.kept);
        velClient_int64_t expiration = 0, ttl = 0, received = 0;
        if (!calculate) {
            /* Without a time to live the expiration travels in the header map. */
            EXPECT_EQ(VELCLIENT_OK, velClient_msg_getExpiration(kept.h, &expiration));
            EXPECT_EQ(1234567, expiration);
            continue;
        }
        ASSERT_EQ(VELCLIENT_OK, velClient_msg_getExpiration(m.h, &expiration));
        ASSERT_EQ(VELCLIENT_OK, velClient_msg_getTimeToLive(kept.h, &ttl));
        EXPECT_EQ(60000, ttl);
        ASSERT_EQ(VELCLIENT_OK, velClient_msg_getRcvTimestamp(kept.h, &received));
        /* now + time-to-live, taken before the message was received */
        EXPECT_GT(expiration, received);
        EXPECT_LE(expiration, received + 60000);
    }
}

TEST(SessionSend, NullTransportDeliversNothing)
{
    const char *props[] = {"SESSION_TRANSPORT", "null", nullptr};
    Inbox inbox;
    Session s(props, &inbox);
    Msg m;
    EXPECT_EQ(VELCLIENT_OK, velClient_session_sendMsg(s.h, m.h));
    EXPECT_TRUE(inbox.senders.empty());
}

TEST(SessionSend, BadPropertiesAreRefusedByName)
{
    struct Case {
        const char *name;
        const char *value;
        std::string shown; /* the value as the text shows it, in full */
    };
    const std::string longName(251, 'n'), longBase(251, 'b');
    const Case cases[] = {
        {"SESSION_CLIENT_NAME", longName.c_str(), longName}, {"SESSION_P2P_TOPIC_BASE", longBase.c_str(), longBase},
        {"SESSION_P2P_TOPIC_BASE", nullptr, "(null)"},       {"SESSION_GENERATE_SENDER_ID", "yes", "yes"},
        {"SESSION_CALCULATE_MESSAGE_EXPIRATION", "", ""},    {"SESSION_TRANSPORT", "tcp", "tcp"},
        {"SESSION_COLOUR", "red", ""},
    };
    for (const Case &c : cases) {
        /* A good property first: the refusal of a later one still fails the whole call. */
        const char *props[] = {"SESSION_TRANSPORT", "null", c.name, c.value, nullptr};
        velClient_opaqueSession_pt s = nullptr;
        EXPECT_EQ(VELCLIENT_FAIL, velClient_session_create(props, nullptr, nullptr, &s)) << c.name;
        EXPECT_EQ(nullptr, s) << c.name;
        const std::string known = std::string("Invalid value for property ") + c.name +
                                  " in velClient_session_create: '" + c.shown + "'";
        const std::string unknown = std::string("Unknown property ") + c.name + " in velClient_session_create";
        /* the error record keeps the first 255 characters */
        EXPECT_LAST_ERROR(VELCLIENT_SUBCODE_PARAM_OUT_OF_RANGE,
                          (std::string(c.name) == "SESSION_COLOUR" ? unknown : known).substr(0, 255));
    }
}

/* Sending finalises the attachment and user property map in place, so their
 * handles stay the application's; encoding closes them. A guaranteed message
 * encoded outside any session carries message id 1. */
TEST(WireFormat, SendingKeepsOpenContainersWhereEncodingClosesThem)
{
    Inbox inbox;
    Session s(nullptr, &inbox);
    Msg m;
    velClient_opaqueContainer_pt props = nullptr, body = nullptr;
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setTopicPtr(m.h, "t"));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setDeliveryMode(m.h, VELCLIENT_DELIVERY_MODE_PERSISTENT));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_createUserPropertyMap(m.h, &props, 64));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_createBinaryAttachmentMap(m.h, &body, 64));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addInt32(props, 1, "p"));
    ASSERT_EQ(VELCLIENT_OK, velClient_session_sendMsg(s.h, m.h));
    Msg kept(inbox.kept);
    EXPECT_EQ(VELCLIENT_OK, velClient_container_addInt32(props, 2, "q"));
    EXPECT_EQ(VELCLIENT_OK, velClient_container_addInt32(body, 3, "b"));

    Msg r(nullptr);
    ASSERT_EQ(VELCLIENT_OK, decode(encode(m.h), &r.h));
    EXPECT_EQ(VELCLIENT_FAIL, velClient_container_addInt32(props, 4, "r"));
    EXPECT_EQ(VELCLIENT_FAIL, velClient_container_addInt32(body, 5, "c"));
    velClient_msgId_t id = 0;
    EXPECT_EQ(VELCLIENT_OK, velClient_msg_getMsgId(r.h, &id));
    EXPECT_EQ(1u, id);
    velClient_opaqueContainer_pt map = nullptr;
    velClient_int32_t value = 0;
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_getUserPropertyMap(r.h, &map));
    EXPECT_EQ(VELCLIENT_OK, velClient_container_getInt32(map, &value, "q"));
    EXPECT_EQ(2, value);
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_getBinaryAttachmentMap(r.h, &map));
    EXPECT_EQ(VELCLIENT_OK, velClient_container_getInt32(map, &value, "b"));
    EXPECT_EQ(3, value);
}
