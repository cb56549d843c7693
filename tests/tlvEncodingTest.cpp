/* The bytes every add writes, the name rules, and the refusals of the adds. */
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "support/velTestSupport.h"

using veltest::Bytes;
using veltest::cat;
using Mem = veltest::Container;

namespace {

const Bytes kNameX = {0x1C, 0x04, 'x', 0x00};

} // namespace

/* One add in a stream and the bytes it writes. */
#define ADDS(call, ...) {[](velClient_opaqueContainer_pt h) { return velClient_container_##call; }, Bytes{__VA_ARGS__}}

TEST(FieldEncoding, EveryScalarWritesItsTypeLengthAndBigEndianBits)
{
    const std::pair<std::function<velClient_returnCode_t(velClient_opaqueContainer_pt)>, Bytes> rows[] = {
        ADDS(addNull(h, nullptr), 0x00, 0x02),
        ADDS(addBoolean(h, 5, nullptr), 0x04, 0x03, 0x01), /* true from 5 */
        ADDS(addBoolean(h, 0, nullptr), 0x04, 0x03, 0x00),
        ADDS(addInt32(h, -2, nullptr), 0x08, 0x06, 0xFF, 0xFF, 0xFF, 0xFE),
        ADDS(addUint16(h, 0x1234, nullptr), 0x0C, 0x04, 0x12, 0x34),
        ADDS(addFloat(h, 1.0f, nullptr), 0x10, 0x06, 0x3F, 0x80, 0x00, 0x00),
        ADDS(addChar(h, 'A', nullptr), 0x14, 0x04, 0x00, 0x41),
        ADDS(addWchar(h, 0x10041, nullptr), 0x14, 0x04, 0x00, 0x41), /* a wide character keeps 16 bits */
        ADDS(addString(h, "ab", nullptr), 0x1C, 0x05, 'a', 'b', 0x00),
        ADDS(addInt8(h, -1, nullptr), 0x08, 0x03, 0xFF),
        ADDS(addUint64(h, 0x0102030405060708ull, nullptr), 0x0C, 0x0A, 1, 2, 3, 4, 5, 6, 7, 8),
        ADDS(addDouble(h, -2.0, nullptr), 0x10, 0x0A, 0xC0, 0, 0, 0, 0, 0, 0, 0),
        ADDS(addInt8(h, INT8_MIN, nullptr), 0x08, 0x03, 0x80),
        ADDS(addUint8(h, UINT8_MAX, nullptr), 0x0C, 0x03, 0xFF),
        ADDS(addInt16(h, INT16_MIN, nullptr), 0x08, 0x04, 0x80, 0x00),
        ADDS(addUint16(h, UINT16_MAX, nullptr), 0x0C, 0x04, 0xFF, 0xFF),
        ADDS(addInt32(h, INT32_MIN, nullptr), 0x08, 0x06, 0x80, 0x00, 0x00, 0x00),
        ADDS(addUint32(h, UINT32_MAX, nullptr), 0x0C, 0x06, 0xFF, 0xFF, 0xFF, 0xFF),
        ADDS(addInt64(h, INT64_MIN, nullptr), 0x08, 0x0A, 0x80, 0, 0, 0, 0, 0, 0, 0),
        ADDS(addUint64(h, UINT64_MAX, nullptr), 0x0C, 0x0A, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF),
        ADDS(addWchar(h, 0xFFFFFFFFu, nullptr), 0x14, 0x04, 0xFF, 0xFF),
        ADDS(addChar(h, 0x7F, nullptr), 0x14, 0x04, 0x00, 0x7F),
    };
    Mem s(false);
    Bytes expected;
    for (const auto &[add, bytes] : rows) {
        ASSERT_EQ(VELCLIENT_OK, add(s.h));
        expected = cat(expected, bytes);
    }
    EXPECT_EQ(expected, s.fields());
}

TEST(FieldEncoding, MapEntriesCarryTheirNameField)
{
    Mem m;
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addInt32(m.h, 1, "x"));
    EXPECT_EQ(cat(kNameX, {0x08, 0x06, 0, 0, 0, 1}), m.fields());
    /* The documented one-entry map, header included. */
    Mem one;
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addUint8(one.h, 7, "a"));
    EXPECT_EQ((Bytes{0x2B, 0, 0, 0, 0x0C, 0x1C, 0x04, 'a', 0x00, 0x0C, 0x03, 0x07}), veltest::bytesOf(one.h));
}

