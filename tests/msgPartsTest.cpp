/* Buffer parts, destinations, header properties and marks of a message. */
#include <cstring>
#include <string>

#include "support/velTestSupport.h"

using veltest::Msg;

namespace {

velClient_returnCode_t setDest(velClient_opaqueMsg_pt m, velClient_destinationType_t type, const char *text)
{
    velClient_destination_t d{type, text};
    return velClient_msg_setDestination(m, &d, sizeof d);
}

} // namespace

TEST(MessageParts, CopyAndReferenceSetters)
{
    Msg m;
    char app[] = "by-reference";
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setUserDataPtr(m.h, app, sizeof app));
    void *p = nullptr;
    velClient_uint32_t len = 0;
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_getUserDataPtr(m.h, &p, &len));
    EXPECT_EQ(static_cast<void *>(app), p);
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setUserData(m.h, app, sizeof app));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_getUserDataPtr(m.h, &p, &len));
    EXPECT_NE(static_cast<void *>(app), p);
    EXPECT_EQ(0, std::memcmp(p, app, sizeof app));
    /* Same size again: the block is reused in place. */
    void *first = p;
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setUserData(m.h, "BY-REFERENCE", sizeof app));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_getUserDataPtr(m.h, &p, &len));
    EXPECT_EQ(first, p);
    EXPECT_EQ(VELCLIENT_OK, velClient_msg_setUserData(m.h, nullptr, 0));
    p = &len;
    EXPECT_EQ(VELCLIENT_NOT_FOUND, velClient_msg_getUserDataPtr(m.h, &p, &len));
    EXPECT_EQ(static_cast<void *>(&len), p); /* outputs untouched */
}

TEST(MessageParts, APartSetFromItsOwnBytesKeepsThem)
{
    /* The application hands a part bytes it read from that same part, by
     * copy and by reference. The old block goes once the part changes, so
     * the bytes are taken first. The pool keeps nothing, so a freed block
     * goes back to the system at once. Sizes: a block filled exactly, and
     * smaller ones. */
    velClient_msg_setMaxPoolMem(0);
    std::string data(3000, ' ');
    for (std::size_t i = 0; i < data.size(); ++i)
        data[i] = static_cast<char>('a' + i % 26);
    auto attachment = [](velClient_opaqueMsg_pt m) {
        void *p = nullptr;
        velClient_uint32_t len = 0;
        EXPECT_EQ(VELCLIENT_OK, velClient_msg_getBinaryAttachmentPtr(m, &p, &len));
        return std::string(static_cast<const char *>(p), len);
    };
    for (velClient_uint32_t n : {256u, 2048u, 100u}) {
        veltest::Msg m;
        ASSERT_EQ(VELCLIENT_OK, velClient_msg_setBinaryAttachment(m.h, data.data(), n));
        void *own = nullptr;
        velClient_uint32_t len = 0;
        ASSERT_EQ(VELCLIENT_OK, velClient_msg_getBinaryAttachmentPtr(m.h, &own, &len));
        ASSERT_EQ(VELCLIENT_OK, velClient_msg_setBinaryAttachment(m.h, own, len));
        EXPECT_EQ(data.substr(0, n), attachment(m.h)) << n;
        ASSERT_EQ(VELCLIENT_OK, velClient_msg_getBinaryAttachmentPtr(m.h, &own, &len));
        ASSERT_EQ(VELCLIENT_OK, velClient_msg_setBinaryAttachmentPtr(m.h, static_cast<char *>(own) + 2, len - 2));
        EXPECT_EQ(data.substr(2, n - 2), attachment(m.h)) << n;
    }
    velClient_msg_setMaxPoolMem(64ull << 20);
}

TEST(MessageParts, TopicAndQueueNameExcludeEachOther)
{
    Msg m;
    std::string t250(250, 't');
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setTopicPtr(m.h, t250.c_str()));
    EXPECT_EQ(t250, m.destination().dest);
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setQueueNamePtr(m.h, "#P2P/QUE/v:abc/q1"));
    velClient_destination_t d = m.destination();
    EXPECT_EQ(VELCLIENT_QUEUE_DESTINATION, d.destType);
    EXPECT_STREQ("q1", d.dest);
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setQueueNamePtr(m.h, "#P2P/QTMP/x"));
    d = m.destination();
    EXPECT_EQ(VELCLIENT_QUEUE_TEMP_DESTINATION, d.destType);
    EXPECT_STREQ("#P2P/QTMP/x", d.dest);
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setTopicPtr(m.h, "back/to/topic"));
    EXPECT_EQ(VELCLIENT_TOPIC_DESTINATION, m.destination().destType);
}

