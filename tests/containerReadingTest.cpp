/* Reading containers: the cursor after hits and misses, lookups (also after
 * the bytes changed since an earlier lookup), sizes, and malformed bytes
 * refused without reading past them. */
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "support/velTestSupport.h"

using veltest::container;
using Exact = veltest::Container;

namespace {

/* map { a: 1, b: 2, a: 3 } */
const std::vector<std::uint8_t> kABA = container(0x2B, {0x1C, 0x04, 'a', 0, 0x0C, 0x03, 1, 0x1C, 0x04, 'b', 0,
                                                          0x0C, 0x03, 2, 0x1C, 0x04, 'a', 0, 0x0C, 0x03, 3});

} // namespace

TEST(Reading, EmptyContainers)
{
    for (std::uint8_t type : {std::uint8_t{0x2B}, std::uint8_t{0x2F}}) {
        Exact e(container(type, {}));
        ASSERT_EQ(VELCLIENT_OK, e.rc);
        velClient_field_t f;
        const char *name = nullptr;
        EXPECT_EQ(0, velClient_container_hasNextField(e.h));
        EXPECT_EQ(VELCLIENT_EOS, velClient_container_getNextField(e.h, &f, sizeof f, &name));
        if (type == 0x2B) {
            EXPECT_EQ(VELCLIENT_NOT_FOUND, velClient_container_getField(e.h, &f, sizeof f, "x"));
        }
    }
}

TEST(Reading, TheCursorAfterHitsAndMisses)
{
    Exact e(kABA);
    ASSERT_EQ(VELCLIENT_OK, e.rc);
    velClient_field_t f;
    const char *name = nullptr;
    ASSERT_EQ(VELCLIENT_OK, velClient_container_getField(e.h, &f, sizeof f, "a"));
    EXPECT_EQ(1, f.value.uint8); /* the first of two entries named a */
    ASSERT_EQ(VELCLIENT_OK, velClient_container_getNextField(e.h, &f, sizeof f, &name));
    EXPECT_STREQ("b", name); /* the entry after the hit */
    EXPECT_EQ(VELCLIENT_NOT_FOUND, velClient_container_getField(e.h, &f, sizeof f, "zz"));
    EXPECT_EQ(VELCLIENT_EOS, velClient_container_getNextField(e.h, &f, sizeof f, &name));
    EXPECT_EQ(VELCLIENT_EOS, velClient_container_getNextField(e.h, &f, sizeof f, &name));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_rewind(e.h));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_getNextField(e.h, &f, sizeof f, &name));
    EXPECT_STREQ("a", name);
    EXPECT_EQ(VELCLIENT_FAIL, velClient_container_getField(e.h, &f, sizeof f, ""));
    EXPECT_LAST_ERROR(VELCLIENT_SUBCODE_PARAM_NULL_PTR,
                      "Null or Empty Name pointer in _velClient_container_getFieldAndTypeByName");
    EXPECT_EQ(VELCLIENT_FAIL, velClient_container_getField(e.h, &f, 3, "a"));
    EXPECT_LAST_ERROR(VELCLIENT_SUBCODE_PARAM_OUT_OF_RANGE,
                      veltest::format("Unsupported field structure size (received 3, expected %d) in "
                                      "velClient_container_getField",
                                      static_cast<int>(sizeof f)));
    size_t size = 0;
    ASSERT_EQ(VELCLIENT_OK, velClient_container_getSize(e.h, &size));
    EXPECT_EQ(kABA.size(), size);
}

TEST(Reading, AnEmptyKeyWithoutItsNulIsAnEntry)
{
    /* The key field is only its type and length (2 bytes); a lookup that misses walks
     * to a value ending exactly at the end of the map. */
    Exact e(container(0x2B, {0x1C, 0x02, 0x0C, 0x03, 7}));
    ASSERT_EQ(VELCLIENT_OK, e.rc);
    velClient_field_t f;
    EXPECT_EQ(VELCLIENT_NOT_FOUND, velClient_container_getField(e.h, &f, sizeof f, "zz"));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_rewind(e.h));
    const char *name = "untouched";
    ASSERT_EQ(VELCLIENT_OK, velClient_container_getNextField(e.h, &f, sizeof f, &name));
    EXPECT_EQ(7, f.value.uint8);
}

TEST(Reading, AStreamRefusesANameWithoutMovingItsCursor)
{
    Exact e(container(0x2F, {0x0C, 0x03, 7, 0x0C, 0x03, 8}));
    ASSERT_EQ(VELCLIENT_OK, e.rc);
    velClient_field_t f;
    EXPECT_EQ(VELCLIENT_FAIL, velClient_container_getField(e.h, &f, sizeof f, "x"));
    EXPECT_LAST_ERROR(VELCLIENT_SUBCODE_PARAM_CONFLICT,
                      "Stream with non-NULL name pointer in velClient_container_getField");
    ASSERT_EQ(VELCLIENT_OK, velClient_container_getField(e.h, &f, sizeof f, nullptr));
    EXPECT_EQ(7, f.value.uint8);
}

