/* The message dump: exact texts, the bounded buffer, sizes-only mode. */
#include <functional>
#include <regex>
#include <string>
#include <vector>

#include "support/velTestSupport.h"

using veltest::Msg;

namespace {

std::string pad(const std::string &label)
{
    return label + std::string(40 - label.size(), ' ');
}

const std::string kHeaderLines = pad("Class Of Service:") + "COS_1\n" + pad("DeliveryMode: ") + "DIRECT\n";

/* A hex dump line of n < 8 bytes: the bytes, blank columns to full width, the characters. */
std::string hexLine(const std::string &hexBytes, const std::string &chars)
{
    return hexBytes + std::string((16 - chars.size()) * 3 + 1, ' ') + "     " + chars;
}

void allOk(std::initializer_list<velClient_returnCode_t> rcs)
{
    int i = 0;
    for (velClient_returnCode_t rc : rcs)
        EXPECT_EQ(VELCLIENT_OK, rc) << "call " << i++;
}

} // namespace

/* User data as hex lines in either mode, nested maps two further in, XML as
 * text wrapped at sixty columns, stream entries without keys; sizes only in
 * brief mode. */
TEST(Dump, PartsInFullAndBrief)
{
    const std::string userData =
        pad("User Data:") + "len=20\n  30 31 32 33 34 35 36 37  38 39 41 42 43 44 45 46      01234567   89ABCDEF\n  " +
        hexLine("47 48 49 4a ", "GHIJ") + "\n";
    const std::string xml = std::string(58, 'x') + "\x01yz", map = pad("Binary Attachment Map:");
    const std::string stream = pad("Binary Attachment Stream:"), hex3 = "len=3\n    " + hexLine("01 41 03 ", ".A.") + "\n";
    const struct {
        std::function<void(velClient_opaqueMsg_pt)> fill;
        std::string full, brief;
    } rows[] = {
        {[](auto h) { allOk({velClient_msg_setUserData(h, "0123456789ABCDEFGHIJ", 20)}); }, userData, userData},
        {[](auto h) {
             velClient_opaqueContainer_pt map = nullptr, sub = nullptr;
             allOk({velClient_msg_createBinaryAttachmentMap(h, &map, 64),
                    velClient_container_openSubMap(map, &sub, "a"), velClient_container_addUint8(sub, 1, "b"),
                    velClient_container_closeMapStream(&sub), velClient_container_addBoolean(map, 0, "c")});
         },
         map + "\n  Key 'a' (MAP)\n    Key 'b' (UINT8) 1\n\n  Key 'c' (BOOL) FALSE\n", map + "len=28\n"},
        {[&](auto h) { allOk({velClient_msg_setXml(h, xml.data(), static_cast<velClient_uint32_t>(xml.size()))}); },
         pad("XML:") + "len=61\n  " + std::string(58, 'x') + " 0x01 \n  yz\n", pad("XML:") + "len=61\n"},
        {[](auto h) { /* stream entries have no key; wide characters, byte arrays, VWF and unknown fields */
             const std::uint8_t bytes[] = {1, 'A', 3}, unknown[] = {0x05, 0x00, 0x04, 0x07};
             velClient_opaqueContainer_pt s = nullptr;
             allOk({velClient_msg_createBinaryAttachmentStream(h, &s, 256), velClient_container_addBoolean(s, 1, nullptr),
                    velClient_container_addWchar(s, 'W', nullptr), velClient_container_addByteArray(s, bytes, 3, nullptr),
                    velClient_container_addVwf(s, bytes, 3, nullptr), velClient_container_addUnknownField(s, unknown, 4, nullptr)});
         },
         stream + "\n  (BOOL) TRUE\n  (WCHAR) W\n  (BYTE ARRAY) " + hex3 + "  (VWF) " + hex3 + "  (UNKNOWN) len=4\n    " +
             hexLine("05 00 04 07 ", "....") + "\n",
         stream + "len=26\n"},
    };
    for (const auto &r : rows) {
        Msg m;
        r.fill(m.h);
        EXPECT_EQ(kHeaderLines + r.full, m.dump());
        EXPECT_EQ(kHeaderLines + r.brief, m.dump(VELCLIENT_MSGDUMP_BRIEF));
    }
}

