/* The private header map, the user property map, the binary metadata header
 * that carries them, and the structured binary attachment. */
#include <functional>
#include <iterator>
#include <string>

#include "support/velTestSupport.h"

using veltest::Bytes;
using veltest::encode;
using veltest::Msg;

namespace {

/* The value of the metadata item (tag 0x18) of an encoded frame, or empty. */
Bytes metadataItem(const Bytes &frame)
{
    for (std::size_t at = 12; at + 5 <= frame.size();) {
        std::size_t len = (std::size_t{frame[at + 1]} << 24) | (frame[at + 2] << 16) | (frame[at + 3] << 8) | frame[at + 4];
        if (frame[at] == 0x18)
            return Bytes(frame.begin() + static_cast<std::ptrdiff_t>(at + 5),
                         frame.begin() + static_cast<std::ptrdiff_t>(at + 5 + len));
        at += 5 + len;
    }
    return {};
}

velClient_opaqueMsg_pt receiveWithMetadata(const Bytes &meta)
{
    return veltest::received(veltest::item(0x18, meta));
}

/* 19-byte header (lengths for entries of n bytes) followed by the entries,
 * copied into a vector of the final size (inserting them after a header built
 * first makes GCC 12 at -O3 report an out-of-bounds memcpy that cannot occur). */
Bytes metadata(const Bytes &entries, std::uint8_t first = 0x01)
{
    auto n = static_cast<std::uint32_t>(entries.size());
    const std::uint8_t header[] = {first, 0, 0, 0, static_cast<std::uint8_t>(n + 14), 0x2F, 0, 0, 0,
                                   static_cast<std::uint8_t>(n + 14), 0x18, 4, 0x80, 0, 0x2B, 0, 0, 0,
                                   static_cast<std::uint8_t>(n + 5)};
    Bytes m(sizeof header + entries.size());
    std::copy(entries.begin(), entries.end(), std::copy(std::begin(header), std::end(header), m.begin()));
    return m;
}

} // namespace

TEST(HeaderMap, APropertySetFromATextOfTheSameHeaderMapKeepsIt)
{
    /* Setting a property deletes its old entry first, which moves the
     * entries after it; a value read from the same header map must be taken
     * before that. */
    velClient_msg_setMaxPoolMem(0);
    veltest::Msg m;
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setCorrelationId(m.h, "correlation-one"));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setSenderId(m.h, "the-sender-of-it-all"));
    const char *text = nullptr;
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_getSenderId(m.h, &text));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setCorrelationId(m.h, text));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_getCorrelationId(m.h, &text));
    EXPECT_STREQ("the-sender-of-it-all", text);
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setSenderId(m.h, text)); /* its own text, too */
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_getSenderId(m.h, &text));
    EXPECT_STREQ("the-sender-of-it-all", text);
    velClient_destination_t replyTo{VELCLIENT_TOPIC_DESTINATION, "reply/to/this/topic"};
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setReplyTo(m.h, &replyTo, sizeof replyTo));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setApplicationMsgType(m.h, "a-type-set-after-it"));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_getReplyTo(m.h, &replyTo, sizeof replyTo));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setReplyTo(m.h, &replyTo, sizeof replyTo));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_getReplyTo(m.h, &replyTo, sizeof replyTo));
    EXPECT_STREQ("reply/to/this/topic", replyTo.dest);
    EXPECT_EQ(VELCLIENT_FAIL, velClient_msg_setSenderId(m.h, nullptr));
    EXPECT_EQ(VELCLIENT_SUBCODE_PARAM_NULL_PTR, veltest::lastSubCode());
    velClient_msg_setMaxPoolMem(64ull << 20);
}

TEST(HeaderMap, AFreshMessageHasNoHeaderMap)
{
    Msg m;
    const char *s = nullptr;
    velClient_int64_t v = 0;
    velClient_destination_t d{};
    EXPECT_EQ(VELCLIENT_NOT_FOUND, velClient_msg_getSenderId(m.h, &s));
    EXPECT_EQ(VELCLIENT_NOT_FOUND, velClient_msg_getSequenceNumber(m.h, &v));
    EXPECT_EQ(VELCLIENT_NOT_FOUND, velClient_msg_getHttpContentType(m.h, &s));
    EXPECT_EQ(VELCLIENT_NOT_FOUND, velClient_msg_getReplyTo(m.h, &d, sizeof d));
    EXPECT_EQ(VELCLIENT_OK, velClient_msg_deleteSenderId(m.h));
    EXPECT_EQ(VELCLIENT_OK, velClient_msg_deleteReplyTo(m.h));
    EXPECT_EQ(VELCLIENT_OK, velClient_msg_deleteHttpContentEncoding(m.h));
    EXPECT_TRUE(metadataItem(encode(m.h)).empty()); /* nothing was created */
}

