/* The bytes every add writes, the name rules, and the refusals of the adds. */
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

TEST(FieldEncoding, ScalarBitsAndTheLengthWidthsOfVariableFields)
{
    const std::pair<std::function<velClient_returnCode_t(velClient_opaqueContainer_pt)>, Bytes> rows[] = {
        ADDS(addNull(h, nullptr), 0x00, 0x02),
        ADDS(addBoolean(h, 5, nullptr), 0x04, 0x03, 0x01), /* true from 5 */
        ADDS(addInt32(h, -2, nullptr), 0x08, 0x06, 0xFF, 0xFF, 0xFF, 0xFE),
        ADDS(addUint16(h, 0x1234, nullptr), 0x0C, 0x04, 0x12, 0x34),
        ADDS(addFloat(h, 1.0f, nullptr), 0x10, 0x06, 0x3F, 0x80, 0x00, 0x00),
        ADDS(addChar(h, 'A', nullptr), 0x14, 0x04, 0x00, 0x41),
        ADDS(addWchar(h, 0x10041, nullptr), 0x14, 0x04, 0x00, 0x41), /* a wide character keeps 16 bits */
        ADDS(addString(h, "ab", nullptr), 0x1C, 0x05, 'a', 'b', 0x00),
        ADDS(addUint64(h, 0x0102030405060708ull, nullptr), 0x0C, 0x0A, 1, 2, 3, 4, 5, 6, 7, 8),
        ADDS(addDouble(h, -2.0, nullptr), 0x10, 0x0A, 0xC0, 0, 0, 0, 0, 0, 0, 0),
        ADDS(addInt8(h, INT8_MIN, nullptr), 0x08, 0x03, 0x80), ADDS(addUint8(h, UINT8_MAX, nullptr), 0x0C, 0x03, 0xFF),
        ADDS(addInt16(h, INT16_MIN, nullptr), 0x08, 0x04, 0x80, 0x00),
        ADDS(addUint32(h, UINT32_MAX, nullptr), 0x0C, 0x06, 0xFF, 0xFF, 0xFF, 0xFF),
        ADDS(addInt64(h, INT64_MIN, nullptr), 0x08, 0x0A, 0x80, 0, 0, 0, 0, 0, 0, 0),
    };
    Mem s(false);
    Bytes expected;
    for (const auto &[add, bytes] : rows) {
        ASSERT_EQ(VELCLIENT_OK, add(s.h));
        expected = cat(expected, bytes);
    }
    EXPECT_EQ(expected, s.fields());
    /* Variable fields take the smallest length width: a byte array's header on each side of both boundaries. */
    const std::pair<std::uint32_t, Bytes> widths[] = {
        {253, {0x18, 0xFF}}, {254, {0x19, 0x01, 0x01}}, {65532, {0x19, 0xFF, 0xFF}}, {65533, {0x1A, 0x01, 0x00, 0x01}}};
    const Bytes data(65533, 0x5A);
    for (const auto &[length, header] : widths) {
        Mem w(false, 70000);
        ASSERT_EQ(VELCLIENT_OK, velClient_container_addByteArray(w.h, data.data(), length, nullptr));
        EXPECT_EQ(cat(header, Bytes(data.begin(), data.begin() + length)), w.fields()) << length;
    }
    /* Empty values are two bytes. */
    Mem e(false);
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addByteArray(e.h, data.data(), 0, nullptr));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addVwf(e.h, data.data(), 0, nullptr));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addString(e.h, "", nullptr));
    EXPECT_EQ((Bytes{0x18, 0x02, 0x24, 0x02, 0x1C, 0x03, 0x00}), e.fields());
}

