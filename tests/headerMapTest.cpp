/* The private header map, the user property map and the binary metadata
 * header that carries them: bytes written, bytes read, malformed headers. */
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

/* 19-byte header (lengths for entries of n bytes) and the entries, built at
 * their final size (GCC 12 -O3 warns wrongly on an insert after the header). */
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

std::string senderId(velClient_opaqueMsg_pt m, velClient_returnCode_t rc = VELCLIENT_OK)
{
    const char *s = nullptr;
    EXPECT_EQ(rc, velClient_msg_getSenderId(m, &s));
    return s != nullptr ? s : "";
}

} // namespace

TEST(PropertyMaps, APropertySetFromItsOwnTextKeepsItAndTheUserPropertyMapIsReplaced)
{
    /* Setting a property deletes its old entry first, which moves the entries
     * after it; a value read from the same header map must be taken before. */
    velClient_msg_setMaxPoolMem(0);
    Msg m;
    const char *text = nullptr;
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setCorrelationId(m.h, "correlation-one"));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setSenderId(m.h, "the-sender-of-it-all"));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_getSenderId(m.h, &text));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setCorrelationId(m.h, text));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_getCorrelationId(m.h, &text));
    EXPECT_STREQ("the-sender-of-it-all", text);
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setSenderId(m.h, text)); /* its own text, too */
    EXPECT_EQ("the-sender-of-it-all", senderId(m.h));
    velClient_destination_t replyTo{VELCLIENT_TOPIC_DESTINATION, "reply/to/this/topic"};
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setReplyTo(m.h, &replyTo, sizeof replyTo));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setApplicationMsgType(m.h, "a-type-set-after-it"));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_getReplyTo(m.h, &replyTo, sizeof replyTo));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setReplyTo(m.h, &replyTo, sizeof replyTo)); /* from its own text */
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_getReplyTo(m.h, &replyTo, sizeof replyTo));
    EXPECT_STREQ("reply/to/this/topic", replyTo.dest);
    EXPECT_EQ(VELCLIENT_FAIL, velClient_msg_setSenderId(m.h, nullptr));
    EXPECT_EQ(VELCLIENT_SUBCODE_PARAM_NULL_PTR, veltest::lastSubCode());
    velClient_msg_setMaxPoolMem(veltest::kDefaultPoolLimit);
    /* The user property map: created, fetched while open, set from itself or from application memory, replaced. */
    velClient_opaqueContainer_pt props = nullptr, again = nullptr;
    velClient_uint16_t v = 0;
    EXPECT_EQ(VELCLIENT_NOT_FOUND, velClient_msg_getUserPropertyMap(m.h, &props));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_createUserPropertyMap(m.h, &props, 0));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addUint16(props, 7, "k"));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_getUserPropertyMap(m.h, &again));
    EXPECT_EQ(props, again); /* the open map, one more reference */
    ASSERT_EQ(VELCLIENT_OK, velClient_container_closeMapStream(&again));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setUserPropertyMap(m.h, props)); /* its own map: finalised in place */
    EXPECT_EQ(VELCLIENT_OK, velClient_container_getUint16(props, &v, "k"));
    /* A map from application memory is copied in. */
    veltest::Container app;
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addString(app.h, "v", "s"));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setUserPropertyMap(m.h, app.h));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_getUserPropertyMap(m.h, &props));
    EXPECT_EQ((std::vector<std::string>{"s"}), veltest::names(props));
    /* Creating again closes the open map and starts empty. */
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_createUserPropertyMap(m.h, &again, 8));
    EXPECT_EQ(VELCLIENT_FAIL, velClient_container_rewind(props));
    EXPECT_TRUE(veltest::names(again).empty());
}