TEST(HeaderMap, SettingTwiceLeavesOneField)
{
    Msg m;
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setSenderId(m.h, "first"));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setSenderId(m.h, "second"));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setApplicationMsgType(m.h, "type"));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setSequenceNumber(m.h, 5));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setSequenceNumber(m.h, 6));
    velClient_destination_t r1{VELCLIENT_TOPIC_DESTINATION, "r1"}, r2{VELCLIENT_QUEUE_DESTINATION, "r2"};
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setReplyTo(m.h, &r1, sizeof r1));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setReplyTo(m.h, &r2, sizeof r2));
    Bytes meta = metadataItem(encode(m.h));
    /* 19-byte header, then the 'h' entry holding si, mt, sn and rt once each. */
    ASSERT_GE(meta.size(), 19u + 9);
    EXPECT_EQ((Bytes{0x1C, 0x04, 'h', 0x00, 0x2B}), Bytes(meta.begin() + 19, meta.begin() + 24));
    std::string body(meta.begin() + 28, meta.end());
    auto count = [&](const std::string &needle) {
        std::size_t n = 0;
        for (std::size_t at = body.find(needle); at != std::string::npos; at = body.find(needle, at + 1))
            ++n;
        return n;
    };
    EXPECT_EQ(1u, count(std::string("si\0", 3)));
    EXPECT_EQ(1u, count(std::string("sn\0", 3)));
    EXPECT_EQ(1u, count(std::string("rt\0", 3)));
    EXPECT_EQ(0u, count("first"));
    const char *s = nullptr;
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_getSenderId(m.h, &s));
    EXPECT_STREQ("second", s);
    velClient_destination_t d{};
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_getReplyTo(m.h, &d, sizeof d));
    EXPECT_EQ(VELCLIENT_QUEUE_DESTINATION, d.destType);
    EXPECT_STREQ("r2", d.dest);
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_deleteReplyTo(m.h));
    EXPECT_EQ(VELCLIENT_NOT_FOUND, velClient_msg_getReplyTo(m.h, &d, sizeof d));
}

TEST(HeaderMap, TheBareHeaderCarriesTheMarksAndTheAttachmentKind)
{
    struct Row {
        std::function<velClient_returnCode_t(velClient_opaqueMsg_pt)> set;
        std::size_t at;
        Bytes expected;
    };
    const Row rows[] = {
        {[](auto h) { return velClient_msg_setAsReplyMsg(h, 1); }, 0,
         {0x01, 0, 0, 0, 14, 0x2F, 0, 0, 0, 14, 0x18, 4, 0x80, 0x80, 0x2B, 0, 0, 0, 5}},
        {[](auto h) {
             velClient_opaqueContainer_pt c = nullptr;
             return velClient_msg_createBinaryAttachmentStream(h, &c, 0);
         },
         12, {11, 0}},
    };
    for (const Row &r : rows) {
        Msg m;
        ASSERT_EQ(VELCLIENT_OK, r.set(m.h));
        Bytes meta = metadataItem(encode(m.h));
        ASSERT_EQ(19u, meta.size());
        EXPECT_EQ(r.expected, Bytes(meta.begin() + static_cast<std::ptrdiff_t>(r.at),
                                    meta.begin() + static_cast<std::ptrdiff_t>(r.at + r.expected.size())));
    }
}

