/* Buffer parts, destinations, header properties and marks of a message, and
 * attachments set by reference from bytes that move or that the application owns. */
#include <cstring>
#include <string>
#include <vector>

#include "support/velTestSupport.h"

using veltest::Msg;

namespace {

std::string part(velClient_opaqueMsg_pt m, bool attachment = true, void **at = nullptr)
{
    void *p = nullptr;
    velClient_uint32_t len = 0;
    EXPECT_EQ(VELCLIENT_OK, attachment ? velClient_msg_getBinaryAttachmentPtr(m, &p, &len)
                                       : velClient_msg_getUserDataPtr(m, &p, &len));
    if (at != nullptr)
        *at = p;
    return std::string(static_cast<const char *>(p), len);
}

} // namespace

TEST(MessageParts, SettersByCopyAndByReferenceAndTheAttachmentAsAString)
{
    Msg m;
    char app[] = "by-reference";
    void *p = nullptr, *first = nullptr;
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setUserDataPtr(m.h, app, sizeof app));
    part(m.h, false, &p);
    EXPECT_EQ(static_cast<void *>(app), p);
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setUserData(m.h, app, sizeof app));
    EXPECT_EQ(std::string(app, sizeof app), part(m.h, false, &first));
    EXPECT_NE(static_cast<void *>(app), first);
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setUserData(m.h, "BY-REFERENCE", sizeof app)); /* same size: in place */
    part(m.h, false, &p);
    EXPECT_EQ(first, p);
    EXPECT_EQ(VELCLIENT_OK, velClient_msg_setUserData(m.h, nullptr, 0));
    velClient_uint32_t len = 3;
    p = &len;
    EXPECT_EQ(VELCLIENT_NOT_FOUND, velClient_msg_getUserDataPtr(m.h, &p, &len));
    EXPECT_TRUE(p == &len && len == 3); /* outputs untouched */
    /* The attachment as a string. */
    const char *text = nullptr;
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setBinaryAttachmentString(m.h, "hi"));
    EXPECT_EQ(std::string("\x1F\x00\x00\x00\x08hi\x00", 8), part(m.h));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_getBinaryAttachmentString(m.h, &text));
    EXPECT_STREQ("hi", text);
    const std::pair<std::string, velClient_returnCode_t> rows[] = {
        {std::string("\x1C\x05" "a\0\0", 5), VELCLIENT_OK}, /* a one-byte length; the inner NUL gives a null text */
        {"plain", VELCLIENT_NOT_FOUND},
        {std::string("\x1F\x00", 2), VELCLIENT_NOT_FOUND}}; /* cut before its length field ends */
    for (const auto &[bytes, rc] : rows) {
        text = "unchanged";
        ASSERT_EQ(VELCLIENT_OK, velClient_msg_setBinaryAttachment(m.h, bytes.data(), static_cast<velClient_uint32_t>(bytes.size())));
        EXPECT_EQ(rc, velClient_msg_getBinaryAttachmentString(m.h, &text)) << bytes;
        EXPECT_TRUE(rc != VELCLIENT_OK || text == nullptr);
    }
    velClient_opaqueContainer_pt map = nullptr; /* replacing the attachment closes the map open on it */
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_createBinaryAttachmentMap(m.h, &map, 16));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setBinaryAttachmentString(m.h, nullptr));
    EXPECT_EQ(VELCLIENT_FAIL, velClient_container_rewind(map));
    /* The old block goes once the part changes, so the bytes are taken first;
     * with nothing pooled a freed block goes back to the system at once. */
    velClient_msg_setMaxPoolMem(0);
    std::string data(3000, ' ');
    for (std::size_t i = 0; i < data.size(); ++i)
        data[i] = static_cast<char>('a' + i % 26);
    for (velClient_uint32_t n : {256u, 2048u, 100u}) { /* a block filled exactly, and smaller ones */
        Msg o;
        void *own = nullptr;
        ASSERT_EQ(VELCLIENT_OK, velClient_msg_setBinaryAttachment(o.h, data.data(), n));
        part(o.h, true, &own);
        ASSERT_EQ(VELCLIENT_OK, velClient_msg_setBinaryAttachment(o.h, own, n));
        EXPECT_EQ(data.substr(0, n), part(o.h, true, &own)) << n;
        ASSERT_EQ(VELCLIENT_OK, velClient_msg_setBinaryAttachmentPtr(o.h, static_cast<char *>(own) + 2, n - 2));
        EXPECT_EQ(data.substr(2, n - 2), part(o.h)) << n;
    }
    velClient_msg_setMaxPoolMem(veltest::kDefaultPoolLimit);
}

