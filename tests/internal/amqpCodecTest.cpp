/* The AMQP codec: fidelity of a message that goes through encode and decode,
 * what a plain AMQP client sees of it and sends, the address mapping, and
 * refusal of damaged bytes. */
#include <cstdlib>
#include <fstream>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>
#include <proton/message.h>

#include "amqpWalk.h"
#include "codecMessages.h"
#include "corpusFiles.h"
#include "support/velTestSupport.h"
#include "velClientAmqp/amqpCodec.h"
#include "velClientAmqp/amqpFields.h"
#include "velClientMsg/header/headerMaps.h"
#include "velClientMsg/velClientMsgPrivate.h"

namespace {

using namespace codectest;
using vel::amqp::Addressing;

/* The message encoded after the send path's preparation. */
std::vector<char> encoded(velClient_opaqueMsg_pt m, const Addressing &rules = {})
{
    std::vector<char> bytes;
    EXPECT_EQ(VELCLIENT_OK, vel::meta::prepareForWire(vel::msgOf(m), false));
    EXPECT_EQ(VELCLIENT_OK, vel::amqp::encode(vel::msgOf(m), rules, bytes)) << veltest::lastErrorText();
    return bytes;
}

_velClient_msg *decoded(const std::vector<char> &bytes, const Addressing &rules = {})
{
    _velClient_msg *m = nullptr;
    EXPECT_EQ(VELCLIENT_OK, vel::amqp::decode(bytes.data(), bytes.size(), rules, nullptr, &m))
        << veltest::lastErrorText();
    return m;
}

const Case kCases[] = {
    {"direct topic, binary", VELCLIENT_DELIVERY_MODE_DIRECT, false, Attachment::bytes, Props::scalars},
    {"persistent topic, map", VELCLIENT_DELIVERY_MODE_PERSISTENT, false, Attachment::map, Props::scalars},
    {"non-persistent topic, stream", VELCLIENT_DELIVERY_MODE_NONPERSISTENT, false, Attachment::stream, Props::nested},
    {"direct queue, text", VELCLIENT_DELIVERY_MODE_DIRECT, true, Attachment::text, Props::nested},
    {"persistent queue, map AMQP cannot hold", VELCLIENT_DELIVERY_MODE_PERSISTENT, true,
     Attachment::mapAmqpCannotHold, Props::none},
    {"non-persistent queue, no attachment", VELCLIENT_DELIVERY_MODE_NONPERSISTENT, true, Attachment::none,
     Props::scalars},
    {"direct topic, empty user property map", VELCLIENT_DELIVERY_MODE_DIRECT, false, Attachment::bytes, Props::empty},
};

} // namespace

TEST(AmqpCodec, EveryPartPropertyAndFieldSurvivesEncodeAndDecode)
{
    const veltest::LiveCounts before;
    for (const Case &c : kCases) {
        SCOPED_TRACE(c.name);
        Owned received;
        const std::string expected = receivedWithDump(c, received);
        ASSERT_NE(nullptr, received.h);
        Owned back(decoded(encoded(received.h)));
        ASSERT_NE(nullptr, back.h);
        EXPECT_EQ(expected, dumpOf(back.h));
        /* Sent again, the decoded message encodes to the same bytes. */
        EXPECT_EQ(encoded(received.h), encoded(back.h));
        /* With VEL_WRITE_AMQP_CORPUS naming a folder, the encodings are written there
         * (how the fuzz target's seeds in fuzz/corpus/amqp were made). */
        if (const char *dir = std::getenv("VEL_WRITE_AMQP_CORPUS")) {
            std::vector<char> bytes = encoded(received.h);
            std::ofstream(std::string(dir) + "/seed" + std::to_string(&c - kCases), std::ios::binary)
                .write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
        }
    }
    before.expectBalanced();
}