TEST(HeaderMap, WrittenBytesAndMalformedHeaders)
{
    /* The bare 19-byte header: the reply mark at byte 13, the attachment kind at 12. */
    const std::function<velClient_returnCode_t(velClient_opaqueMsg_pt)> marks[] = {
        [](auto h) { return velClient_msg_setAsReplyMsg(h, 1); },
        [](auto h) {
            velClient_opaqueContainer_pt c = nullptr;
            return velClient_msg_createBinaryAttachmentStream(h, &c, 0);
        }};
    const Bytes bare[] = {{0x01, 0, 0, 0, 14, 0x2F, 0, 0, 0, 14, 0x18, 4, 0x80, 0x80, 0x2B, 0, 0, 0, 5},
                          {0x01, 0, 0, 0, 14, 0x2F, 0, 0, 0, 14, 0x18, 4, 11, 0, 0x2B, 0, 0, 0, 5}};
    for (int i = 0; i < 2; ++i) {
        Msg m;
        ASSERT_EQ(VELCLIENT_OK, marks[i](m.h));
        EXPECT_EQ(bare[i], metadataItem(encode(m.h))) << i;
    }

    Msg m; /* set twice: one entry each, the last value; the header encoded first is rewritten in place */
    for (const char *s : {"first", "second"}) {
        ASSERT_EQ(VELCLIENT_OK, velClient_msg_setSenderId(m.h, s));
        ASSERT_FALSE(encode(m.h).empty());
    }
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setSequenceNumber(m.h, 5));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setSequenceNumber(m.h, 6));
    const Bytes entry = {0x1C, 0x04, 'h', 0,   0x2B, 0,   0,   0,   34,  0x1C, 0x05, 's', 'i', 0, 0x1C, 0x09,
                         's',  'e',  'c', 'o', 'n',  'd', 0,   0x1C, 0x05, 's',  'n',  0,   0x08, 0x0A, 0, 0,
                         0,    0,    0,   0,   0,    6};
    EXPECT_EQ(metadata(entry), metadataItem(encode(m.h)));
    /* Malformed headers, as received. */
    enum Read { Sender, Sequence, Props };
    const velClient_subCode_t internal = VELCLIENT_SUBCODE_INTERNAL_ERROR;
    const struct {
        Bytes meta;
        Read read;
        velClient_returnCode_t rc;
        const char *text; /* checked when given, with its sub-code */
        velClient_subCode_t subCode;
    } rows[] = {
        {metadata({}, 0x02), Sender, VELCLIENT_NOT_FOUND, nullptr, {}}, /* an unrecognised header is dropped */
        {metadata({0x1C, 0x04, 'h', 0x00, 0x2F, 0, 0, 0, 5}), Sender, VELCLIENT_NOT_FOUND,
         "Binary Message Header in invalid format type = (15)", internal},
        {metadata({0x1C, 0x04, 'x', 0x00, 0x2B, 0, 0, 0, 5}), Sender, VELCLIENT_FAIL,
         "Binary Message Header with invalid map name (78)", internal},
        {metadata({0x1C, 0x04, 'p', 0x00, 0x2F, 0, 0, 0, 5}), Props, VELCLIENT_FAIL,
         "User Property is in invalid format - stream when should be map", internal},
        {metadata({0x1C, 0x04, 'h', 0x00, 0x2B, 0, 0, 0, 14, 0x1C, 0x05, 's', 'n', 0x00, 0x1C, 0x04, '7', 0x00}), Sequence,
         VELCLIENT_FAIL, "Invalid Sequence Number field in kestrel header map", VELCLIENT_SUBCODE_COMMUNICATION_ERROR},
        {metadata({0x0C, 0x04, 'h', 0x00, 0x2B, 0, 0, 0, 5}), Sender, VELCLIENT_FAIL, nullptr, {}},  /* not a key */
        {metadata({0x1C, 0x04, 'h', 0x00, 0x2B, 0, 0, 0, 50}), Sender, VELCLIENT_FAIL, nullptr, {}}, /* past the end */
        {metadata({0x1C, 0x04, 'h', 0x00, 0x2B, 0, 0, 0, 0}), Sender, VELCLIENT_FAIL, nullptr, {}},  /* no progress */
        {metadata({0x1C, 0x04, 'h'}), Sender, VELCLIENT_FAIL, nullptr, {}},                          /* cut short */
        {{0x01, 0x00, 0x00}, Sender, VELCLIENT_FAIL, nullptr, {}}, /* shorter than its fixed part */
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(&r - rows);
        velClient_resetLastErrorInfo();
        Msg m(veltest::received(veltest::item(0x18, r.meta)));
        velClient_int64_t v = 0;
        velClient_opaqueContainer_pt c = nullptr;
        EXPECT_EQ(r.rc, r.read == Props      ? velClient_msg_getUserPropertyMap(m.h, &c)
                        : r.read == Sequence ? velClient_msg_getSequenceNumber(m.h, &v)
                                             : (senderId(m.h, r.rc), r.rc));
        EXPECT_TRUE(r.text == nullptr || (r.subCode == veltest::lastSubCode() && r.text == veltest::lastErrorText()))
            << veltest::lastErrorText();
    }
    Msg dropped(veltest::received(veltest::item(0x18, rows[0].meta)));
    Msg stream(veltest::received(veltest::item(0x18, rows[1].meta)));
    EXPECT_EQ(VELCLIENT_OK, velClient_msg_setSenderId(dropped.h, "new")); /* a new map replaces the dropped one */
    EXPECT_EQ("new", senderId(dropped.h));
    EXPECT_EQ(VELCLIENT_FAIL, velClient_msg_setSenderId(stream.h, "mine")); /* the stream still holds the part */
    EXPECT_LAST_ERROR(internal, "Binary Message Header in invalid format type = (15)");
}

TEST(SessionTopics, SuffixesRelativeToTheInboxBase)
{
    velClient_opaqueSession_pt s = nullptr;
    const char *props[] = {"SESSION_P2P_TOPIC_BASE", "B", "SESSION_TRANSPORT", "null", nullptr};
    ASSERT_EQ(VELCLIENT_OK, velClient_session_create(props, nullptr, nullptr, &s));
    Msg m;
    const std::pair<const char *, const char *> rows[] = {{"B/#", ""}, {"B/x/y", "x/y"}, {"Bx", nullptr}, {"B", nullptr}};
    for (auto [topic, suffix] : rows) {
        const char *got = nullptr;
        ASSERT_EQ(VELCLIENT_OK, velClient_msg_setTopicPtr(m.h, topic));
        EXPECT_EQ(suffix ? VELCLIENT_OK : VELCLIENT_NOT_FOUND, velClient_msg_getDestinationTopicSuffix(m.h, s, &got));
        EXPECT_STREQ(suffix, got) << topic;
    }
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setReplyToSuffix(m.h, s, ""));
    velClient_destination_t d{};
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_getReplyTo(m.h, &d, sizeof d));
    EXPECT_STREQ("B/#", d.dest);
    /* Without a destination, or with a queue, there is no topic suffix. */
    Msg other;
    const char *suffix = nullptr;
    EXPECT_EQ(VELCLIENT_NOT_FOUND, velClient_msg_getDestinationTopicSuffix(other.h, s, &suffix));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setQueueNamePtr(other.h, "q"));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setSenderId(other.h, "x")); /* a header map without a reply-to */
    EXPECT_EQ(VELCLIENT_NOT_FOUND, velClient_msg_getDestinationTopicSuffix(other.h, s, &suffix));
    EXPECT_EQ(VELCLIENT_NOT_FOUND, velClient_msg_getReplyTo(other.h, &d, sizeof d));
    velClient_session_destroy(&s);
}