TEST(FieldEncoding, VariableFieldsTakeTheSmallestLengthWidth)
{
    struct Row {
        std::uint32_t valueLength; /* a string's counts its NUL */
        Bytes header;              /* for a byte array; string and VWF differ in the type byte only */
    };
    const Row rows[] = {
        {252, {0x18, 0xFE}},
        {253, {0x18, 0xFF}},
        {254, {0x19, 0x01, 0x01}},
        {65532, {0x19, 0xFF, 0xFF}},
        {65533, {0x1A, 0x01, 0x00, 0x01}},
    };
    std::vector<std::uint8_t> data(65533, 0x5A);
    for (const Row &row : rows) {
        for (std::uint8_t base : {0x18, 0x1C, 0x24}) {
            SCOPED_TRACE(testing::Message() << "value length " << row.valueLength << " type " << int(base));
            Mem s(false, 70000);
            std::string text(row.valueLength - 1, 'c');
            velClient_returnCode_t rc =
                base == 0x18   ? velClient_container_addByteArray(s.h, data.data(), row.valueLength, nullptr)
                : base == 0x1C ? velClient_container_addString(s.h, text.c_str(), nullptr)
                               : velClient_container_addVwf(s.h, data.data(), row.valueLength, nullptr);
            ASSERT_EQ(VELCLIENT_OK, rc);
            Bytes f = s.fields();
            Bytes header = row.header;
            header[0] = static_cast<std::uint8_t>(header[0] - 0x18 + base);
            ASSERT_EQ(header.size() + row.valueLength, f.size());
            EXPECT_EQ(header, Bytes(f.begin(), f.begin() + static_cast<std::ptrdiff_t>(header.size())));
            velClient_field_t field{};
            ASSERT_EQ(VELCLIENT_OK, velClient_container_getNextField(s.h, &field, sizeof field, nullptr));
            EXPECT_EQ(row.valueLength, field.length);
        }
    }
    /* A map name follows the same rule: 253 characters and the NUL take the 2-byte form. */
    Mem m(true, 600);
    std::string name(253, 'n');
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addNull(m.h, name.c_str()));
    Bytes f = m.fields();
    EXPECT_EQ((Bytes{0x1D, 0x01, 0x01, 'n'}), Bytes(f.begin(), f.begin() + 4));
    EXPECT_EQ((Bytes{0x00, 0x00, 0x02}), Bytes(f.end() - 3, f.end())); /* the name's NUL, then the null field */
    /* Empty byte arrays and VWF data are two bytes and read back as null. */
    Mem e(false);
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addByteArray(e.h, data.data(), 0, nullptr));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addVwf(e.h, data.data(), 0, nullptr));
    EXPECT_EQ((Bytes{0x18, 0x02, 0x24, 0x02}), e.fields());
    velClient_field_t field{};
    ASSERT_EQ(VELCLIENT_OK, velClient_container_getNextField(e.h, &field, sizeof field, nullptr));
    EXPECT_EQ(VELCLIENT_BYTEARRAY, field.type);
    EXPECT_EQ(nullptr, field.value.bytearray);
    EXPECT_EQ(0u, field.length);
}

TEST(FieldEncoding, Destinations)
{
    Mem s(false);
    velClient_destination_t queue{VELCLIENT_QUEUE_DESTINATION, "q1"};
    velClient_destination_t tempTopic{VELCLIENT_TOPIC_TEMP_DESTINATION, "t"};
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addDestination(s.h, &queue, sizeof queue, nullptr));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addDestination(s.h, &tempTopic, sizeof tempTopic, nullptr));
    EXPECT_EQ((Bytes{0x20, 0x06, 0x01, 'q', '1', 0x00, 0x20, 0x05, 0x00, 't', 0x00}), s.fields());

    std::string n249(249, 'd'), n250(250, 'd');
    velClient_destination_t ok{VELCLIENT_TOPIC_DESTINATION, n249.c_str()};
    velClient_destination_t tooLong{VELCLIENT_TOPIC_DESTINATION, n250.c_str()};
    EXPECT_EQ(VELCLIENT_OK, velClient_container_addDestination(s.h, &ok, sizeof ok, nullptr));
    EXPECT_EQ(VELCLIENT_FAIL, velClient_container_addDestination(s.h, &tooLong, sizeof tooLong, nullptr));
    EXPECT_LAST_ERROR(VELCLIENT_SUBCODE_PARAM_OUT_OF_RANGE, "Attempt to add destination field in excess of 65K bytes");
}