/* ---- The foreign view -------------------------------------------------------------- */
namespace {

struct Pn {
    pn_message_t *m = pn_message();
    ~Pn() { pn_message_free(m); }
};

/* The application-properties as "name=type" texts in order. */
std::vector<std::string> propertyTypes(pn_message_t *m)
{
    std::vector<std::string> out;
    pn_data_t *d = pn_message_properties(m);
    pn_data_rewind(d);
    if (!pn_data_next(d) || !pn_data_enter(d))
        return out;
    while (pn_data_next(d)) {
        pn_bytes_t key = pn_data_get_string(d);
        pn_data_next(d);
        out.push_back(std::string(key.start, key.size) + "=" + pn_type_name(pn_data_type(d)));
    }
    pn_data_exit(d);
    return out;
}

std::string text(const char *s)
{
    return s != nullptr ? s : "(none)";
}

std::string idOf(pn_msgid_t id)
{
    return id.type == PN_STRING ? std::string(id.u.as_bytes.start, id.u.as_bytes.size) : "(not a string)";
}

/* The case's message as plain Proton decodes it; the body's value (if any) is current. */
pn_data_t *asPlainClientSees(const Case &c, Pn &pn)
{
    Owned m;
    m.h = receivedOnLoopback(c);
    std::vector<char> bytes = encoded(m.h);
    EXPECT_EQ(0, pn_message_decode(pn.m, bytes.data(), bytes.size()));
    pn_data_t *body = pn_message_body(pn.m);
    pn_data_rewind(body);
    pn_data_next(body);
    return body;
}

} // namespace

TEST(AmqpCodec, PlainAmqpClientFindsTheStandardFields)
{
    const Case c{"persistent topic", VELCLIENT_DELIVERY_MODE_PERSISTENT, false, Attachment::bytes, Props::scalars};
    Pn pn;
    pn_data_t *body = asPlainClientSees(c, pn);
    EXPECT_EQ("/topic/orders.eu%2Ewest.50%25.%2A.new", text(pn_message_get_address(pn.m)));
    EXPECT_TRUE(pn_message_is_durable(pn.m));
    EXPECT_EQ(5, pn_message_get_priority(pn.m));
    EXPECT_EQ(60000u, pn_message_get_ttl(pn.m));
    EXPECT_EQ("app-id-1", idOf(pn_message_get_id(pn.m)));
    EXPECT_EQ("corr-9", idOf(pn_message_get_correlation_id(pn.m)));
    EXPECT_EQ("order", text(pn_message_get_subject(pn.m)));
    EXPECT_EQ("/topic/replies.desk%2E7", text(pn_message_get_reply_to(pn.m)));
    EXPECT_EQ("application/json", text(pn_message_get_content_type(pn.m)));
    EXPECT_EQ("gzip", text(pn_message_get_content_encoding(pn.m)));
    EXPECT_EQ(1700000000123, pn_message_get_creation_time(pn.m));
    const std::vector<std::string> types = {
        "bool=PN_BOOL",  "u8=PN_UBYTE",       "i8=PN_BYTE",         "u16=PN_USHORT",     "i16=PN_SHORT",    "u32=PN_UINT",
        "i32=PN_INT",    "u64=PN_ULONG",      "i64=PN_LONG",        "wchar=PN_CHAR",     "float=PN_FLOAT",  "double=PN_DOUBLE",
        "string=PN_STRING", "empty=PN_STRING", "bytes=PN_BINARY",   "null=PN_NULL"};
    EXPECT_EQ(types, propertyTypes(pn.m));
    ASSERT_EQ(PN_BINARY, pn_data_type(body));
    EXPECT_TRUE(pn_message_is_inferred(pn.m)) << "a data section, not an amqp-value";
    EXPECT_EQ(6u, pn_data_get_binary(body).size);
}

