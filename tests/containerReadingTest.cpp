/* Reading containers: the cursor after hits and misses, lookups (also after
 * the bytes changed since an earlier lookup), sizes, and malformed bytes
 * refused without reading past them. */
#include <algorithm>
#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "support/velTestSupport.h"

using veltest::container;
using veltest::format;
using Exact = veltest::Container;

namespace {

velClient_field_t f;
const char *name = nullptr;

velClient_returnCode_t next(velClient_opaqueContainer_pt h)
{
    return velClient_container_getNextField(h, &f, sizeof f, &name);
}

velClient_int32_t int32At(velClient_opaqueContainer_pt h, const char *key, velClient_returnCode_t expect = VELCLIENT_OK)
{
    velClient_int32_t v = -1;
    EXPECT_EQ(expect, velClient_container_getInt32(h, &v, key)) << key;
    return v;
}

} // namespace

TEST(Reading, TheCursorAfterHitsAndMisses)
{
    for (std::uint8_t type : {0x2B, 0x2F}) { /* empty containers */
        Exact e(container(type, {}));
        EXPECT_EQ(0, velClient_container_hasNextField(e.h));
        EXPECT_EQ(VELCLIENT_EOS, next(e.h));
    }
    /* map { a: 1, b: 2, a: 3 } */
    Exact e(container(0x2B, {0x1C, 0x04, 'a', 0, 0x0C, 0x03, 1, 0x1C, 0x04, 'b', 0, 0x0C, 0x03, 2, 0x1C, 0x04, 'a', 0,
                             0x0C, 0x03, 3}));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_getField(e.h, &f, sizeof f, "a"));
    EXPECT_EQ(1, f.value.uint8); /* the first of two entries named a */
    ASSERT_EQ(VELCLIENT_OK, next(e.h));
    EXPECT_STREQ("b", name); /* the entry after the hit */
    std::memset(&f, 0xA5, sizeof f);
    const velClient_field_t untouched = f; /* a lookup writes only the entry found into the caller's field */
    EXPECT_EQ(VELCLIENT_NOT_FOUND, velClient_container_getField(e.h, &f, sizeof f, "zz"));
    EXPECT_EQ(0, std::memcmp(&untouched, &f, sizeof f));
    EXPECT_EQ(VELCLIENT_EOS, next(e.h));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_rewind(e.h));
    ASSERT_EQ(VELCLIENT_OK, next(e.h));
    EXPECT_STREQ("a", name);
    EXPECT_EQ(VELCLIENT_FAIL, velClient_container_getField(e.h, &f, sizeof f, ""));
    EXPECT_LAST_ERROR(VELCLIENT_SUBCODE_PARAM_NULL_PTR,
                      "Null or Empty Name pointer in _velClient_container_getFieldAndTypeByName");
    /* An empty key without its NUL is an entry; a miss walks to a value ending the map. */
    Exact k(container(0x2B, {0x1C, 0x02, 0x0C, 0x03, 7}));
    EXPECT_EQ(VELCLIENT_NOT_FOUND, velClient_container_getField(k.h, &f, sizeof f, "zz"));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_rewind(k.h));
    ASSERT_EQ(VELCLIENT_OK, next(k.h));
    EXPECT_EQ(7, f.value.uint8);
    /* A stream refuses a name without moving its cursor, but a failed conversion consumes the field. */
    Exact s(container(0x2F, {0x1C, 0x04, 'x', 0, 0x0C, 0x03, 7}));
    EXPECT_EQ(VELCLIENT_FAIL, velClient_container_getField(s.h, &f, sizeof f, "x"));
    velClient_int32_t i = 0;
    EXPECT_EQ(VELCLIENT_FAIL, velClient_container_getInt32(s.h, &i, "x"));
    EXPECT_LAST_ERROR(VELCLIENT_SUBCODE_PARAM_CONFLICT, "Stream with non-NULL name pointer in velClient_container_getInt32");
    EXPECT_EQ(VELCLIENT_FAIL, velClient_container_getInt32(s.h, &i, nullptr));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_getField(s.h, &f, sizeof f, nullptr));
    EXPECT_EQ(7, f.value.uint8);
    name = "untouched"; /* a stream's entries have no name: it is set to null */
    EXPECT_EQ(VELCLIENT_EOS, next(s.h));
    EXPECT_EQ(nullptr, name);
}