TEST(MessageParts, BinaryAttachmentString)
{
    Msg m;
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setBinaryAttachmentString(m.h, "hi"));
    void *p = nullptr;
    velClient_uint32_t len = 0;
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_getBinaryAttachmentPtr(m.h, &p, &len));
    EXPECT_EQ(std::string("\x1F\x00\x00\x00\x08hi\x00", 8), std::string(static_cast<char *>(p), len));
    const char *text = nullptr;
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_getBinaryAttachmentString(m.h, &text));
    EXPECT_STREQ("hi", text);
    /* A one-byte-length string element works too; an inner NUL gives a null text. */
    const std::uint8_t inner[] = {0x1C, 0x05, 'a', 0x00, 0x00};
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setBinaryAttachment(m.h, inner, sizeof inner));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_getBinaryAttachmentString(m.h, &text));
    EXPECT_EQ(nullptr, text);
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setBinaryAttachment(m.h, "plain", 5));
    EXPECT_EQ(VELCLIENT_NOT_FOUND, velClient_msg_getBinaryAttachmentString(m.h, &text));
}

TEST(Destinations, EveryTypeAndItsReadingBack)
{
    Msg m;
    EXPECT_EQ(nullptr, m.destination(VELCLIENT_NOT_FOUND).dest);
    ASSERT_EQ(VELCLIENT_OK, setDest(m.h, VELCLIENT_QUEUE_DESTINATION, "#P2P/QUE/abc/q1"));
    velClient_destination_t d = m.destination();
    EXPECT_EQ(VELCLIENT_QUEUE_DESTINATION, d.destType);
    EXPECT_STREQ("q1", d.dest);
    ASSERT_EQ(VELCLIENT_OK, setDest(m.h, VELCLIENT_TOPIC_DESTINATION, "#P2P/QUE/q"));
    d = m.destination();
    EXPECT_EQ(VELCLIENT_QUEUE_DESTINATION, d.destType); /* read back from the topic text */
    EXPECT_STREQ("q", d.dest);
    ASSERT_EQ(VELCLIENT_OK, setDest(m.h, VELCLIENT_TOPIC_TEMP_DESTINATION, "#P2P/TTMP/t"));
    EXPECT_EQ(VELCLIENT_TOPIC_TEMP_DESTINATION, m.destination().destType);
    /* A temporary-queue name overrides the caller's type and says so. */
    velClient_destination_t override{VELCLIENT_TOPIC_DESTINATION, "#P2P/QTMP/x"};
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setDestination(m.h, &override, sizeof override));
    EXPECT_EQ(VELCLIENT_QUEUE_TEMP_DESTINATION, override.destType);
    /* Type 3 without the prefix reads back as a plain queue. */
    ASSERT_EQ(VELCLIENT_OK, setDest(m.h, VELCLIENT_QUEUE_TEMP_DESTINATION, "tq"));
    EXPECT_EQ(VELCLIENT_QUEUE_DESTINATION, m.destination().destType);
    /* The limits themselves: a named temporary queue keeps the topic limit. */
    const std::string q200(200, 'q'), tmp = "#P2P/QTMP/" + std::string(240, 'q');
    ASSERT_EQ(VELCLIENT_OK, setDest(m.h, VELCLIENT_QUEUE_TEMP_DESTINATION, tmp.c_str()));
    d = m.destination();
    EXPECT_EQ(VELCLIENT_QUEUE_TEMP_DESTINATION, d.destType);
    EXPECT_EQ(tmp, d.dest);
    ASSERT_EQ(VELCLIENT_OK, setDest(m.h, VELCLIENT_QUEUE_DESTINATION, q200.c_str()));
    EXPECT_EQ(q200, m.destination().dest);
    ASSERT_EQ(VELCLIENT_OK, setDest(m.h, VELCLIENT_NULL_DESTINATION, nullptr));
    m.destination(VELCLIENT_NOT_FOUND);
}

TEST(HeaderProperties, RangesAndReadBack)
{
    Msg m;
    velClient_uint32_t v = 0;
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setClassOfService(m.h, 2));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_getClassOfService(m.h, &v));
    EXPECT_EQ(2u, v);
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setDeliveryMode(m.h, 0x20 | 0x40)); /* extra bits land in the flags */
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_getDeliveryMode(m.h, &v));
    EXPECT_EQ(0x20u, v);
    EXPECT_EQ(1, velClient_msg_isDeliverToOne(m.h));
    velClient_int64_t ttl = 0;
    EXPECT_EQ(VELCLIENT_OK, velClient_msg_setTimeToLive(m.h, 315360000000LL));
    EXPECT_EQ(VELCLIENT_FAIL, velClient_msg_setTimeToLive(m.h, 315360000001LL));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_getTimeToLive(m.h, &ttl));
    EXPECT_EQ(315360000000LL, ttl);
}