TEST(AmqpCodec, StructuredAttachmentsAreAmqpValues)
{
    const struct {
        Attachment kind;
        pn_type_t type;
        bool dataSection;
    } cases[] = {{Attachment::map, PN_MAP, false},
                 {Attachment::stream, PN_LIST, false},
                 {Attachment::text, PN_STRING, false},
                 {Attachment::mapAmqpCannotHold, PN_BINARY, true}};
    for (const auto &t : cases) {
        const Case c{"", VELCLIENT_DELIVERY_MODE_DIRECT, true, t.kind, Props::nested};
        Pn pn;
        pn_data_t *body = asPlainClientSees(c, pn);
        EXPECT_EQ("/queue/orders.eu", text(pn_message_get_address(pn.m)));
        EXPECT_FALSE(pn_message_is_durable(pn.m));
        EXPECT_EQ(t.type, pn_data_type(body)) << pn_type_name(t.type);
        EXPECT_EQ(t.dataSection, pn_message_is_inferred(pn.m)) << pn_type_name(t.type);
        /* Nested user properties cannot be application-properties: they travel whole. */
        EXPECT_TRUE(propertyTypes(pn.m).empty());
    }
}

TEST(AmqpCodec, MessageFromPlainAmqpClientMapsToTheNaturalFields)
{
    Pn pn;
    pn_message_set_address(pn.m, "/topic/prices.eu%2Ewest.*");
    pn_message_set_durable(pn.m, true);
    pn_message_set_priority(pn.m, 9);
    pn_message_set_ttl(pn.m, 5000);
    pn_atom_t id{};
    id.type = PN_ULONG;
    id.u.as_ulong = 42;
    pn_message_set_id(pn.m, id);
    pn_message_set_subject(pn.m, "quote");
    pn_message_set_reply_to(pn.m, "/queue/answers");
    pn_message_set_content_type(pn.m, "text/plain");
    pn_message_set_creation_time(pn.m, 1234);
    pn_message_set_expiry_time(pn.m, 1900000000456);
    pn_data_t *props = pn_message_properties(pn.m);
    pn_data_put_map(props);
    pn_data_enter(props);
    pn_data_put_string(props, pn_bytes(3, "qty"));
    pn_data_put_int(props, -12);
    pn_data_put_string(props, pn_bytes(2, "at"));
    pn_data_put_timestamp(props, 99);
    pn_data_put_symbol(props, pn_bytes(4, "kind"));
    pn_data_put_symbol(props, pn_bytes(3, "bid"));
    pn_data_exit(props);
    pn_data_put_string(pn_message_body(pn.m), pn_bytes(5, "12.50"));
    std::vector<char> bytes(4096);
    std::size_t size = bytes.size();
    ASSERT_EQ(0, pn_message_encode(pn.m, bytes.data(), &size));
    bytes.resize(size);

    Owned m(decoded(bytes));
    ASSERT_NE(nullptr, m.h);
    velClient_destination_t dest{};
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_getDestination(m.h, &dest, sizeof dest));
    EXPECT_EQ(VELCLIENT_TOPIC_DESTINATION, dest.destType);
    EXPECT_STREQ("prices/eu.west/*", dest.dest);
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_getReplyTo(m.h, &dest, sizeof dest));
    EXPECT_EQ(VELCLIENT_QUEUE_DESTINATION, dest.destType);
    EXPECT_STREQ("answers", dest.dest);
    velClient_uint32_t mode = 0, cos = 0;
    velClient_int64_t ttl = 0, ts = 0;
    const char *s = nullptr;
    EXPECT_EQ(VELCLIENT_OK, velClient_msg_getDeliveryMode(m.h, &mode));
    EXPECT_EQ(VELCLIENT_DELIVERY_MODE_PERSISTENT, mode);
    EXPECT_EQ(VELCLIENT_OK, velClient_msg_getClassOfService(m.h, &cos));
    EXPECT_EQ(VELCLIENT_COS_3, cos);
    EXPECT_EQ(VELCLIENT_OK, velClient_msg_getTimeToLive(m.h, &ttl));
    EXPECT_EQ(5000, ttl);
    EXPECT_EQ(VELCLIENT_OK, velClient_msg_getSenderTimestamp(m.h, &ts));
    EXPECT_EQ(1234, ts);
    EXPECT_EQ(VELCLIENT_OK, velClient_msg_getExpiration(m.h, &ts));
    EXPECT_EQ(1900000000456, ts);
    EXPECT_EQ(VELCLIENT_OK, velClient_msg_getApplicationMessageId(m.h, &s));
    EXPECT_STREQ("42", s);
    EXPECT_EQ(VELCLIENT_OK, velClient_msg_getApplicationMsgType(m.h, &s));
    EXPECT_STREQ("quote", s);
    EXPECT_EQ(VELCLIENT_OK, velClient_msg_getHttpContentType(m.h, &s));
    EXPECT_STREQ("text/plain", s);
    EXPECT_EQ(VELCLIENT_OK, velClient_msg_getBinaryAttachmentString(m.h, &s));
    EXPECT_STREQ("12.50", s);
    velClient_opaqueContainer_pt map = nullptr;
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_getUserPropertyMap(m.h, &map));
    velClient_int32_t qty = 0;
    velClient_int64_t at = 0;
    EXPECT_EQ(VELCLIENT_OK, velClient_container_getInt32(map, &qty, "qty"));
    EXPECT_EQ(-12, qty);
    EXPECT_EQ(VELCLIENT_OK, velClient_container_getInt64(map, &at, "at"));
    EXPECT_EQ(99, at);
    EXPECT_EQ(VELCLIENT_OK, velClient_container_getStringPtr(map, &s, "kind"));
    EXPECT_STREQ("bid", s);
    velClient_container_closeMapStream(&map);
}