/* A cursor that reached the end of a message's map reads next what is added
 * after it, also when the add has to grow the map's bytes (an open sub-map
 * holds all the room that its parent had). */
TEST(Reading, TheCursorAtTheEndReadsWhatIsAddedNext)
{
    veltest::Msg m;
    velClient_opaqueContainer_pt map = nullptr, sub = nullptr, last = nullptr;
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_createBinaryAttachmentMap(m.h, &map, 16));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_openSubMap(map, &sub, "a"));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addInt32(sub, 8, "y"));
    ASSERT_EQ(VELCLIENT_OK, next(map));
    EXPECT_STREQ("a", name);
    ASSERT_EQ(VELCLIENT_MAP, f.type);
    EXPECT_EQ(sub, f.value.map); /* the open sub-map itself, one more reference */
    EXPECT_EQ(VELCLIENT_OK, velClient_container_closeMapStream(&f.value.map));
    EXPECT_EQ(VELCLIENT_EOS, next(map));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addInt32(map, 7, "x"));
    ASSERT_EQ(VELCLIENT_OK, next(map));
    EXPECT_STREQ("x", name);
    EXPECT_EQ(7, f.value.int32);
    EXPECT_EQ(VELCLIENT_EOS, next(map));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_openSubMap(map, &last, std::string(300, 'L').c_str()));
    ASSERT_EQ(VELCLIENT_OK, next(map));
    EXPECT_EQ(300u, std::strlen(name));
    EXPECT_EQ(last, f.value.map);
    EXPECT_EQ(VELCLIENT_OK, velClient_container_closeMapStream(&f.value.map));
    EXPECT_EQ(VELCLIENT_EOS, next(map));
    for (velClient_opaqueContainer_pt *h : {&last, &sub, &map})
        EXPECT_EQ(VELCLIENT_OK, velClient_container_closeMapStream(h));
}

/* A malformed entry's length moves the cursor past the written bytes; once
 * the map has grown an open sub-map there, what the cursor finds inside it is
 * refused rather than opened as a second record over the same bytes. */
TEST(Reading, AnEntryFoundInsideAnOpenSubMapIsRefused)
{
    veltest::Msg m;
    const veltest::Bytes bytes = {0x2B, 0, 0, 0, 11, 0x1C, 4, 'a', 0, 0x18, 0x40}; /* a: 64 bytes, 2 there */
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setBinaryAttachment(m.h, bytes.data(), 11));
    velClient_opaqueContainer_pt map = nullptr, sub = nullptr;
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_getBinaryAttachmentMap(m.h, &map));
    EXPECT_EQ(VELCLIENT_FAIL, next(map)); /* the cursor now points 73 bytes into the map */
    ASSERT_EQ(VELCLIENT_OK, velClient_container_openSubMap(map, &sub, "b")); /* its bytes begin at 15 */
    /* Into the sub-map, a byte array whose bytes from 47 on (73 in the map) are an entry { k: {} }. */
    veltest::Bytes inside(60, 0xEE);
    const veltest::Bytes entry = {0x1C, 4, 'k', 0, 0x2B, 0, 0, 0, 5};
    std::copy(entry.begin(), entry.end(), inside.begin() + 47);
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addByteArray(sub, inside.data(), 60, "x"));
    EXPECT_EQ(VELCLIENT_FAIL, next(map));
    EXPECT_LAST_ERROR(VELCLIENT_SUBCODE_COMMUNICATION_ERROR, "Invalid entry in structured data map");
    EXPECT_EQ(nullptr, f.value.map);
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addInt32(sub, 1, "z")); /* the sub-map is whole */
    EXPECT_EQ(VELCLIENT_OK, velClient_container_closeMapStream(&sub));
    EXPECT_EQ(VELCLIENT_OK, velClient_container_closeMapStream(&map));
    veltest::Msg back(nullptr);
    ASSERT_EQ(VELCLIENT_OK, veltest::decode(veltest::encode(m.h), &back.h));
}

/* A read, a lookup and a delete refuse a malformed map with the same text,
 * but a delete whose walk runs past the written bytes says so in its own
 * words; a refused delete changes no byte. */
