/* Encoding messages to wire frames and back, and sending them on loopback
 * and null sessions. */
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "support/velTestSupport.h"

using veltest::Bytes;
using veltest::decode;
using veltest::encode;
using veltest::frame;
using veltest::item;
using veltest::Msg;

TEST(WireFormat, DecodeRefusesMalformedInput)
{
    const Bytes good = frame(13, 0, item(0x11, {'t', 0}));
    Bytes badVersion = good, reserved = good;
    badVersion[0] = 2;
    reserved[11] = 1;
    const Bytes number(8, 0);
    /* The frame-level faults; two frames or trailing bytes only fail. An
     * item's fault names the item's first byte (the first item is at 12). */
    const std::pair<Bytes, const char *> cases[] = {
        {veltest::cat(good, good), nullptr},
        {veltest::cat(good, {0}), nullptr},
        {badVersion, "unknown version at byte 0"},
        {Bytes(good.begin(), good.end() - 1), "bad frame length at byte 0"},
        {reserved, "reserved bytes set at byte 0"},
        {frame(13, 0, Bytes{0x13, 0, 0, 0, 9, 1}), "item past frame end at byte 12"},
        {frame(13, 0, veltest::cat(item(0x13, {1}), item(0x13, {2}))), "repeated item at byte 18"},
        {frame(13, 0, veltest::cat(item(0x01, number), item(0x01, number))), "repeated item at byte 25"},
        {frame(13, 0, item(0x01, {1, 2})), "bad number length at byte 12"},
        {frame(13, 0, item(0x11, {'x'})), "bad part at byte 12"}, /* topic without NUL */
        {frame(13, 0, item(0x16, {0})), "bad part at byte 12"},   /* queue name without a character */
        {frame(13, 0, item(0x13, {})), "bad part at byte 12"},    /* empty part */
        {frame(13, 0, item(0x12, {1, 2, 3})), "bad part at byte 12"}, /* consumer ids not in 4s */
        {frame(13, 0, item(0x7F, {'x'})), "unknown item at byte 12"},
        {frame(13, 0, veltest::cat(item(0x17, {'x'}), item(0x17, {'x'}))), "unknown item at byte 12"},
        {frame(13, 0, veltest::cat(item(0x13, {1}), item(0xF3, {1}))), "unknown item at byte 18"},
        {frame(13, 0x4, {}), nullptr}, /* no application message */
    };
    velClient_opaqueMsg_pt msg = nullptr;
    for (std::size_t i = 0; i < std::size(cases); ++i) {
        SCOPED_TRACE(i);
        const auto &[bad, fault] = cases[i];
        velClient_resetLastErrorInfo();
        msg = reinterpret_cast<velClient_opaqueMsg_pt>(1);
        EXPECT_EQ(VELCLIENT_FAIL, decode(bad, &msg));
        EXPECT_EQ(nullptr, msg);
        EXPECT_TRUE(i < 2 || veltest::lastSubCode() == VELCLIENT_SUBCODE_INVALID_VWF_MESSAGE);
        if (fault != nullptr) {
            EXPECT_EQ(std::string("Invalid VWF frame (").append(fault).append(") in _velClient_vwfParse"),
                      veltest::lastErrorText());
        }
    }
    EXPECT_EQ(VELCLIENT_FAIL, decode(frame(5, 0, {}), &msg));
    EXPECT_LAST_ERROR(VELCLIENT_SUBCODE_INVALID_VWF_MESSAGE,
                      "Invalid VWF message for raw vwf transmission on session 'parserSession'");
    EXPECT_EQ(VELCLIENT_OK, decode(frame(16, 0x10, {}), &msg));
    velClient_msg_free(&msg);
    EXPECT_EQ(0u, veltest::stat(VELCLIENT_MSG_STATS_ALLOC_MSGS));
}

namespace {

struct Inbox {
    std::vector<std::string> senders;
    std::vector<long long> sequence, expiration;
    int resendsLeft = 0;
    velClient_opaqueMsg_pt kept = nullptr;
};

velClient_rxMsgCallback_returnCode_t collect(velClient_opaqueSession_pt session, velClient_opaqueMsg_pt msg, void *user)
{
    auto *inbox = static_cast<Inbox *>(user);
    const char *sender = nullptr;
    velClient_int64_t seq = -1, expiration = -1;
    velClient_msg_getSenderId(msg, &sender);
    velClient_msg_getSequenceNumber(msg, &seq);
    velClient_msg_getExpiration(msg, &expiration);
    inbox->senders.emplace_back(sender != nullptr ? sender : "");
    inbox->sequence.push_back(seq);
    inbox->expiration.push_back(expiration);
    EXPECT_TRUE(inbox->resendsLeft-- <= 0 || velClient_session_sendMsg(session, msg) == VELCLIENT_OK);
    if (inbox->kept != nullptr)
        return VELCLIENT_CALLBACK_OK;
    inbox->kept = msg;
    return VELCLIENT_CALLBACK_TAKE_MSG;
}

/* A session delivering to an inbox; the first message received is kept and freed with it. */
struct Session {
    Inbox inbox;
    velClient_opaqueSession_pt h = nullptr;
    explicit Session(std::vector<const char *> props)
    {
        props.push_back(nullptr);
        EXPECT_EQ(VELCLIENT_OK, velClient_session_create(props.data(), collect, &inbox, &h));
    }
    ~Session()
    {
        velClient_session_destroy(&h);
        velClient_msg_free(&inbox.kept);
    }
};

} // namespace