/* ---- Addresses ------------------------------------------------------------------------ */

TEST(AmqpCodec, TopicsMapToOneAddressAndBack)
{
    const struct {
        const char *topic;
        bool subscription;
        const char *address;
    } cases[] = {
        {"a/b/c", false, "/topic/a.b.c"},
        {"a.b/c", false, "/topic/a%2Eb.c"},
        {"50%/off", false, "/topic/50%25.off"},
        {"a/*/c", false, "/topic/a.%2A.c"},
        {"a/*/c", true, "/topic/a.*.c"},
        {"a/>", true, "/topic/a.#"},
        {"a/>", false, "/topic/a.>"},
        {"a/>/c", true, "/topic/a.>.c"},
        {"a/#", true, "/topic/a.%23"},
        {"a/#", false, "/topic/a.%23"},
        {"a//c/", false, "/topic/a..c."},
        {"", false, "/topic/"},
        {"#P2P/v:host/me", false, "/topic/#P2P.v:host.me"},
        {"x*y/a%2E", false, "/topic/x*y.a%252E"},
    };
    const Addressing rules;
    for (const auto &t : cases) {
        EXPECT_EQ(t.address, vel::amqp::topicAddress(rules, t.topic, t.subscription)) << t.topic;
        velClient_destinationType_t type = VELCLIENT_QUEUE_DESTINATION;
        std::string name;
        ASSERT_TRUE(vel::amqp::destinationOf(rules, t.address, &type, &name)) << t.address;
        EXPECT_EQ(VELCLIENT_TOPIC_DESTINATION, type);
        EXPECT_EQ(t.topic, name) << t.address;
    }
}

TEST(AmqpCodec, QueuesOtherRulesAndAddressesThatDoNotMap)
{
    Addressing custom;
    custom.topicPrefix = "topic://";
    custom.queuePrefix = "topic://queue/";
    custom.levelSeparator = "::";
    custom.wildcardMore = "**";
    EXPECT_EQ("topic://a::b%3A%3Ac::**", vel::amqp::topicAddress(custom, "a/b::c/>", true));
    EXPECT_EQ("topic://queue/jobs.eu", vel::amqp::queueAddress(custom, "jobs.eu"));
    const struct {
        const char *address;
        bool maps;
        velClient_destinationType_t type;
        const char *name;
    } cases[] = {{"topic://queue/jobs", true, VELCLIENT_QUEUE_DESTINATION, "jobs"},
                 {"topic://a::b%3a%3Ac::**", true, VELCLIENT_TOPIC_DESTINATION, "a/b::c/>"},
                 {"topic://a%", false, VELCLIENT_TOPIC_DESTINATION, ""},
                 {"topic://a%4", false, VELCLIENT_TOPIC_DESTINATION, ""},
                 {"topic://a%G1", false, VELCLIENT_TOPIC_DESTINATION, ""},
                 {"/exchange/x", false, VELCLIENT_TOPIC_DESTINATION, ""}};
    for (const auto &t : cases) {
        velClient_destinationType_t type = VELCLIENT_NULL_DESTINATION;
        std::string name;
        EXPECT_EQ(t.maps, vel::amqp::destinationOf(custom, t.address, &type, &name)) << t.address;
        if (t.maps) {
            EXPECT_EQ(t.type, type) << t.address;
            EXPECT_EQ(t.name, name) << t.address;
        }
    }
}