/* Destinations and unknown fields, and the refusals of every add; a refusal writes nothing. */
TEST(FieldEncoding, DestinationsUnknownFieldsAndRefusals)
{
    Mem s(false), m;
    velClient_destination_t queue{VELCLIENT_QUEUE_DESTINATION, "q1"}, tempTopic{VELCLIENT_TOPIC_TEMP_DESTINATION, "t"};
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addDestination(s.h, &queue, sizeof queue, nullptr));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addDestination(s.h, &tempTopic, sizeof tempTopic, nullptr));
    const std::uint8_t unknown[] = {0x05, 0x00, 0x04, 0x01, 0xEE};
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addUnknownField(s.h, unknown, 4, nullptr)); /* verbatim */
    EXPECT_EQ((Bytes{0x20, 0x06, 0x01, 'q', '1', 0x00, 0x20, 0x05, 0x00, 't', 0x00, 0x05, 0x00, 0x04, 0x01}), s.fields());
    std::string n249(249, 'd'), n250(250, 'd');
    velClient_destination_t ok{VELCLIENT_TOPIC_DESTINATION, n249.c_str()}, tooLong{VELCLIENT_TOPIC_DESTINATION, n250.c_str()};
    EXPECT_EQ(VELCLIENT_OK, velClient_container_addDestination(s.h, &ok, sizeof ok, nullptr));
    /* A length too short for the field's own header is refused without reading past it. */
    std::unique_ptr<std::uint8_t[]> two(new std::uint8_t[2]{0x07, 0x00});
    velClient_destination_t bad{static_cast<velClient_destinationType_t>(7), "x"}, noName{VELCLIENT_QUEUE_DESTINATION, nullptr};
    const auto N = VELCLIENT_SUBCODE_PARAM_NULL_PTR, R = VELCLIENT_SUBCODE_PARAM_OUT_OF_RANGE;
    const std::string badFormat = "Bad Format field in velClient_container_addUnknownField, encoded length ";
    const size_t kDest = sizeof(velClient_destination_t);
    /* A full container in application memory refuses and keeps its bytes. */
    Mem small(true, 20);
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addInt32(small.h, 1, "x")); /* 15 of 20 bytes used */
    std::vector<char> four(4);
    velClient_opaqueContainer_pt h = nullptr;
    const std::string full = "Unable to add more structured data to container memory";
    Bytes before = s.fields();
    veltest::expectRefusals({ /* in the order the checks come */
        REFUSE(velClient_container_addDestination(s.h, &tooLong, kDest, nullptr), R,
               "Attempt to add destination field in excess of 65K bytes"),
        REFUSE_IN(velClient_container_addDestination, (s.h, nullptr, 0, nullptr), N,
                  "Null velClient_destination_t pointer"),
        REFUSE(velClient_container_addDestination(s.h, &bad, 4, nullptr), R,
               veltest::format("Unsupported destination structure size (received 4, expected %d) in "
                               "velClient_container_addDestination", static_cast<int>(kDest))),
        REFUSE_IN(velClient_container_addDestination, (s.h, &bad, kDest, nullptr), R, "Bad destType value of 7"),
        REFUSE_IN(velClient_container_addDestination, (s.h, &noName, kDest, nullptr), N, "Null dest pointer"),
        REFUSE(velClient_container_addUnknownField(s.h, unknown, 5, nullptr), R,
               badFormat + "(4) does not match field length (5)"),
        REFUSE(velClient_container_addUnknownField(s.h, two.get(), 2, nullptr), R,
               badFormat + "(-1) does not match field length (2)"),
        REFUSE_IN(velClient_container_addUnknownField, (s.h, unknown, 0, nullptr), N, "Null or empty field pointer"),
        /* Names, and values of other types. */
        REFUSE(velClient_container_addInt32(m.h, 1, nullptr), N, "Attempt to add unnamed field to a map"),
        REFUSE(velClient_container_addInt32(m.h, 1, ""), N, "Attempt to add unnamed field to a map"),
        REFUSE(velClient_container_addInt32(s.h, 1, ""), R, "Attempt to add named field to a stream"),
        REFUSE_IN(velClient_container_addChar, (m.h, static_cast<char>(0x80), "c"), R,
                  "Non Ascii characters may not be sent"),
        REFUSE_IN(velClient_container_addString, (m.h, nullptr, "s"), N, "Null value pointer"),
        REFUSE_IN(velClient_container_addByteArray, (m.h, nullptr, 0, "b"), N, "Null byte array pointer"),
        REFUSE_IN(velClient_container_addVwf, (m.h, nullptr, 3, "v"), N, "Null VWF pointer"),
        REFUSE(velClient_container_addInt32(small.h, 2, "y"), VELCLIENT_SUBCODE_INSUFFICIENT_SPACE, full),
        REFUSE(velClient_container_createMap(&h, four.data(), four.size()), R,
               "Memory size of 4 is below the 5-byte container header in velClient_container_createContainer"),
        REFUSE(velClient_container_createMap(&h, nullptr, 10), N,
               "Null memory pointer in velClient_container_createContainer"),
        REFUSE(velClient_container_createStream(nullptr, four.data(), four.size()), N,
               "Null container pointer in velClient_container_createContainer"),
        REFUSE(velClient_container_openMapFromPtr(nullptr, four.data(), 4), N,
               "Null map_p pointer in velClient_container_openMapFromPtr"),
        REFUSE(velClient_container_openMapFromPtr(&h, nullptr, 4), N,
               "Null buf_p pointer in velClient_container_openMapFromPtr"),
    });
    EXPECT_EQ(std::vector<char>(4), four);
    EXPECT_EQ(cat(kNameX, {0x08, 0x06, 0, 0, 0, 1}), small.fields());
    EXPECT_EQ(before, s.fields());
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addChar(m.h, 'z', "x"));
    EXPECT_EQ(cat(kNameX, {0x14, 0x04, 0x00, 0x7A}), m.fields());
}

TEST(FieldEncoding, AddContainerCopiesTheFinalisedBytesAndRefusesRelatives)
{
    Mem outer, inner(false, 64);
    const Bytes copied = cat(kNameX, {0x2F, 0, 0, 0, 8, 0x0C, 0x03, 0x09});
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addUint8(inner.h, 9, nullptr));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addContainer(outer.h, inner.h, "x"));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addUint8(inner.h, 10, nullptr)); /* the source stays independent */
    EXPECT_EQ(copied, outer.fields());
    velClient_opaqueContainer_pt child = nullptr;
    ASSERT_EQ(VELCLIENT_OK, velClient_container_openSubMap(outer.h, &child, "c"));
    using Pair = std::pair<velClient_opaqueContainer_pt, velClient_opaqueContainer_pt>;
    for (auto [to, from] : {Pair{outer.h, outer.h}, Pair{child, outer.h}, Pair{outer.h, child}}) {
        EXPECT_EQ(VELCLIENT_FAIL, velClient_container_addContainer(to, from, "n"));
        EXPECT_LAST_ERROR(VELCLIENT_SUBCODE_PARAM_CONFLICT, "Cannot add a container to itself, its ancestor or its "
                                                            "descendant in velClient_container_addContainer");
    }
    ASSERT_EQ(VELCLIENT_OK, velClient_container_closeMapStream(&child));
    EXPECT_EQ(VELCLIENT_FAIL, velClient_container_addContainer(outer.h, nullptr, "n"));
    EXPECT_LAST_ERROR(VELCLIENT_SUBCODE_PARAM_NULL_PTR,
                      veltest::format("Bad subcontainer pointer (%p) in velClient_container_closeMapStream", nullptr));
}
