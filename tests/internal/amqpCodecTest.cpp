/* The AMQP codec on its own: what a message from a plain AMQP client maps to, queue addresses and
 * other addressing rules, refusal of damaged bytes, and the redelivered flag read from the header bytes. */
#include <cstring>
#include <tuple>

#include <proton/message.h>

#include "codecMessages.h"
#include "velClientAmqp/amqpFields.h"

namespace {

using namespace codectest;

struct Pn {
    pn_message_t *m = pn_message();
    ~Pn() { pn_message_free(m); }
    std::vector<char> encoded() const
    {
        std::vector<char> bytes(4096);
        std::size_t size = bytes.size();
        EXPECT_EQ(0, pn_message_encode(m, bytes.data(), &size));
        bytes.resize(size);
        return bytes;
    }
};

} // namespace

TEST(AmqpCodec, MessageFromPlainAmqpClientMapsToTheNaturalFields)
{
    Pn pn;
    pn_message_set_address(pn.m, "/topic/prices.eu%2Ewest.*");
    pn_message_set_durable(pn.m, true);
    pn_message_set_priority(pn.m, 9);
    pn_message_set_ttl(pn.m, 5000);
    ASSERT_EQ(0, pn_data_fill(pn_message_id(pn.m), "L", std::uint64_t{42}));
    pn_message_set_subject(pn.m, "quote");
    pn_message_set_reply_to(pn.m, "/queue/answers");
    pn_message_set_content_type(pn.m, "text/plain");
    pn_message_set_creation_time(pn.m, 1234);
    pn_message_set_expiry_time(pn.m, 1900000000456);
    ASSERT_EQ(0, pn_data_fill(pn_message_properties(pn.m), "{SiStSs}", "qty", -12, "at", pn_timestamp_t{99}, "kind",
                              "bid"));
    pn_data_put_string(pn_message_body(pn.m), pn_bytes(5, "12.50"));
    Msg m(decoded(amqpDecode, {"", pn.encoded(), nullptr}));
    ASSERT_NE(nullptr, m.h);
    EXPECT_EQ("Destination:                            Topic 'prices/eu.west/*'\n"
              "ApplicationMsgType:                     quote\n"
              "ApplicationMessageId:                   42\n"
              "HTTP Content Type:                      text/plain\n"
              "SenderTimestamp:                        1234 Jan 01, 1970 00:00:01\n"
              "Class Of Service:                       COS_3\n"
              "DeliveryMode:                           PERSISTENT\n"
              "TimeToLive:                             5000\n"
              "Expiration:                             1900000000456 Mar 17, 2030 17:46:40\n"
              "Reply To:                               Queue 'answers'\n"
              "User Property Map:                      \n"
              "  Key 'qty' (INT32) -12\n"
              "  Key 'at' (INT64) 99\n"
              "  Key 'kind' (STRING) bid\n"
              "Binary Attachment String:               len=5\n"
              "  31 32 2e 35 30                                        12.50\n",
              dumpWithoutReceiveLines(m.h));
}

/* ---- Damaged bytes ---------------------------------------------------------------------- */
namespace {

/* decode's answer; a refusal is a protocol error. */
bool accepts(const std::vector<char> &bytes)
{
    const bool ok = answer(amqpDecode, {"", bytes, nullptr}) == VELCLIENT_OK;
    EXPECT_TRUE(ok || veltest::lastSubCode() == VELCLIENT_SUBCODE_PROTOCOL_ERROR) << veltest::lastErrorText();
    return ok;
}

/* A message with the annotations pn_data_fill makes of format and args, and a binary body when given. */
template <typename... Args>
std::vector<char> annotated(const char *body, const char *format, Args... args)
{
    Pn pn;
    EXPECT_EQ(0, pn_data_fill(pn_message_annotations(pn.m), format, args...));
    if (body != nullptr) {
        EXPECT_EQ(0, pn_data_fill(pn_message_body(pn.m), "z", std::strlen(body), body));
    }
    return pn.encoded();
}

/* An amqp-value section holding depth lists, each the only element of the one before. */
std::vector<char> nestedLists(int depth)
{
    Pn pn;
    pn_data_t *body = pn_message_body(pn.m);
    for (int i = 0; i < depth; ++i) {
        pn_data_put_list(body);
        pn_data_enter(body);
    }
    return pn.encoded();
}

} // namespace