TEST(Reading, MalformedBytesAreRefusedExactlyByEveryWalkAndBadArguments)
{
    const char *type = "Invalid type in TLV string in structured data container",
               *length = "Invalid length in TLV string in structured data container",
               *map = "Invalid entry in structured data map", *tlv = "Invalid entry in structured data TLV",
               *walkText = "Invalid entry in structured data map in velClient_container_deleteField";
    const struct {
        veltest::Bytes fields;
        const char *text;
        bool pastEnd;
    } rows[] = {
        {{0x0C, 0x03, 1}, type, false}, {{0x0C, 0x03, 0x01, 0x0C, 0x03, 0x01}, type, false},
        {{0x1C, 0x04, 'a', 'b', 0x0C, 0x03, 1}, length, false}, {{0x1C, 0x03, 'x', 0x0C, 0x03, 0x01}, length, false},
        {{0x1C, 0x04, 'a', 0, 0x0C, 0x09, 1}, map, true}, {{0x1C, 0x04, 'a', 0, 0x00, 0x01}, tlv, false},
        {{0x1C, 0x04, 'a', 0, 0x00, 0x00}, tlv, false}, {{0x1C, 0x04, 'a', 0, 0x2B, 0, 0, 0, 4}, tlv, false},
        {{0x1C, 0x04, 'a', 0, 0x0C, 0x05, 1, 2, 3}, tlv, false},
        {{0x1C, 0x04, 'a', 0, 0x1F, 0xFF, 0xFF, 0xFF, 0xFF}, tlv, true},
        {{0x1C, 0x04, 'x', 0x00, 0x04, 0x04, 0x01, 0x01}, tlv, false}, {{0x1C, 0x04, 'a', 0}, map, true},
        {{0x1D, 0x00}, map, true}, {{0x1C, 0x09, 'x', 0x00}, map, true} /* the name runs past the written bytes */,
        {{0x1C, 0x04, 'x', 0x00, 0x1C, 0x07, 'a'}, map, true} /* the value runs past them */,
        {{0x1C, 0x04, 'x', 0x00, 0x2B}, tlv, true} /* the value has no room for its length */,
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(&r - rows);
        Exact e(container(0x2B, r.fields)), d(container(0x2B, r.fields));
        EXPECT_EQ(VELCLIENT_FAIL, next(e.h));
        EXPECT_LAST_ERROR(VELCLIENT_SUBCODE_COMMUNICATION_ERROR, r.text);
        EXPECT_EQ(VELCLIENT_FAIL, velClient_container_getField(e.h, &f, sizeof f, "a"));
        EXPECT_LAST_ERROR(VELCLIENT_SUBCODE_COMMUNICATION_ERROR, r.text);
        EXPECT_EQ(VELCLIENT_FAIL, velClient_container_deleteField(d.h, "y"));
        EXPECT_LAST_ERROR(VELCLIENT_SUBCODE_COMMUNICATION_ERROR, r.pastEnd ? walkText : r.text);
        EXPECT_EQ(container(0x2B, r.fields), veltest::bytesAt(d.mem.get(), d.size));
    }
    /* The refusals of the untyped readers and of delete. */
    Exact empty, stream(false);
    void *ptr = nullptr;
    velClient_uint32_t len = 0;
    const int expected = static_cast<int>(sizeof f);
    const auto N = VELCLIENT_SUBCODE_PARAM_NULL_PTR, R = VELCLIENT_SUBCODE_PARAM_OUT_OF_RANGE;
    const char *sizeText = "Unsupported field structure size (received %d, expected %d) in velClient_container_%s",
               *deleteText = "Null or Empty Name pointer in velClient_container_deleteField";
    veltest::expectRefusals({
        REFUSE_IN(velClient_container_getNextField, (empty.h, nullptr, sizeof f, &name), N, "Null field_p"),
        REFUSE(velClient_container_getNextField(empty.h, &f, sizeof f + 4, &name), R,
               format(sizeText, expected + 4, expected, "getNextField")),
        REFUSE_IN(velClient_container_getNextField, (empty.h, &f, sizeof f, nullptr), N, "Null name_p"),
        REFUSE(velClient_container_getField(empty.h, &f, sizeof f - 4, "k"), R,
               format(sizeText, expected - 4, expected, "getField")),
        REFUSE_IN(velClient_container_getField, (empty.h, nullptr, sizeof f, "k"), N, "Null value pointer"),
        REFUSE_IN(velClient_container_getField, (empty.h, &f, sizeof f, nullptr), N, "No name pointer"),
        REFUSE_IN(velClient_container_getField, (stream.h, &f, sizeof f, "k"), VELCLIENT_SUBCODE_PARAM_CONFLICT,
                  "Stream with non-NULL name pointer"),
        REFUSE_IN(velClient_container_getSize, (empty.h, nullptr), N, "Null size pointer"),
        REFUSE_IN(velClient_container_getContainerPtr, (empty.h, &ptr, nullptr), N, "Null size pointer"),
        REFUSE_IN(velClient_container_getContainerPtr, (empty.h, nullptr, &len), N, "Null bufPtr_p pointer"),
        REFUSE(velClient_container_deleteField(empty.h, nullptr), N, deleteText),
        REFUSE(velClient_container_deleteField(empty.h, ""), N, deleteText),
        REFUSE(velClient_container_deleteField(stream.h, "x"), R, "velClient_container_deleteField called on a Stream"),
    });
}