TEST(Reading, ANestedContainerReadTwiceIsTheSameContainer)
{
    Exact e(container(0x2B, {0x1C, 0x04, 's', 0, 0x2F, 0, 0, 0, 8, 0x0C, 0x03, 5}));
    ASSERT_EQ(VELCLIENT_OK, e.rc);
    velClient_opaqueContainer_pt first = nullptr, second = nullptr;
    EXPECT_EQ(VELCLIENT_FAIL, velClient_container_getSubMap(e.h, &first, "s"));
    EXPECT_LAST_ERROR(VELCLIENT_SUBCODE_INVALID_DATA_CONVERSION, "Field Type Stream could not be converted to Map");
    ASSERT_EQ(VELCLIENT_OK, velClient_container_getSubStream(e.h, &first, "s"));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_getSubStream(e.h, &second, "s"));
    EXPECT_EQ(first, second);
    ASSERT_EQ(VELCLIENT_OK, velClient_container_closeMapStream(&second));
    velClient_uint8_t v = 0;
    EXPECT_EQ(VELCLIENT_OK, velClient_container_getUint8(first, &v, nullptr)); /* one reference left */
    EXPECT_EQ(5, v);
}

TEST(Reading, MalformedBytesAreRefusedExactly)
{
    struct Case {
        std::vector<std::uint8_t> fields;
        velClient_subCode_t subCode;
        const char *text;
    } cases[] = {
        {{0x0C, 0x03, 1}, VELCLIENT_SUBCODE_COMMUNICATION_ERROR, "Invalid type in TLV string in structured data container"},
        {{0x1C, 0x04, 'a', 'b', 0x0C, 0x03, 1}, VELCLIENT_SUBCODE_COMMUNICATION_ERROR,
         "Invalid length in TLV string in structured data container"},
        {{0x1C, 0x04, 'a', 0, 0x0C, 0x09, 1}, VELCLIENT_SUBCODE_COMMUNICATION_ERROR, "Invalid entry in structured data map"},
        {{0x1C, 0x04, 'a', 0, 0x00, 0x01}, VELCLIENT_SUBCODE_COMMUNICATION_ERROR, "Invalid entry in structured data TLV"},
        {{0x1C, 0x04, 'a', 0, 0x00, 0x00}, VELCLIENT_SUBCODE_COMMUNICATION_ERROR, "Invalid entry in structured data TLV"},
        {{0x1C, 0x04, 'a', 0, 0x2B, 0, 0, 0, 4}, VELCLIENT_SUBCODE_COMMUNICATION_ERROR, "Invalid entry in structured data TLV"},
        {{0x1C, 0x04, 'a', 0, 0x0C, 0x05, 1, 2, 3}, VELCLIENT_SUBCODE_COMMUNICATION_ERROR, "Invalid entry in structured data TLV"},
        {{0x1C, 0x04, 'a', 0, 0x1F, 0xFF, 0xFF, 0xFF, 0xFF}, VELCLIENT_SUBCODE_COMMUNICATION_ERROR,
         "Invalid entry in structured data TLV"},
        {{0x1C, 0x04, 'a', 0}, VELCLIENT_SUBCODE_COMMUNICATION_ERROR, "Invalid entry in structured data map"},
        {{0x1D, 0x00}, VELCLIENT_SUBCODE_COMMUNICATION_ERROR, "Invalid entry in structured data map"},
    };
    for (const Case &c : cases) {
        Exact e(container(0x2B, c.fields));
        ASSERT_EQ(VELCLIENT_OK, e.rc);
        velClient_field_t f;
        const char *name = nullptr;
        EXPECT_EQ(VELCLIENT_FAIL, velClient_container_getNextField(e.h, &f, sizeof f, &name)) << c.text;
        EXPECT_LAST_ERROR(c.subCode, c.text);
        EXPECT_EQ(VELCLIENT_FAIL, velClient_container_getField(e.h, &f, sizeof f, "a"));
    }
}