/* ---- Damaged bytes ---------------------------------------------------------------------- */
namespace {

/* decode's answer, with the refusal's sub-code checked and nothing kept. */
bool accepts(const std::vector<char> &bytes)
{
    _velClient_msg *m = nullptr;
    velClient_returnCode_t rc = vel::amqp::decode(bytes.data(), bytes.size(), Addressing{}, nullptr, &m);
    if (rc != VELCLIENT_OK) {
        EXPECT_EQ(nullptr, m);
        EXPECT_EQ(VELCLIENT_SUBCODE_PROTOCOL_ERROR, veltest::lastSubCode()) << veltest::lastErrorText();
        return false;
    }
    Owned owned(m);
    dumpOf(owned.h);
    return true;
}

/* A message whose annotation key holds the value put by put. */
template <typename Put>
std::vector<char> withAnnotation(const char *key, Put put, const char *body = nullptr)
{
    Pn pn;
    pn_data_t *a = pn_message_annotations(pn.m);
    pn_data_put_map(a);
    pn_data_enter(a);
    pn_data_put_symbol(a, pn_bytes(std::strlen(key), key));
    put(a);
    pn_data_exit(a);
    if (body != nullptr)
        pn_data_put_binary(pn_message_body(pn.m), pn_bytes(std::strlen(body), body));
    std::vector<char> bytes(1024);
    std::size_t size = bytes.size();
    EXPECT_EQ(0, pn_message_encode(pn.m, bytes.data(), &size));
    bytes.resize(size);
    return bytes;
}

std::vector<char> nestedLists(int depth)
{
    /* amqp-value section (00 53 77) holding depth list32 values, each the only element of the one before. */
    std::vector<char> out = {0x00, 0x53, 0x77};
    for (int i = 0; i < depth; ++i) {
        std::uint32_t size = 4 + 9u * static_cast<std::uint32_t>(depth - i - 1) + 1;
        const char head[] = {static_cast<char>(0xD0), static_cast<char>(size >> 24), static_cast<char>(size >> 16),
                             static_cast<char>(size >> 8), static_cast<char>(size), 0, 0, 0, 1};
        out.insert(out.end(), head, head + sizeof head);
    }
    out.push_back(0x40);
    return out;
}

} // namespace

/* Proton's own decoder takes many truncated inputs; the codec takes a cut
 * only where a section ends (a message holds at most 6 sections). */
TEST(AmqpCodec, EveryTruncationIsRefusedUnlessItEndsOnASectionBoundary)
{
    const veltest::LiveCounts before;
    for (const Case &c : {kCases[1], kCases[2], kCases[4]}) {
        Owned m;
        m.h = receivedOnLoopback(c);
        const std::vector<char> whole = encoded(m.h);
        int accepted = 0;
        for (std::size_t n = 0; n < whole.size(); ++n) {
            std::vector<char> cut(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(n));
            accepted += accepts(cut) ? 1 : 0;
        }
        EXPECT_LE(accepted, 5) << c.name << ": at most one accepted cut per section before the last";
    }
    before.expectBalanced();
}