TEST(HeaderMap, ReadingAReceivedHeader)
{
    /* 'h' entry with si = "x"; 'p' entry with one boolean. */
    Msg r(receiveWithMetadata(metadata({0x1C, 0x04, 'h', 0x00, 0x2B, 0, 0, 0, 14, 0x1C, 0x05, 's', 'i', 0x00, 0x1C, 0x04,
                                        'x',  0x00, 0x1C, 0x04, 'p', 0x00, 0x2B, 0, 0, 0, 12, 0x1C, 0x04, 'b', 0x00,
                                        0x04, 0x03, 0x01})));
    const char *s = nullptr;
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_getSenderId(r.h, &s));
    EXPECT_STREQ("x", s);
    velClient_opaqueContainer_pt props = nullptr;
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_getUserPropertyMap(r.h, &props));
    velClient_bool_t b = 0;
    EXPECT_EQ(VELCLIENT_OK, velClient_container_getBoolean(props, &b, "b"));
    EXPECT_EQ(1, b);
    EXPECT_EQ(0, velClient_msg_isReplyMsg(r.h));
    /* Changing the received map leaves the wire bytes it came from alone and re-encodes. */
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setSenderId(r.h, "changed"));
    Msg r2(nullptr);
    ASSERT_EQ(VELCLIENT_OK, veltest::decode(encode(r.h), &r2.h));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_getSenderId(r2.h, &s));
    EXPECT_STREQ("changed", s);
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_getUserPropertyMap(r2.h, &props));
    EXPECT_EQ(VELCLIENT_OK, velClient_container_getBoolean(props, &b, "b"));
    /* Parts 7 and 10 point into the metadata's block, each with a reference of
     * its own: taking part 7's block out (which closes its open map) leaves the
     * header map readable, and the block outlives the message. */
    velClient_opaqueDatablock_pt block = nullptr;
    velClient_bufInfo_t part{};
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_extractDatablock(r2.h, VELCLIENT_BUFINFO_USER_PROPERTY_PART, &block, &part));
    EXPECT_EQ(0, std::memcmp(static_cast<std::uint8_t *>(part.buf_p), "\x1C\x04p", 4));
    EXPECT_EQ(VELCLIENT_OK, velClient_msg_getSenderId(r2.h, &s));
    EXPECT_STREQ("changed", s);
    velClient_msg_free(&r2.h);
    EXPECT_EQ(0, std::memcmp(static_cast<std::uint8_t *>(part.buf_p), "\x1C\x04p", 4));
    EXPECT_EQ(VELCLIENT_OK, velClient_datablock_free(&block));
}

TEST(HeaderMap, MalformedHeaders)
{
    const char *s = nullptr;
    {
        /* An unrecognised header is dropped: the maps behave as on a fresh message. */
        Msg r(receiveWithMetadata(metadata({}, 0x02)));
        EXPECT_EQ(VELCLIENT_NOT_FOUND, velClient_msg_getSenderId(r.h, &s));
        EXPECT_EQ(VELCLIENT_OK, velClient_msg_setSenderId(r.h, "new"));
        EXPECT_EQ(VELCLIENT_OK, velClient_msg_getSenderId(r.h, &s));
    }
    {
        Msg r(receiveWithMetadata(metadata({0x1C, 0x04, 'x', 0x00, 0x2B, 0, 0, 0, 5})));
        EXPECT_EQ(VELCLIENT_FAIL, velClient_msg_getSenderId(r.h, &s));
        EXPECT_LAST_ERROR(VELCLIENT_SUBCODE_INTERNAL_ERROR, "Binary Message Header with invalid map name (78)");
    }
    for (const Bytes &entries : {Bytes{0x0C, 0x04, 'h', 0x00, 0x2B, 0, 0, 0, 5}, /* not a key */
                                 Bytes{0x1C, 0x04, 'h', 0x00, 0x2B, 0, 0, 0, 50}, /* runs past the end */
                                 Bytes{0x1C, 0x04, 'h', 0x00, 0x2B, 0, 0, 0, 0},  /* no progress */
                                 Bytes{0x1C, 0x04, 'h'}}) {                       /* cut short */
        Msg r(receiveWithMetadata(metadata(entries)));
        EXPECT_EQ(VELCLIENT_FAIL, velClient_msg_getSenderId(r.h, &s));
    }
    {
        /* Shorter than its fixed part. */
        Msg r(receiveWithMetadata({0x01, 0x00, 0x00}));
        EXPECT_EQ(VELCLIENT_FAIL, velClient_msg_getSenderId(r.h, &s));
    }
    {
        /* "sn" stored as a string. */
        Bytes h = {0x1C, 0x04, 'h', 0x00, 0x2B, 0, 0, 0, 14, 0x1C, 0x05, 's', 'n', 0x00, 0x1C, 0x04, '7', 0x00};
        Msg r(receiveWithMetadata(metadata(h)));
        velClient_int64_t v = 0;
        EXPECT_EQ(VELCLIENT_FAIL, velClient_msg_getSequenceNumber(r.h, &v));
        EXPECT_LAST_ERROR(VELCLIENT_SUBCODE_COMMUNICATION_ERROR, "Invalid Sequence Number field in kestrel header map");
    }
}