TEST(Dump, HeaderLinesInOrderAlsoAfterARoundTripAndTenConsumerIds)
{
    Msg m;
    velClient_destination_t topic{VELCLIENT_TOPIC_DESTINATION, "t/1"}, replyTo{VELCLIENT_TOPIC_TEMP_DESTINATION, "#P2P/TTMP/r"};
    allOk({velClient_msg_setDestination(m.h, &topic, sizeof topic), velClient_msg_setReplyTo(m.h, &replyTo, sizeof replyTo),
           velClient_msg_setCorrelationId(m.h, "corr"), velClient_msg_setSequenceNumber(m.h, 12),
           velClient_msg_setSenderId(m.h, "me"), velClient_msg_setClassOfService(m.h, 2),
           velClient_msg_setDeliveryMode(m.h, VELCLIENT_DELIVERY_MODE_NONPERSISTENT), velClient_msg_setTimeToLive(m.h, 500),
           velClient_msg_setDMQEligible(m.h, 1), velClient_msg_setAsReplyMsg(m.h, 1), velClient_msg_setDeliverToOne(m.h, 1)});
    /* The reply-to of a temporary topic reads back as a topic. */
    const std::string expected = pad("Destination:") + "Topic 't/1'\n" + pad("SenderId:") + "me\n" + pad("SequenceNumber:") + "12\n" +
                  pad("CorrelationId:") + "corr\n" + pad("Class Of Service:") + "COS_3\n" + pad("DeliveryMode: ") +
                  "NON-PERSISTENT\n" + pad("TimeToLive:") + "500\n" + pad("DMQ Eligible") + "\n" +
                  pad("Reply Message") + "\n" + pad("Reply To:") + "Topic '#P2P/TTMP/r'\n" + pad("Deliver To One") + "\n";
    EXPECT_EQ(expected, m.dump());
    Msg r(nullptr); /* decoded, every property reads back; a received message adds its time and id */
    ASSERT_EQ(VELCLIENT_OK, veltest::decode(veltest::encode(m.h), &r.h));
    EXPECT_EQ(expected, std::regex_replace(r.dump(), std::regex("RcvTimestamp:.*\n|Message Id: +[0-9]+\n"), ""));
    /* Ten consumer ids repeat the second line. */
    veltest::Bytes ids;
    std::string idLines = "Consumer ID Count: 10\n  ";
    for (std::uint8_t id = 1; id <= 10; ++id) {
        ids.insert(ids.end(), {0, 0, 0, id});
        idLines += veltest::format("  %08x,", id);
    }
    const std::string text = Msg(veltest::received(veltest::item(0x12, ids))).dump();
    EXPECT_EQ(idLines + "\n    00000009,  0000000a,", text.substr(std::min(text.size(), text.find("Consumer ID Count:"))));
}

TEST(Dump, TheBufferIsBoundedAndAlwaysTerminated)
{
    Msg m;
    velClient_opaqueContainer_pt props = nullptr;
    allOk({velClient_msg_setUserData(m.h, "0123456789ABCDEFGHIJ", 20), velClient_msg_createUserPropertyMap(m.h, &props, 16),
           velClient_container_addString(props, "value", "key"), velClient_container_closeMapStream(&props)});
    const std::string full = m.dump();
    ASSERT_GT(full.size(), 100u);
    for (std::size_t size = 1; size <= full.size() + 1; ++size) {
        std::vector<char> buf(size + 1, '#');
        ASSERT_EQ(VELCLIENT_OK, velClient_msg_dump(m.h, buf.data(), size));
        std::string got(buf.data());
        ASSERT_LT(got.size(), size);
        ASSERT_EQ(full.substr(0, got.size()), got) << size;
        EXPECT_EQ('#', buf[size]); /* nothing written past the buffer */
    }
}