TEST(Reading, RefusalsOfTheUntypedReaders)
{
    char mapMem[32], streamMem[32];
    velClient_opaqueContainer_pt map = nullptr, stream = nullptr;
    ASSERT_EQ(VELCLIENT_OK, velClient_container_createMap(&map, mapMem, sizeof mapMem));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_createStream(&stream, streamMem, sizeof streamMem));
    velClient_field_t f{};
    const char *name = nullptr;
    void *ptr = nullptr;
    velClient_uint32_t len = 0;
    const int expected = static_cast<int>(sizeof f);
    veltest::expectRefusals({
        {[&] { return velClient_container_getNextField(map, nullptr, sizeof f, &name); }, VELCLIENT_SUBCODE_PARAM_NULL_PTR,
         "Null field_p in velClient_container_getNextField"},
        {[&] { return velClient_container_getNextField(map, &f, sizeof f + 4, &name); }, VELCLIENT_SUBCODE_PARAM_OUT_OF_RANGE,
         veltest::format("Unsupported field structure size (received %d, expected %d) in "
                         "velClient_container_getNextField",
                         expected + 4, expected)},
        {[&] { return velClient_container_getNextField(map, &f, sizeof f, nullptr); }, VELCLIENT_SUBCODE_PARAM_NULL_PTR,
         "Null name_p in velClient_container_getNextField"},
        {[&] { return velClient_container_getField(map, &f, sizeof f - 4, "k"); }, VELCLIENT_SUBCODE_PARAM_OUT_OF_RANGE,
         veltest::format("Unsupported field structure size (received %d, expected %d) in "
                         "velClient_container_getField",
                         expected - 4, expected)},
        {[&] { return velClient_container_getField(map, nullptr, sizeof f, "k"); }, VELCLIENT_SUBCODE_PARAM_NULL_PTR,
         "Null value pointer in velClient_container_getField"},
        {[&] { return velClient_container_getField(map, &f, sizeof f, nullptr); }, VELCLIENT_SUBCODE_PARAM_NULL_PTR,
         "No name pointer in velClient_container_getField"},
        {[&] { return velClient_container_getField(stream, &f, sizeof f, "k"); }, VELCLIENT_SUBCODE_PARAM_CONFLICT,
         "Stream with non-NULL name pointer in velClient_container_getField"},
        {[&] { return velClient_container_getSize(map, nullptr); }, VELCLIENT_SUBCODE_PARAM_NULL_PTR,
         "Null size pointer in velClient_container_getSize"},
        {[&] { return velClient_container_getContainerPtr(map, &ptr, nullptr); }, VELCLIENT_SUBCODE_PARAM_NULL_PTR,
         "Null size pointer in velClient_container_getContainerPtr"},
        {[&] { return velClient_container_getContainerPtr(map, nullptr, &len); }, VELCLIENT_SUBCODE_PARAM_NULL_PTR,
         "Null bufPtr_p pointer in velClient_container_getContainerPtr"},
    });
    /* A stream takes no name in getNextField: it is set to null. */
    name = "untouched";
    EXPECT_EQ(VELCLIENT_EOS, velClient_container_getNextField(stream, &f, sizeof f, &name));
    EXPECT_EQ(nullptr, name);
    velClient_container_closeMapStream(&map);
    velClient_container_closeMapStream(&stream);
}

/* ---- Lookups after earlier reads ----------------------------------------------
 * A map remembers where the entries it has already found well formed begin,
 * so these tests read, change the bytes, and read again. */

namespace {

velClient_int32_t int32At(velClient_opaqueContainer_pt h, const char *name, velClient_returnCode_t expect = VELCLIENT_OK)
{
    velClient_int32_t v = -1;
    EXPECT_EQ(expect, velClient_container_getInt32(h, &v, name)) << name;
    return v;
}

} // namespace

TEST(Reading, LookupsFollowDeletesAndGrowthInTheMiddle)
{
    veltest::Msg msg;
    velClient_opaqueContainer_pt m = nullptr, sub = nullptr;
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_createBinaryAttachmentMap(msg.h, &m, 64));
    for (int i = 0; i < 4; ++i)
        ASSERT_EQ(VELCLIENT_OK, velClient_container_addInt32(m, i + 1, std::string(1, static_cast<char>('a' + i)).c_str()));
    EXPECT_EQ(4, int32At(m, "d")); /* every entry is now known */

    ASSERT_EQ(VELCLIENT_OK, velClient_container_deleteField(m, "b"));
    EXPECT_EQ(4, int32At(m, "d"));
    EXPECT_EQ(3, int32At(m, "c"));
    int32At(m, "b", VELCLIENT_NOT_FOUND);
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addInt32(m, 20, "b"));
    EXPECT_EQ(20, int32At(m, "b"));

    /* A nested map that grows pushes the entries after it further on. */
    ASSERT_EQ(VELCLIENT_OK, velClient_container_openSubMap(m, &sub, "s"));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addInt32(sub, 0, "k00"));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_closeMapStream(&sub));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addInt32(m, 5, "e"));
    EXPECT_EQ(5, int32At(m, "e"));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_getSubMap(m, &sub, "s"));
    for (int i = 1; i < 40; ++i) {
        char name[8];
        std::snprintf(name, sizeof name, "k%02d", i);
        ASSERT_EQ(VELCLIENT_OK, velClient_container_addInt32(sub, i, name));
    }
    EXPECT_EQ(5, int32At(m, "e"));
    EXPECT_EQ(39, int32At(sub, "k39"));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_closeMapStream(&sub));
    EXPECT_EQ(5, int32At(m, "e"));
    EXPECT_EQ(20, int32At(m, "b"));
    EXPECT_EQ((std::vector<std::string>{"a", "c", "d", "b", "s", "e"}), veltest::names(m));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_closeMapStream(&m));
}