/* The sequence number's place in the header map is reserved before the
 * expiration and the metadata are written; both may grow the map into a new
 * block or move the entry. Sender ids of every length around the point where
 * the header map's first block fills make each send cross it at some step;
 * each message is sent twice, so the second send also deletes and re-adds
 * entries in front of the reserved one. The expiration travels as it was set. */
TEST(SessionSend, TheSequenceNumberLandsInTheHeaderMapWhateverMovedIt)
{
    const veltest::LiveCounts before;
    Inbox expected;
    {
        Session s({"SESSION_GENERATE_SEQUENCE_NUMBER", "1", "SESSION_CLIENT_NAME", "mover"});
        for (std::size_t length = 150; length <= 300; ++length) {
            Msg m;
            const std::string sender(length, 's');
            const long long expiration = 1700000000000 + static_cast<long long>(length);
            ASSERT_EQ(VELCLIENT_OK, velClient_msg_setSenderId(m.h, sender.c_str()));
            ASSERT_EQ(VELCLIENT_OK, velClient_msg_setExpiration(m.h, expiration));
            for (int send = 0; send < 2; ++send) {
                ASSERT_EQ(VELCLIENT_OK, velClient_session_sendMsg(s.h, m.h)) << length;
                expected.senders.push_back(sender);
                expected.sequence.push_back(static_cast<long long>(expected.sequence.size()) + 1);
                expected.expiration.push_back(expiration);
            }
        }
        EXPECT_EQ(expected.sequence, s.inbox.sequence);
        EXPECT_EQ(expected.expiration, s.inbox.expiration);
        EXPECT_TRUE(expected.senders == s.inbox.senders);
    }
    before.expectBalanced();
}

/* The default client name is host/pid/nnnnn, the count one higher for each
 * session made, and a name given is the sender id generated unless the
 * message has its own; an expiration is computed from the time-to-live at send. */
TEST(SessionSend, TheDefaultClientNameCountsSessionsAndExpirationIsComputed)
{
    Session a({"SESSION_GENERATE_SENDER_ID", "1", "SESSION_CALCULATE_MESSAGE_EXPIRATION", "1"}),
        b({"SESSION_GENERATE_SENDER_ID", "1"});
    Msg m;
    velClient_int64_t expiration = 0, received = 0;
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setTimeToLive(m.h, 60000));
    ASSERT_EQ(VELCLIENT_OK, velClient_session_sendMsg(a.h, m.h));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_getExpiration(m.h, &expiration));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_deleteSenderId(m.h));
    ASSERT_EQ(VELCLIENT_OK, velClient_session_sendMsg(b.h, m.h));
    Session named({"SESSION_CLIENT_NAME", "client-a", "SESSION_GENERATE_SENDER_ID", "1"});
    named.inbox.resendsLeft = 1; /* a callback may send again on the same session */
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_deleteSenderId(m.h));
    ASSERT_EQ(VELCLIENT_OK, velClient_session_sendMsg(named.h, m.h));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setSenderId(m.h, "mine")); /* an application's own id is kept */
    ASSERT_EQ(VELCLIENT_OK, velClient_session_sendMsg(named.h, m.h));
    EXPECT_EQ((std::vector<std::string>{"client-a", "client-a", "mine"}), named.inbox.senders);
    std::string pid = "/";
    pid.append(std::to_string(getpid())).append("/");
    const std::string &x = a.inbox.senders.at(0), &y = b.inbox.senders.at(0);
    ASSERT_NE(std::string::npos, x.find(pid)) << x;
    const std::string nx = x.substr(x.find(pid) + pid.size()), ny = y.substr(y.find(pid) + pid.size());
    EXPECT_GE(nx.size(), 5u) << x; /* at least five digits, zero-padded */
    EXPECT_EQ(std::stoul(nx) + 1, std::stoul(ny)) << x << " " << y;
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_getRcvTimestamp(a.inbox.kept, &received));
    EXPECT_GT(expiration, received); /* now + time-to-live, taken before the message was received */
    EXPECT_LE(expiration, received + 60000);
}