TEST(HeaderMap, GeneratedSequenceNumberIsTheFixedFifteenBytes)
{
    velClient_opaqueSession_pt s = nullptr;
    const char *props[] = {"SESSION_GENERATE_SEQUENCE_NUMBER", "1", "SESSION_TRANSPORT", "null", nullptr};
    ASSERT_EQ(VELCLIENT_OK, velClient_session_create(props, nullptr, nullptr, &s));
    Msg m;
    ASSERT_EQ(VELCLIENT_OK, velClient_session_sendMsg(s, m.h));
    ASSERT_EQ(VELCLIENT_OK, velClient_session_sendMsg(s, m.h));
    Bytes meta = metadataItem(encode(m.h));
    Bytes sn = {0x1C, 0x05, 's', 'n', 0x00, 0x08, 0x0A, 0, 0, 0, 0, 0, 0, 0, 2};
    ASSERT_EQ(19u + 9 + 15, meta.size());
    EXPECT_EQ(sn, Bytes(meta.end() - 15, meta.end()));
    velClient_int64_t v = 0;
    EXPECT_EQ(VELCLIENT_OK, velClient_msg_getSequenceNumber(m.h, &v));
    EXPECT_EQ(2, v);
    velClient_session_destroy(&s);
}

TEST(UserPropertyMap, CreateSetAndGet)
{
    Msg m;
    velClient_opaqueContainer_pt props = nullptr, again = nullptr;
    EXPECT_EQ(VELCLIENT_NOT_FOUND, velClient_msg_getUserPropertyMap(m.h, &props));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_createUserPropertyMap(m.h, &props, 0));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addUint16(props, 7, "k"));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_getUserPropertyMap(m.h, &again));
    EXPECT_EQ(props, again); /* the open map, one more reference */
    ASSERT_EQ(VELCLIENT_OK, velClient_container_closeMapStream(&again));
    /* Setting the message's own map finalises it in place. */
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setUserPropertyMap(m.h, props));
    velClient_uint16_t v = 0;
    EXPECT_EQ(VELCLIENT_OK, velClient_container_getUint16(props, &v, "k"));
    /* A map from application memory is copied in. */
    std::vector<char> mem(64);
    velClient_opaqueContainer_pt app = nullptr;
    ASSERT_EQ(VELCLIENT_OK, velClient_container_createMap(&app, mem.data(), mem.size()));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addString(app, "v", "s"));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setUserPropertyMap(m.h, app));
    velClient_container_closeMapStream(&app);
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_getUserPropertyMap(m.h, &props));
    const char *s = nullptr;
    EXPECT_EQ(VELCLIENT_OK, velClient_container_getStringPtr(props, &s, "s"));
    EXPECT_STREQ("v", s);
    EXPECT_EQ(VELCLIENT_NOT_FOUND, velClient_container_getUint16(props, &v, "k"));
}

TEST(StructuredAttachment, MapStreamAndSizes)
{
    Msg m;
    velClient_opaqueContainer_pt map = nullptr, stream = nullptr;
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_createBinaryAttachmentMap(m.h, &map, 0));
    size_t size = 0;
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_getBinaryAttachmentContainerSize(m.h, &size));
    EXPECT_EQ(5u, size);
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addNull(map, "n"));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_closeMapStream(&map));
    EXPECT_EQ(VELCLIENT_NOT_FOUND, velClient_msg_getBinaryAttachmentContainerSize(m.h, &size));
    EXPECT_EQ(VELCLIENT_NOT_FOUND, velClient_msg_getBinaryAttachmentStream(m.h, &stream));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_getBinaryAttachmentMap(m.h, &map));
    EXPECT_EQ(VELCLIENT_OK, velClient_container_getNull(map, "n"));
    /* A stream from elsewhere replaces it, by copy. */
    std::vector<char> mem(32);
    ASSERT_EQ(VELCLIENT_OK, velClient_container_createStream(&stream, mem.data(), mem.size()));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addInt8(stream, -3, nullptr));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setBinaryAttachmentContainer(m.h, stream));
    velClient_container_closeMapStream(&stream);
    EXPECT_EQ(VELCLIENT_NOT_FOUND, velClient_msg_getBinaryAttachmentMap(m.h, &map));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_getBinaryAttachmentStream(m.h, &stream));
    velClient_int8_t v = 0;
    EXPECT_EQ(VELCLIENT_OK, velClient_container_getInt8(stream, &v, nullptr));
    EXPECT_EQ(-3, v);
}