TEST(Reading, LookupsInALongMapKeepFirstMatchAndCursorRules)
{
    /* More entries than a map remembers, and a key given twice past them. */
    std::vector<char> mem(2048);
    velClient_opaqueContainer_pt m = nullptr;
    ASSERT_EQ(VELCLIENT_OK, velClient_container_createMap(&m, mem.data(), mem.size()));
    for (int i = 0; i < 40; ++i) {
        char name[8];
        std::snprintf(name, sizeof name, "k%02d", i);
        ASSERT_EQ(VELCLIENT_OK, velClient_container_addInt32(m, i, name));
    }
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addInt32(m, 100, "k30"));
    velClient_field_t f;
    const char *name = nullptr;
    for (int round = 0; round < 2; ++round) {
        EXPECT_EQ(39, int32At(m, "k39"));
        EXPECT_EQ(5, int32At(m, "k05"));
        EXPECT_EQ(30, int32At(m, "k30"));
        ASSERT_EQ(VELCLIENT_OK, velClient_container_getNextField(m, &f, sizeof f, &name));
        EXPECT_STREQ("k31", name); /* the cursor rests on the match */
        EXPECT_EQ(10, int32At(m, "k10"));
        ASSERT_EQ(VELCLIENT_OK, velClient_container_getNextField(m, &f, sizeof f, &name));
        EXPECT_STREQ("k11", name);
        int32At(m, "k40", VELCLIENT_NOT_FOUND);
        EXPECT_EQ(VELCLIENT_EOS, velClient_container_getNextField(m, &f, sizeof f, &name));
    }
    /* Reading through first, then looking up. */
    std::vector<char> mem2(256);
    velClient_opaqueContainer_pt read = nullptr;
    ASSERT_EQ(VELCLIENT_OK, velClient_container_createMap(&read, mem2.data(), mem2.size()));
    for (const char *key : {"x", "y", "x"})
        ASSERT_EQ(VELCLIENT_OK, velClient_container_addInt32(read, key[0], key));
    EXPECT_EQ((std::vector<std::string>{"x", "y", "x"}), veltest::names(read));
    EXPECT_EQ('y', int32At(read, "y"));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_getNextField(read, &f, sizeof f, &name));
    EXPECT_STREQ("x", name);
    velClient_container_closeMapStream(&read);
    velClient_container_closeMapStream(&m);
}

TEST(Reading, AMalformedEntryAfterWellFormedOnesFailsEveryLookupThatReachesIt)
{
    /* a: 1, w: 9 with a 2-byte key length, b: 2, then x: a text without its NUL. */
    Exact e(container(0x2B, {0x1C, 0x04, 'a', 0,    0x0C, 0x03, 1,   0x1D, 0x00, 0x05, 'w', 0, 0x0C, 0x03, 9,
                             0x1C, 0x04, 'b', 0,    0x0C, 0x03, 2,   0x1C, 0x04, 'x', 0,   0x1C, 0x04, 'h', 'i'}));
    ASSERT_EQ(VELCLIENT_OK, e.rc);
    velClient_uint8_t v = 0;
    for (int round = 0; round < 2; ++round) {
        ASSERT_EQ(VELCLIENT_OK, velClient_container_getUint8(e.h, &v, "b"));
        EXPECT_EQ(2, v);
        ASSERT_EQ(VELCLIENT_OK, velClient_container_getUint8(e.h, &v, "w"));
        EXPECT_EQ(9, v);
        EXPECT_EQ(VELCLIENT_FAIL, velClient_container_getUint8(e.h, &v, "zz"));
        EXPECT_LAST_ERROR(VELCLIENT_SUBCODE_COMMUNICATION_ERROR, "Invalid entry in structured data TLV");
        velClient_field_t f;
        const char *name = nullptr;
        /* Nothing is undone: the next read starts after x's key, on its value. */
        EXPECT_EQ(VELCLIENT_FAIL, velClient_container_getNextField(e.h, &f, sizeof f, &name));
        EXPECT_LAST_ERROR(VELCLIENT_SUBCODE_COMMUNICATION_ERROR,
                          "Invalid length in TLV string in structured data container");
        EXPECT_EQ(VELCLIENT_FAIL, velClient_container_getField(e.h, &f, sizeof f, "x"));
        ASSERT_EQ(VELCLIENT_OK, velClient_container_getUint8(e.h, &v, "a"));
        EXPECT_EQ(1, v);
    }
}