TEST(FieldEncoding, DestinationChecksComeInOrder)
{
    Mem s(false);
    velClient_destination_t bad{static_cast<velClient_destinationType_t>(7), "x"};
    velClient_destination_t noName{VELCLIENT_QUEUE_DESTINATION, nullptr};
    EXPECT_EQ(VELCLIENT_FAIL, velClient_container_addDestination(s.h, nullptr, 0, nullptr));
    EXPECT_LAST_ERROR(VELCLIENT_SUBCODE_PARAM_NULL_PTR,
                      "Null velClient_destination_t pointer in velClient_container_addDestination");
    EXPECT_EQ(VELCLIENT_FAIL, velClient_container_addDestination(s.h, &bad, 4, nullptr));
    EXPECT_LAST_ERROR(VELCLIENT_SUBCODE_PARAM_OUT_OF_RANGE,
                      veltest::format("Unsupported destination structure size (received %d, expected %d) in "
                                      "velClient_container_addDestination",
                                      4, static_cast<int>(sizeof(velClient_destination_t))));
    EXPECT_EQ(VELCLIENT_FAIL, velClient_container_addDestination(s.h, &bad, sizeof bad, nullptr));
    EXPECT_LAST_ERROR(VELCLIENT_SUBCODE_PARAM_OUT_OF_RANGE, "Bad destType value of 7 in velClient_container_addDestination");
    EXPECT_EQ(VELCLIENT_FAIL, velClient_container_addDestination(s.h, &noName, sizeof noName, nullptr));
    EXPECT_LAST_ERROR(VELCLIENT_SUBCODE_PARAM_NULL_PTR, "Null dest pointer in velClient_container_addDestination");
    EXPECT_TRUE(s.fields().empty());
}

TEST(FieldEncoding, NameRulesAndValueRefusalsWriteNothing)
{
    Mem m, s(false);
    const auto null = VELCLIENT_SUBCODE_PARAM_NULL_PTR, range = VELCLIENT_SUBCODE_PARAM_OUT_OF_RANGE;
    velClient_opaqueContainer_pt mh = m.h, sh = s.h;
    veltest::expectRefusals({
        {[mh] { return velClient_container_addInt32(mh, 1, nullptr); }, null, "Attempt to add unnamed field to a map"},
        {[mh] { return velClient_container_addInt32(mh, 1, ""); }, null, "Attempt to add unnamed field to a map"},
        {[sh] { return velClient_container_addInt32(sh, 1, ""); }, range, "Attempt to add named field to a stream"},
        {[mh] { return velClient_container_addChar(mh, static_cast<char>(0x80), "c"); }, range,
         "Non Ascii characters may not be sent in velClient_container_addChar"},
        {[mh] { return velClient_container_addString(mh, nullptr, "s"); }, null,
         "Null value pointer in velClient_container_addString"},
        {[mh] { return velClient_container_addByteArray(mh, nullptr, 0, "b"); }, null,
         "Null byte array pointer in velClient_container_addByteArray"},
        {[mh] { return velClient_container_addVwf(mh, nullptr, 3, "v"); }, null, "Null VWF pointer in velClient_container_addVwf"},
    });
    EXPECT_TRUE(m.fields().empty());
    EXPECT_TRUE(s.fields().empty());
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addChar(m.h, 'z', "x"));
    EXPECT_EQ(cat(kNameX, {0x14, 0x04, 0x00, 0x7A}), m.fields());
}

TEST(FieldEncoding, UnknownFieldsPassThroughVerbatim)
{
    Mem s(false);
    const std::uint8_t field[] = {0x05, 0x00, 0x04, 0x01, 0xEE};
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addUnknownField(s.h, field, 4, nullptr));
    EXPECT_EQ((Bytes{0x05, 0x00, 0x04, 0x01}), s.fields());
    EXPECT_EQ(VELCLIENT_FAIL, velClient_container_addUnknownField(s.h, field, 5, nullptr));
    EXPECT_LAST_ERROR(VELCLIENT_SUBCODE_PARAM_OUT_OF_RANGE,
                      "Bad Format field in velClient_container_addUnknownField, encoded length (4) does not match field "
                      "length (5)");
    /* A length too short for the field's own header is refused without reading past it. */
    auto *two = new std::uint8_t[2]{0x07, 0x00};
    EXPECT_EQ(VELCLIENT_FAIL, velClient_container_addUnknownField(s.h, two, 2, nullptr));
    EXPECT_LAST_ERROR(VELCLIENT_SUBCODE_PARAM_OUT_OF_RANGE,
                      "Bad Format field in velClient_container_addUnknownField, encoded length (-1) does not match "
                      "field length (2)");
    delete[] two;
    EXPECT_EQ(VELCLIENT_FAIL, velClient_container_addUnknownField(s.h, field, 0, nullptr));
    EXPECT_LAST_ERROR(VELCLIENT_SUBCODE_PARAM_NULL_PTR,
                      "Null or empty field pointer in velClient_container_addUnknownField");
}