TEST(MessageParts, CopiesOfEveryLengthAroundTheShortMovesReadBackIntact)
{
    /* Short copies are made of overlapping moves of 8 to 64 bytes: every
     * length up to past a block's capacity, from a source that starts at an
     * odd address, comes back byte for byte, and so does a topic of every
     * length (its text ends at the NUL written after it). */
    std::string source(300, '\0');
    for (std::size_t i = 0; i < source.size(); ++i)
        source[i] = static_cast<char>(i * 7 + 3);
    const std::string letters(251, 'x');
    for (velClient_uint32_t n = 1; n <= 260; ++n) {
        SCOPED_TRACE(n);
        Msg m;
        const char *from = source.data() + 1 + n % 5; /* 1 to 5 bytes past the string's aligned start */
        ASSERT_EQ(VELCLIENT_OK, velClient_msg_setBinaryAttachment(m.h, from, n));
        EXPECT_EQ(std::string(from, n), part(m.h));
        if (n > 250)
            continue;
        std::string topic = letters.substr(0, n);
        topic[n - 1] = 'z';
        velClient_destination_t d{VELCLIENT_TOPIC_DESTINATION, topic.c_str()};
        ASSERT_EQ(VELCLIENT_OK, velClient_msg_setDestination(m.h, &d, sizeof d));
        EXPECT_STREQ(topic.c_str(), m.destination().dest);
    }
}