/* A map remembers where the well-formed entries it found begin, up to a
 * malformed entry: a failed lookup undoes nothing. */
TEST(Reading, LookupsUpToAMalformedEntry)
{
    /* a: 1, w: 9 with a 2-byte key length, b: 2, then x: a text without its NUL. */
    Exact e(container(0x2B, {0x1C, 0x04, 'a', 0, 0x0C, 0x03, 1, 0x1D, 0x00, 0x05, 'w', 0, 0x0C, 0x03, 9, 0x1C, 0x04, 'b',
                             0, 0x0C, 0x03, 2, 0x1C, 0x04, 'x', 0, 0x1C, 0x04, 'h', 'i'}));
    for (int round = 0; round < 2; ++round) {
        EXPECT_EQ(9, int32At(e.h, "w"));
        int32At(e.h, "zz", VELCLIENT_FAIL);
        EXPECT_LAST_ERROR(VELCLIENT_SUBCODE_COMMUNICATION_ERROR, "Invalid entry in structured data TLV");
        /* Nothing is undone: the next read starts after x's key, on its value. */
        EXPECT_EQ(VELCLIENT_FAIL, next(e.h));
        EXPECT_LAST_ERROR(VELCLIENT_SUBCODE_COMMUNICATION_ERROR,
                          "Invalid length in TLV string in structured data container");
        EXPECT_EQ(1, int32At(e.h, "a"));
    }
}

/* Lookups compare keys of 8 to 16 bytes (with their NUL) as two words and
 * others byte by byte, and once entries are remembered only those whose
 * names share a mark with the one looked for: names of 1 to 17 characters
 * that differ in one byte (first, middle or last), names that another one
 * begins with, and a name long enough for a 2-byte key length are each
 * found, and near misses are not, in a fresh map and once lookups and reads
 * have remembered entries; iteration gives every entry in order, a nested
 * map among them. */
TEST(Reading, LookupsTellApartNamesThatDifferInOneByte)
{
    std::vector<std::string> keys;
    for (std::size_t len = 1; len <= 17; ++len) {
        keys.emplace_back(len, 'n');
        for (std::size_t at : std::set<std::size_t>{0, len / 2, len - 1}) {
            keys.emplace_back(len, 'n');
            keys.back()[at] = 'x';
        }
    }
    keys.emplace_back(300, 'L');
    std::vector<char> mem(4096);
    velClient_opaqueContainer_pt built = nullptr, sub = nullptr;
    ASSERT_EQ(VELCLIENT_OK, velClient_container_createMap(&built, mem.data(), mem.size()));
    for (std::size_t i = 0; i < keys.size(); ++i) {
        ASSERT_EQ(VELCLIENT_OK, velClient_container_addInt32(built, static_cast<velClient_int32_t>(i), keys[i].c_str()));
        if (i == 10) { /* a nested map between the entries */
            ASSERT_EQ(VELCLIENT_OK, velClient_container_openSubMap(built, &sub, "sub"));
            ASSERT_EQ(VELCLIENT_OK, velClient_container_closeMapStream(&sub));
        }
    }
    void *bytes = nullptr;
    velClient_uint32_t size = 0;
    ASSERT_EQ(VELCLIENT_OK, velClient_container_getContainerPtr(built, &bytes, &size));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_closeMapStream(&built));
    velClient_opaqueContainer_pt m = nullptr;
    ASSERT_EQ(VELCLIENT_OK, velClient_container_openMapFromPtr(&m, bytes, size));
    for (int round = 0; round < 2; ++round) {
        for (std::size_t n = 0; n < keys.size(); ++n) { /* backwards first, then forwards */
            const std::size_t i = round == 0 ? keys.size() - 1 - n : n;
            EXPECT_EQ(static_cast<velClient_int32_t>(i), int32At(m, keys[i].c_str())) << keys[i];
            std::string miss = keys[i];
            miss[miss.size() - 1] = 'y';
            int32At(m, miss.c_str(), VELCLIENT_NOT_FOUND);
            int32At(m, (keys[i] + "z").c_str(), VELCLIENT_NOT_FOUND);
        }
        std::vector<std::string> expected = keys, read;
        expected.insert(expected.begin() + 11, "sub");
        ASSERT_EQ(VELCLIENT_OK, velClient_container_rewind(m));
        while (next(m) == VELCLIENT_OK) {
            read.emplace_back(name);
            EXPECT_EQ(read.back() == "sub" ? VELCLIENT_MAP : VELCLIENT_INT32, f.type) << read.back();
        }
        EXPECT_EQ(expected, read);
    }
    EXPECT_EQ(VELCLIENT_FAIL, velClient_container_getSubStream(m, &sub, "sub"));
    EXPECT_LAST_ERROR(VELCLIENT_SUBCODE_INVALID_DATA_CONVERSION, "Field Type Map could not be converted to Stream");
    ASSERT_EQ(VELCLIENT_OK, velClient_container_closeMapStream(&m));
}