/* Sending finalises the attachment and user property map in place, so their
 * handles stay the application's; encoding closes them. A guaranteed message
 * encoded outside any session carries message id 1. A changed message gets a
 * new image; the one the caller holds keeps its bytes. */
TEST(WireFormat, SendingKeepsOpenContainersWhereEncodingClosesThem)
{
    Session s({});
    Msg m;
    velClient_opaqueContainer_pt props = nullptr, body = nullptr;
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setTopicPtr(m.h, "t"));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setDeliveryMode(m.h, VELCLIENT_DELIVERY_MODE_PERSISTENT));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_createUserPropertyMap(m.h, &props, 64));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_createBinaryAttachmentMap(m.h, &body, 64));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addInt32(props, 1, "p"));
    ASSERT_EQ(VELCLIENT_OK, velClient_session_sendMsg(s.h, m.h));
    ASSERT_NE(nullptr, s.inbox.kept);
    EXPECT_EQ(VELCLIENT_OK, velClient_container_addInt32(props, 2, "q"));
    EXPECT_EQ(VELCLIENT_OK, velClient_container_addInt32(body, 3, "b"));

    Msg r(nullptr);
    ASSERT_EQ(VELCLIENT_OK, decode(encode(m.h), &r.h));
    EXPECT_EQ(VELCLIENT_FAIL, velClient_container_addInt32(props, 4, "r"));
    EXPECT_EQ(VELCLIENT_FAIL, velClient_container_addInt32(body, 5, "c"));
    velClient_msgId_t id = 0;
    EXPECT_EQ(VELCLIENT_OK, velClient_msg_getMsgId(r.h, &id));
    EXPECT_EQ(1u, id);
    const std::string text = r.dump(); /* what was added after the send travels */
    EXPECT_NE(std::string::npos, text.find("Key 'q' (INT32) 2")) << text;
    EXPECT_NE(std::string::npos, text.find("Key 'b' (INT32) 3")) << text;
    /* A new image never overwrites one the caller still holds. */
    velClient_bufInfo_t held{};
    velClient_opaqueDatablock_pt heldBlock = nullptr;
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_encodeToVWF(m.h, &held, &heldBlock));
    const Bytes before = veltest::bytesAt(held.buf_p, held.bufSize);
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setTopicPtr(m.h, "u"));
    EXPECT_NE(before, encode(m.h));
    EXPECT_EQ(before, veltest::bytesAt(held.buf_p, held.bufSize));
    velClient_datablock_free(&heldBlock);
}

/* Re-encoding a message whose image nobody else holds gives the same pool
 * statistics as releasing the old image and taking a new block: the image is
 * written over the old one when the class its new size asks for is the same. */
TEST(WireFormat, ReEncodingKeepsTheImageInTheClassOfItsSize)
{
    Msg m;
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setTopicPtr(m.h, "a/b"));
    const veltest::LiveCounts base;
    velClient_uint8_t *previous = nullptr;
    std::uint32_t previousClass = 6;
    const std::pair<velClient_uint32_t, std::uint32_t> rows[] = { /* attachment by reference, class of the image */
        {100, 0}, {1000, 1}, {2022, 1}, {2023, 2}, {3000, 2}, {200, 0}, {1000, 1}, {100, 0}};
    for (const auto &[size, imageClass] : rows) {
        Bytes body(size, static_cast<std::uint8_t>(size));
        ASSERT_EQ(VELCLIENT_OK, velClient_msg_setBinaryAttachmentPtr(m.h, body.data(), size));
        const Bytes image = encode(m.h); /* the caller's reference is dropped at once */
        ASSERT_EQ(26 + size, image.size());
        EXPECT_TRUE(std::equal(body.begin(), body.end(), image.end() - size)) << size;
        velClient_uint8_t *at = nullptr;
        velClient_uint32_t length = 0;
        ASSERT_EQ(VELCLIENT_OK, velClient_msg_getVWFPtr(m.h, &at, &length));
        EXPECT_EQ(imageClass == previousClass, at == previous) << size; /* in place when the class stays */
        previous = at;
        previousClass = imageClass;
        const veltest::LiveCounts now;
        for (std::uint32_t q = 0; q < 6; ++q)
            EXPECT_EQ(base.blocks[q] + (q == imageClass), now.blocks[q]) << size << " bytes, class " << q;
    }
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setBinaryAttachment(m.h, "\1\2\3", 3)); /* the documented example */
    EXPECT_EQ((Bytes{1, 0x0D, 0, 0, 0, 0, 0, 0, 0, 0x1D, 0, 0, 0x11, 0, 0, 0, 4, 'a', '/', 'b', 0, 0x10, 0, 0, 0, 3, 1, 2, 3}),
              encode(m.h));
}