TEST(SessionTopics, SuffixesRelativeToTheInboxBase)
{
    velClient_opaqueSession_pt s = nullptr;
    const char *props[] = {"SESSION_P2P_TOPIC_BASE", "B", "SESSION_TRANSPORT", "null", nullptr};
    ASSERT_EQ(VELCLIENT_OK, velClient_session_create(props, nullptr, nullptr, &s));
    Msg m;
    const char *suffix = nullptr;
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setTopicPtr(m.h, "B/#"));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_getDestinationTopicSuffix(m.h, s, &suffix));
    EXPECT_STREQ("", suffix);
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setTopicPtr(m.h, "B/x/y"));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_getDestinationTopicSuffix(m.h, s, &suffix));
    EXPECT_STREQ("x/y", suffix);
    for (const char *other : {"Bx", "B"}) {
        ASSERT_EQ(VELCLIENT_OK, velClient_msg_setTopicPtr(m.h, other));
        EXPECT_EQ(VELCLIENT_NOT_FOUND, velClient_msg_getDestinationTopicSuffix(m.h, s, &suffix));
    }
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setReplyToSuffix(m.h, s, ""));
    velClient_destination_t d{};
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_getReplyTo(m.h, &d, sizeof d));
    EXPECT_STREQ("B/#", d.dest);
    /* Without a destination, or with a queue, there is no topic suffix. */
    Msg other;
    EXPECT_EQ(VELCLIENT_NOT_FOUND, velClient_msg_getDestinationTopicSuffix(other.h, s, &suffix));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setQueueNamePtr(other.h, "q"));
    EXPECT_EQ(VELCLIENT_NOT_FOUND, velClient_msg_getDestinationTopicSuffix(other.h, s, &suffix));
    /* A reply-to on a message whose header map holds none. */
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setSenderId(other.h, "x"));
    EXPECT_EQ(VELCLIENT_NOT_FOUND, velClient_msg_getReplyTo(other.h, &d, sizeof d));
    velClient_session_destroy(&s);
}

TEST(HeaderMap, AHeaderEntryHoldingAStreamIsNoHeaderMap)
{
    Msg r(receiveWithMetadata(metadata({0x1C, 0x04, 'h', 0x00, 0x2F, 0, 0, 0, 5})));
    const char *s = nullptr;
    EXPECT_EQ(VELCLIENT_NOT_FOUND, velClient_msg_getSenderId(r.h, &s));
    EXPECT_LAST_ERROR(VELCLIENT_SUBCODE_INTERNAL_ERROR, "Binary Message Header in invalid format type = (15)");
    /* The part still holds those bytes, so no new map is made over them: setting fails. */
    EXPECT_EQ(VELCLIENT_FAIL, velClient_msg_setSenderId(r.h, "mine"));
    EXPECT_LAST_ERROR(VELCLIENT_SUBCODE_INTERNAL_ERROR, "Binary Message Header in invalid format type = (15)");
    EXPECT_EQ(VELCLIENT_NOT_FOUND, velClient_msg_getSenderId(r.h, &s));
}

TEST(UserPropertyMap, CreatingAgainReplacesTheOpenMap)
{
    Msg m;
    velClient_opaqueContainer_pt first = nullptr, second = nullptr, c = nullptr;
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_createUserPropertyMap(m.h, &first, 8));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addInt8(first, 1, "old"));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_createUserPropertyMap(m.h, &second, 8));
    EXPECT_EQ(VELCLIENT_FAIL, velClient_container_rewind(first));
    velClient_int8_t v = 0;
    EXPECT_EQ(VELCLIENT_NOT_FOUND, velClient_container_getInt8(second, &v, "old"));
    velClient_container_closeMapStream(&second);

    /* A received "p" entry that holds a stream is refused as the user property map. */
    Msg r(receiveWithMetadata(metadata({0x1C, 0x04, 'p', 0x00, 0x2F, 0, 0, 0, 5})));
    EXPECT_EQ(VELCLIENT_FAIL, velClient_msg_getUserPropertyMap(r.h, &c));
    EXPECT_LAST_ERROR(VELCLIENT_SUBCODE_INTERNAL_ERROR, "User Property is in invalid format - stream when should be map");
}