/* A read of an entry a map remembers as well formed checks its type bytes
 * and lengths against the end again, and each text for the NUL that ends
 * it: bytes the application changed since are refused with the texts of a
 * first read. A NUL written inside a remembered name only shortens it (it
 * still ends inside the bytes); a lookup compares the whole key and misses. */
TEST(Reading, RememberedEntriesAfterTheApplicationChangedTheirBytes)
{
    /* ab: uint8 1 | cd: "xy" | ef: uint8 3 (offsets from the first entry) */
    const veltest::Bytes fields = {0x1C, 0x05, 'a', 'b', 0,   0x0C, 0x03, 1,   0x1C, 0x05, 'c', 'd', 0,
                                   0x1C, 0x05, 'x', 'y', 0,   0x1C, 0x05, 'e', 'f', 0,   0x0C, 0x03, 3};
    const char *length = "Invalid length in TLV string in structured data container",
               *map = "Invalid entry in structured data map", *tlv = "Invalid entry in structured data TLV";
    const struct {
        std::size_t at;
        std::uint8_t byte;
        std::size_t bad;  /* the entry whose read fails (3: none) */
        const char *text; /* of that read and of the lookup of lookedUp */
        const char *lookedUp;
        velClient_returnCode_t lookup;
    } rows[] = {
        {12, 'z', 1, length, "cd", VELCLIENT_NOT_FOUND}, /* the name's NUL */
        {17, 'z', 1, tlv, "cd", VELCLIENT_FAIL},         /* the text's NUL */
        {14, 0x20, 1, map, "cd", VELCLIENT_FAIL},        /* the text runs past the end */
        {9, 0x40, 1, map, "cd", VELCLIENT_NOT_FOUND},    /* the name runs past the end */
        {5, 0x10, 0, tlv, "ab", VELCLIENT_FAIL},         /* a 1-byte float */
        {10, 0, 3, nullptr, "cd", VELCLIENT_NOT_FOUND},  /* a NUL inside the name */
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(&r - rows);
        Exact e(container(0x2B, fields));
        ASSERT_EQ((std::vector<std::string>{"ab", "cd", "ef"}), veltest::names(e.h)); /* all remembered */
        e.mem[5 + r.at] = r.byte;
        ASSERT_EQ(VELCLIENT_OK, velClient_container_rewind(e.h));
        for (std::size_t i = 0; i < r.bad; ++i) {
            ASSERT_EQ(VELCLIENT_OK, next(e.h));
            EXPECT_STREQ(i == 1 ? "" : i == 0 ? "ab" : "ef", name);
        }
        if (r.text != nullptr) {
            EXPECT_EQ(VELCLIENT_FAIL, next(e.h));
            EXPECT_LAST_ERROR(VELCLIENT_SUBCODE_COMMUNICATION_ERROR, r.text);
        }
        EXPECT_EQ(r.lookup, velClient_container_getField(e.h, &f, sizeof f, r.lookedUp));
        if (r.lookup == VELCLIENT_FAIL) {
            EXPECT_LAST_ERROR(VELCLIENT_SUBCODE_COMMUNICATION_ERROR, r.text);
        }
    }
}