TEST(HeaderProperties, AFreshMessageHasNoReceivedValues)
{
    Msg m;
    velClient_int64_t v = 7;
    velClient_uint64_t u = 7;
    velClient_msgId_t id = 7;
    EXPECT_EQ(VELCLIENT_NOT_FOUND, velClient_msg_getTopicSequenceNumber(m.h, &v));
    EXPECT_EQ(0, v);
    EXPECT_EQ(VELCLIENT_NOT_FOUND, velClient_msg_getCacheRequestId(m.h, &u));
    EXPECT_EQ(0u, u);
    EXPECT_EQ(VELCLIENT_NOT_FOUND, velClient_msg_getMsgId(m.h, &id));
    EXPECT_EQ(0u, id);
    v = 7;
    EXPECT_EQ(VELCLIENT_NOT_FOUND, velClient_msg_getRcvTimestamp(m.h, &v));
    EXPECT_EQ(0, v);
    EXPECT_EQ(VELCLIENT_OK, velClient_msg_getExpiration(m.h, &v));
    EXPECT_EQ(0, v);
    EXPECT_EQ(VELCLIENT_CACHE_LIVE_MESSAGE, velClient_msg_isCacheMsg(m.h));
    velClient_cleanup(); /* without a started library the cache status is unknown */
    EXPECT_EQ(VELCLIENT_CACHE_INVALID_MESSAGE, velClient_msg_isCacheMsg(m.h));
    ASSERT_EQ(VELCLIENT_OK, velClient_initialize(VELCLIENT_LOG_EMERGENCY, nullptr));
    EXPECT_EQ(0, velClient_msg_isRedelivered(m.h));
}

TEST(HeaderProperties, StrictAndLenientMarks)
{
    Msg m;
    EXPECT_EQ(VELCLIENT_FAIL, velClient_msg_setDMQEligible(m.h, 2)); /* strict: refused, nothing set */
    EXPECT_EQ(0, velClient_msg_isDMQEligible(m.h));
    EXPECT_EQ(VELCLIENT_OK, velClient_msg_setElidingEligible(m.h, 0x80));
    EXPECT_EQ(1, velClient_msg_isElidingEligible(m.h));
    EXPECT_EQ(VELCLIENT_OK, velClient_msg_setAckImmediately(m.h, 3));
    EXPECT_EQ(1, velClient_msg_isAckImmediately(m.h));
    EXPECT_EQ(VELCLIENT_OK, velClient_msg_setAckImmediately(m.h, 0));
    EXPECT_EQ(0, velClient_msg_isAckImmediately(m.h));
    EXPECT_EQ(VELCLIENT_OK, velClient_msg_setDMQEligible(m.h, 1));
    EXPECT_EQ(1, velClient_msg_isDMQEligible(m.h));
}

TEST(MessageParts, PlainQueueNamesNullsAndAttachmentEdges)
{
    Msg m;
    /* A queue name without its network prefix gets the prefix part set for it. */
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setQueueNamePtr(m.h, "orders"));
    velClient_destination_t d = m.destination();
    EXPECT_EQ(VELCLIENT_QUEUE_DESTINATION, d.destType);
    EXPECT_STREQ("orders", d.dest);
    /* NULL empties: first the queue name, then the topic. */
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setQueueNamePtr(m.h, nullptr));
    velClient_destination_t none{};
    EXPECT_EQ(VELCLIENT_NOT_FOUND, velClient_msg_getDestination(m.h, &none, sizeof none));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setTopicPtr(m.h, "t"));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setTopicPtr(m.h, nullptr));
    EXPECT_EQ(VELCLIENT_NOT_FOUND, velClient_msg_getDestination(m.h, &none, sizeof none));

    /* Replacing the attachment closes the map open on it. */
    velClient_opaqueContainer_pt map = nullptr;
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_createBinaryAttachmentMap(m.h, &map, 16));
    static char raw[] = "raw";
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setBinaryAttachmentPtr(m.h, raw, 3));
    EXPECT_EQ(VELCLIENT_FAIL, velClient_container_rewind(map));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_createBinaryAttachmentMap(m.h, &map, 16));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setBinaryAttachmentString(m.h, nullptr)); /* an empty string element */
    EXPECT_EQ(VELCLIENT_FAIL, velClient_container_rewind(map));
    const char *text = nullptr;
    /* A string element cut before its length field ends is no string. */
    const std::uint8_t cut[] = {0x1F, 0x00};
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setBinaryAttachment(m.h, cut, sizeof cut));
    EXPECT_EQ(VELCLIENT_NOT_FOUND, velClient_msg_getBinaryAttachmentString(m.h, &text));

}

TEST(DataBlocks, ExtractClosesTheMapOpenOnThePart)
{
    Msg m;
    velClient_opaqueDatablock_pt db = nullptr;
    velClient_bufInfo_t info{};
    /* The user property map open on its part is closed before its block is taken. */
    velClient_opaqueContainer_pt props = nullptr;
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_createUserPropertyMap(m.h, &props, 16));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addInt8(props, 1, "p"));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_extractDatablock(m.h, VELCLIENT_BUFINFO_USER_PROPERTY_PART, &db, &info));
    EXPECT_EQ(VELCLIENT_FAIL, velClient_container_rewind(props));
    /* The block holds the finalised map behind its 4 reserved key bytes. */
    const auto *bytes = static_cast<const std::uint8_t *>(info.buf_p);
    ASSERT_GE(info.bufSize, 9u);
    EXPECT_EQ(0x2B, bytes[4]);
    EXPECT_EQ(info.bufSize - 4, static_cast<velClient_uint32_t>(bytes[5] << 24 | bytes[6] << 16 | bytes[7] << 8 | bytes[8]));
    velClient_datablock_free(&db);
}