TEST(FieldEncoding, AFullApplicationContainerRefusesAndKeepsItsBytes)
{
    Mem tiny(true, 5);
    EXPECT_EQ(VELCLIENT_FAIL, velClient_container_addNull(tiny.h, "a"));
    EXPECT_LAST_ERROR(VELCLIENT_SUBCODE_INSUFFICIENT_SPACE, "Unable to add more structured data to container memory");
    Mem small(true, 20);
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addInt32(small.h, 1, "x")); /* 15 of 20 bytes used */
    EXPECT_EQ(VELCLIENT_FAIL, velClient_container_addInt32(small.h, 2, "y"));
    EXPECT_EQ(cat(kNameX, {0x08, 0x06, 0, 0, 0, 1}), small.fields());
    std::vector<char> four(4);
    velClient_opaqueContainer_pt h = nullptr;
    EXPECT_EQ(VELCLIENT_FAIL, velClient_container_createMap(&h, four.data(), four.size()));
    EXPECT_EQ(VELCLIENT_SUBCODE_PARAM_OUT_OF_RANGE, veltest::lastSubCode());
    EXPECT_EQ(std::vector<char>(4), four);
    EXPECT_EQ(VELCLIENT_FAIL, velClient_container_createMap(&h, nullptr, 10));
    EXPECT_LAST_ERROR(VELCLIENT_SUBCODE_PARAM_NULL_PTR, "Null memory pointer in velClient_container_createContainer");
}

TEST(FieldEncoding, AddContainerCopiesTheFinalisedBytesAndRefusesRelatives)
{
    Mem outer, inner(false, 64);
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addUint8(inner.h, 9, nullptr));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addContainer(outer.h, inner.h, "x"));
    EXPECT_EQ(cat(kNameX, {0x2F, 0, 0, 0, 8, 0x0C, 0x03, 0x09}), outer.fields());
    /* The source stays open and independent. */
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addUint8(inner.h, 10, nullptr));
    EXPECT_EQ(cat(kNameX, {0x2F, 0, 0, 0, 8, 0x0C, 0x03, 0x09}), outer.fields());

    velClient_opaqueContainer_pt child = nullptr;
    ASSERT_EQ(VELCLIENT_OK, velClient_container_openSubMap(outer.h, &child, "c"));
    const char *conflict =
        "Cannot add a container to itself, its ancestor or its descendant in velClient_container_addContainer";
    EXPECT_EQ(VELCLIENT_FAIL, velClient_container_addContainer(outer.h, outer.h, "self"));
    EXPECT_LAST_ERROR(VELCLIENT_SUBCODE_PARAM_CONFLICT, conflict);
    EXPECT_EQ(VELCLIENT_FAIL, velClient_container_addContainer(child, outer.h, "parent"));
    EXPECT_LAST_ERROR(VELCLIENT_SUBCODE_PARAM_CONFLICT, conflict);
    EXPECT_EQ(VELCLIENT_FAIL, velClient_container_addContainer(outer.h, child, "child"));
    EXPECT_LAST_ERROR(VELCLIENT_SUBCODE_PARAM_CONFLICT, conflict);
    ASSERT_EQ(VELCLIENT_OK, velClient_container_closeMapStream(&child));
    EXPECT_EQ(VELCLIENT_FAIL, velClient_container_addContainer(outer.h, nullptr, "n"));
    EXPECT_LAST_ERROR(VELCLIENT_SUBCODE_PARAM_NULL_PTR,
                      veltest::format("Bad subcontainer pointer (%p) in velClient_container_closeMapStream", nullptr));
}

TEST(FieldEncoding, AddContainerCopiesAnOpenNeighbourThatGrowthMoves)
{
    /* Two open streams in one message map: adding the first into the second
     * grows the message's bytes (moving the first) and hands back the first's
     * reserved room before the copy. */
    veltest::Msg msg;
    velClient_opaqueContainer_pt m = nullptr, a = nullptr, b = nullptr;
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_createBinaryAttachmentMap(msg.h, &m, 16));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_openSubStream(m, &a, "a"));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addInt16(a, 0x0102, nullptr));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_openSubStream(m, &b, "b"));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addContainer(b, a, nullptr));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addInt16(a, 0x0304, nullptr)); /* not seen by the copy */
    ASSERT_EQ(VELCLIENT_OK, velClient_container_closeMapStream(&b));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_closeMapStream(&a));
    Bytes expected = {0x2B, 0, 0, 0, 45,
                      0x1C, 0x04, 'a', 0x00, 0x2F, 0, 0, 0, 13, 0x08, 0x04, 1, 2, 0x08, 0x04, 3, 4,
                      0x1C, 0x04, 'b', 0x00, 0x2F, 0, 0, 0, 14, 0x2F, 0, 0, 0, 9, 0x08, 0x04, 1, 2};
    expected[4] = static_cast<std::uint8_t>(expected.size());
    EXPECT_EQ(expected, veltest::bytesOf(m));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_closeMapStream(&m));
}