TEST(AmqpCodec, MalformedMessagesAreRefused)
{
    const veltest::LiveCounts before;
    auto binary = [](const char *b, std::size_t n) { return [=](pn_data_t *d) { pn_data_put_binary(d, pn_bytes(n, b)); }; };
    auto ulong = [](pn_data_t *d) { pn_data_put_ulong(d, 1); };
    const char badMap[] = "\x1C\x04" "a\0\x0C\x09\x01"; /* a value whose length runs past the end */
    const struct {
        const char *name;
        std::vector<char> bytes;
    } cases[] = {
        {"empty", {}},
        {"not AMQP", {'h', 'e', 'l', 'l', 'o'}},
        {"absurd size", {0x00, 0x53, 0x75, static_cast<char>(0xB0), 0x7F, -1, -1, -1, 1, 2}},
        {"nested too deep", nestedLists(100)},
        {"header map of the wrong type", withAnnotation("x-opt-vel-header-map", ulong)},
        {"malformed header map", withAnnotation("x-opt-vel-header-map", binary(badMap, sizeof badMap - 1))},
        {"malformed user properties", withAnnotation("x-opt-vel-user-properties", binary(badMap, sizeof badMap - 1))},
        {"consumer ids not whole", withAnnotation("x-opt-vel-consumer-ids", binary("\0\0\0", 3))},
        {"topic holding a NUL", withAnnotation("x-opt-vel-topic", binary("a\0b", 3))},
        {"mark not boolean", withAnnotation("x-opt-vel-reply-message", ulong)},
        {"map attachment not a map",
         withAnnotation(
             "x-opt-vel-attachment",
             [](pn_data_t *d) { pn_data_put_symbol(d, pn_bytes(3, "map")); }, "plain")},
    };
    for (const auto &t : cases)
        EXPECT_FALSE(accepts(t.bytes)) << t.name;
    EXPECT_TRUE(accepts(nestedLists(20))) << "moderate nesting is fine";
    before.expectBalanced();
}

TEST(AmqpCodec, SeedCorpusDecodesAndSurvivesARoundTrip)
{
    const veltest::LiveCounts before;
    auto seeds = velfuzz::corpusFiles(VELCLIENT_SOURCE_DIR, "amqp");
    ASSERT_GE(seeds.size(), 4u);
    for (const auto &seed : seeds) {
        std::vector<char> bytes(seed.begin(), seed.end());
        {
            Owned m(decoded(bytes));
            ASSERT_NE(nullptr, m.h);
            Owned again(decoded(encoded(m.h)));
            ASSERT_NE(nullptr, again.h);
            EXPECT_EQ(dumpOf(m.h), dumpOf(again.h));
        }
        /* The fuzz target's own walk, on the seed and with each byte flipped. */
        EXPECT_TRUE(velfuzz::walkAmqp(seed.data(), seed.size()));
        for (std::size_t i = 0; i < seed.size(); ++i) {
            std::vector<std::uint8_t> flipped = seed;
            flipped[i] ^= 0xFF;
            EXPECT_TRUE(velfuzz::walkAmqp(flipped.data(), flipped.size())) << "byte " << i << " flipped";
        }
    }
    before.expectBalanced();
}

/* The redelivered flag is read from the header section's bytes in every
 * encoding a sender may choose; anything else counts as a first delivery. */