/* Proton's own decoder takes many truncated inputs; the codec takes a cut only where a section ends (a
 * message holds at most 6 sections). */
TEST(AmqpCodec, EveryTruncationIsRefusedUnlessItEndsOnASectionBoundary)
{
    const veltest::LiveCounts before;
    for (const char *name : {"persistent_topic_map", "nonpersistent_topic_stream", "persistent_queue_carried_map"}) {
        const Bytes seed = seedBytes("amqp", name);
        const std::vector<char> whole(seed.begin(), seed.end());
        int accepted = 0;
        for (std::size_t n = 0; n < whole.size(); ++n)
            accepted += accepts({whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(n)}) ? 1 : 0;
        EXPECT_LE(accepted, 5) << name << ": at most one accepted cut per section before the last";
    }
    before.expectBalanced();
}

TEST(AmqpCodec, MalformedMessagesAreRefused)
{
    const veltest::LiveCounts before;
    const char bad[] = "\x1C\x04" "a\0\x0C\x09\x01"; /* a value whose length runs past the end */
    const std::pair<const char *, std::vector<char>> rows[] = {
        {"not AMQP", {'h', 'e', 'l', 'l', 'o'}},
        {"absurd size", {0x00, 0x53, 0x75, static_cast<char>(0xB0), 0x7F, -1, -1, -1, 1, 2}},
        {"nested too deep", nestedLists(100)},
        {"header map of the wrong type", annotated(nullptr, "{sL}", "x-opt-vel-header-map", std::uint64_t{1})},
        {"malformed header map", annotated(nullptr, "{sz}", "x-opt-vel-header-map", sizeof bad - 1, bad)},
        {"malformed user properties", annotated(nullptr, "{sz}", "x-opt-vel-user-properties", sizeof bad - 1, bad)},
        {"consumer ids not whole", annotated(nullptr, "{sz}", "x-opt-vel-consumer-ids", std::size_t{3}, "\0\0\0")},
        {"topic holding a NUL", annotated(nullptr, "{sz}", "x-opt-vel-topic", std::size_t{3}, "a\0b")},
        {"mark not boolean", annotated(nullptr, "{sL}", "x-opt-vel-reply-message", std::uint64_t{1})},
        {"map attachment not a map", annotated("plain", "{ss}", "x-opt-vel-attachment", "map")},
    };
    for (const auto &[name, bytes] : rows)
        EXPECT_FALSE(accepts(bytes)) << name;
    EXPECT_TRUE(accepts(nestedLists(20))) << "moderate nesting is fine";
    EXPECT_TRUE(accepts(annotated("plain", "{szsz}", "x-opt-vel-topic", std::size_t{3}, "a/b", "x-opt-vel-consumer-ids",
                                  std::size_t{4}, "\0\0\0\1")));
    before.expectBalanced();
}

/* The redelivered flag is read from the header section's bytes in every encoding a sender may choose
 * (Proton writes a false first-acquirer as null); anything else counts as a first delivery. */
TEST(AmqpCodec, RedeliveredIsReadFromTheHeaderBytes)
{
    auto header = [](Bytes descriptor, const Bytes &list) {
        descriptor.insert(descriptor.begin(), 0x00);
        return veltest::cat(veltest::cat(descriptor, list), {0x00, 0x53, 0x77, 0xA1, 0x01, 'x'}); /* a body after it */
    };
    const Bytes code{0x53, 0x70}, code64{0x80, 0, 0, 0, 0, 0, 0, 0, 0x70};
    const Bytes name{0xA3, 0x10, 'a', 'm', 'q', 'p', ':', 'h', 'e', 'a', 'd', 'e', 'r', ':', 'l', 'i', 's', 't'};
    const std::tuple<const char *, Bytes, bool> rows[] = {
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
    for (const auto &[what, bytes, redelivered] : rows)
        EXPECT_EQ(redelivered, vel::amqp::headerSaysRedelivered(bytes.data(), bytes.size())) << what;
}