TEST(MessageProperties, DestinationsRangesMarksAndAbsentReceivedValues)
{
    const std::string t250(250, 't'), q200(200, 'q'), tmp = "#P2P/QTMP/" + std::string(240, 'q');
    const int TOPIC = -11, QUEUE = -12, NONE = -13; /* set by topic or queue name; otherwise by type */
    const int T = VELCLIENT_TOPIC_DESTINATION, Q = VELCLIENT_QUEUE_DESTINATION, TT = VELCLIENT_TOPIC_TEMP_DESTINATION,
              QT = VELCLIENT_QUEUE_TEMP_DESTINATION;
    const struct {
        int how;
        const char *text;
        int readType;
        const char *readText;
    } rows[] = {
        {TOPIC, t250.c_str(), T, t250.c_str()}, {QUEUE, "#P2P/QUE/v:abc/q1", Q, "q1"}, /* a queue replaces the topic */
        {QUEUE, "#P2P/QTMP/x", QT, "#P2P/QTMP/x"}, {TOPIC, "back/to/topic", T, "back/to/topic"},
        {QUEUE, "orders", Q, "orders"} /* its network prefix is set for it */, {QUEUE, nullptr, NONE, nullptr},
        {TOPIC, "t", T, "t"}, {TOPIC, nullptr, NONE, nullptr}, {Q, "#P2P/QUE/abc/q1", Q, "q1"},
        {T, "#P2P/QUE/q", Q, "q"} /* read from the text */, {TT, "#P2P/TTMP/t", TT, "#P2P/TTMP/t"},
        {QT, "tq", Q, "tq"} /* no prefix: a queue */, {QT, tmp.c_str(), QT, tmp.c_str()}, {Q, q200.c_str(), Q, q200.c_str()},
        {VELCLIENT_NULL_DESTINATION, nullptr, NONE, nullptr}};
    Msg m;
    EXPECT_EQ(nullptr, m.destination(VELCLIENT_NOT_FOUND).dest);
    for (const auto &r : rows) {
        SCOPED_TRACE(&r - rows);
        velClient_destination_t d{static_cast<velClient_destinationType_t>(r.how), r.text};
        ASSERT_EQ(VELCLIENT_OK, r.how == TOPIC   ? velClient_msg_setTopicPtr(m.h, r.text)
                                : r.how == QUEUE ? velClient_msg_setQueueNamePtr(m.h, r.text)
                                                 : velClient_msg_setDestination(m.h, &d, sizeof d));
        d = m.destination(r.readText ? VELCLIENT_OK : VELCLIENT_NOT_FOUND);
        EXPECT_EQ(r.readType, r.readText ? static_cast<int>(d.destType) : NONE);
        EXPECT_STREQ(r.readText, r.readText ? d.dest : nullptr);
    }
    /* A temporary-queue name overrides the caller's type and says so. */
    velClient_destination_t override{VELCLIENT_TOPIC_DESTINATION, "#P2P/QTMP/x"};
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setDestination(m.h, &override, sizeof override));
    EXPECT_EQ(VELCLIENT_QUEUE_TEMP_DESTINATION, override.destType);
    /* Header properties: ranges and marks, and the received values a fresh message lacks. */
    velClient_uint32_t v = 0;
    velClient_int64_t ttl = 0;
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setDeliveryMode(m.h, 0x20 | 0x40)); /* extra bits land in the flags */
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_getDeliveryMode(m.h, &v));
    EXPECT_EQ(0x20u, v);
    EXPECT_EQ(1, velClient_msg_isDeliverToOne(m.h));
    EXPECT_EQ(VELCLIENT_OK, velClient_msg_setTimeToLive(m.h, 315360000000LL));
    EXPECT_EQ(VELCLIENT_FAIL, velClient_msg_setTimeToLive(m.h, 315360000001LL));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_getTimeToLive(m.h, &ttl));
    EXPECT_EQ(315360000000LL, ttl);
    /* Strict marks refuse other values and set nothing; lenient ones take any non-zero as set. */
    EXPECT_EQ(VELCLIENT_FAIL, velClient_msg_setDMQEligible(m.h, 2));
    EXPECT_EQ(0, velClient_msg_isDMQEligible(m.h));
    EXPECT_EQ(VELCLIENT_OK, velClient_msg_setElidingEligible(m.h, 0x80));
    EXPECT_EQ(1, velClient_msg_isElidingEligible(m.h));
    EXPECT_EQ(VELCLIENT_OK, velClient_msg_setAckImmediately(m.h, 3));
    EXPECT_EQ(1, velClient_msg_isAckImmediately(m.h));
    EXPECT_EQ(VELCLIENT_OK, velClient_msg_setAckImmediately(m.h, 0));
    EXPECT_EQ(0, velClient_msg_isAckImmediately(m.h));

    /* A fresh message: received values absent and zeroed, a zero expiration present. */
    Msg f;
    velClient_int64_t i[3] = {7, 7, 7};
    velClient_uint64_t u = 7;
    velClient_msgId_t id = 7;
    EXPECT_EQ(VELCLIENT_NOT_FOUND, velClient_msg_getTopicSequenceNumber(f.h, &i[0]));
    EXPECT_EQ(VELCLIENT_NOT_FOUND, velClient_msg_getRcvTimestamp(f.h, &i[1]));
    EXPECT_EQ(VELCLIENT_OK, velClient_msg_getExpiration(f.h, &i[2]));
    EXPECT_EQ(VELCLIENT_NOT_FOUND, velClient_msg_getCacheRequestId(f.h, &u));
    EXPECT_EQ(VELCLIENT_NOT_FOUND, velClient_msg_getMsgId(f.h, &id));
    EXPECT_TRUE(i[0] == 0 && i[1] == 0 && i[2] == 0 && u == 0 && id == 0);
    EXPECT_EQ(0, velClient_msg_isRedelivered(f.h));
    EXPECT_EQ(VELCLIENT_CACHE_LIVE_MESSAGE, velClient_msg_isCacheMsg(f.h));
    velClient_cleanup(); /* without a started library the cache status is unknown */
    EXPECT_EQ(VELCLIENT_CACHE_INVALID_MESSAGE, velClient_msg_isCacheMsg(f.h));
    ASSERT_EQ(VELCLIENT_OK, velClient_initialize(VELCLIENT_LOG_EMERGENCY, nullptr));
}