TEST(AmqpCodec, RedeliveredIsReadFromTheHeaderBytes)
{
    using Bytes = std::vector<std::uint8_t>;
    auto header = [](Bytes descriptor, Bytes list) {
        Bytes out{0x00};
        out.insert(out.end(), descriptor.begin(), descriptor.end());
        out.insert(out.end(), list.begin(), list.end());
        out.insert(out.end(), {0x00, 0x53, 0x77, 0xA1, 0x01, 'x'}); /* a body after it */
        return out;
    };
    const Bytes code{0x53, 0x70}, code64{0x80, 0, 0, 0, 0, 0, 0, 0, 0x70};
    Bytes name{0xA3, 0x10};
    for (char c : std::string_view("amqp:header:list"))
        name.push_back(static_cast<std::uint8_t>(c));
    const struct {
        const char *name;
        Bytes bytes;
        bool redelivered;
    } cases[] = {
        {"no header", {0x00, 0x53, 0x77, 0xA1, 0x01, 'x'}, false},
        {"empty header", header(code, {0x45}), false},
        {"first-acquirer false", header(code, {0xC0, 0x05, 0x04, 0x40, 0x40, 0x40, 0x42}), true},
        {"first-acquirer true", header(code, {0xC0, 0x05, 0x04, 0x40, 0x40, 0x40, 0x41}), false},
        {"first-acquirer false, one byte", header(code, {0xC0, 0x06, 0x04, 0x40, 0x40, 0x40, 0x56, 0x00}), true},
        {"first-acquirer true, one byte", header(code, {0xC0, 0x06, 0x04, 0x40, 0x40, 0x40, 0x56, 0x01}), false},
        {"delivery-count 0", header(code, {0xC0, 0x06, 0x05, 0x40, 0x40, 0x40, 0x40, 0x43}), false},
        {"delivery-count small", header(code, {0xC0, 0x07, 0x05, 0x40, 0x40, 0x40, 0x40, 0x52, 0x02}), true},
        {"delivery-count uint", header(code, {0xC0, 0x0A, 0x05, 0x40, 0x40, 0x40, 0x40, 0x70, 0, 0, 1, 0}), true},
        {"fields before it skipped",
         header(code, {0xC0, 0x0D, 0x05, 0x41, 0x50, 0x04, 0x70, 0x00, 0x00, 0x03, 0xE8, 0x41, 0x52, 0x03}), true},
        {"list32", header(code, {0xD0, 0, 0, 0, 0x0A, 0, 0, 0, 0x05, 0x40, 0x40, 0x40, 0x40, 0x52, 0x01}), true},
        {"ulong descriptor, first field only", header(code64, {0xC0, 0x02, 0x01, 0x42}), false},
        {"ulong descriptor", header(code64, {0xC0, 0x07, 0x05, 0x40, 0x40, 0x40, 0x40, 0x52, 0x01}), true},
        {"symbol descriptor", header(name, {0xC0, 0x05, 0x04, 0x40, 0x40, 0x40, 0x42}), true},
        {"other section first", header({0x53, 0x71}, {0xC0, 0x05, 0x04, 0x40, 0x40, 0x40, 0x42}), false},
        {"fewer fields than counted", {0x00, 0x53, 0x70, 0xC0, 0x03, 0x05, 0x40, 0x40}, false},
        {"list longer than the bytes", {0x00, 0x53, 0x70, 0xC0, 0x20, 0x05, 0x40, 0x40, 0x40, 0x42}, false},
        {"delivery-count cut short", {0x00, 0x53, 0x70, 0xC0, 0x07, 0x05, 0x40, 0x40, 0x40, 0x40, 0x70, 0x01}, false},
        {"descriptor cut short", {0x00, 0x80, 0x00, 0x00}, false},
    };
    for (const auto &c : cases)
        EXPECT_EQ(vel::amqp::headerSaysRedelivered(c.bytes.data(), c.bytes.size()), c.redelivered) << c.name;

    /* And as Proton writes the header (a false first-acquirer as null). */
    const std::tuple<unsigned, bool, bool> written[] = {{0, true, false}, {3, true, true}, {0, false, false}};
    for (const auto &[count, first, redelivered] : written) {
        pn_message_t *pm = pn_message();
        pn_message_set_durable(pm, true);
        pn_message_set_delivery_count(pm, count);
        pn_message_set_first_acquirer(pm, first);
        char out[256];
        std::size_t size = sizeof out;
        ASSERT_EQ(pn_message_encode(pm, out, &size), 0);
        pn_message_free(pm);
        EXPECT_EQ(vel::amqp::headerSaysRedelivered(reinterpret_cast<const std::uint8_t *>(out), size), redelivered)
            << "delivery-count " << count << ", first-acquirer " << first;
    }
}
