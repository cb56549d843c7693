/* Containers: nesting in place, handing reserved space back, growth inside a
 * message, copy-on-modify of shared parts, closing and opening over bytes. */
#include <cstring>
#include <string>
#include <vector>

#include "support/velTestSupport.h"

using veltest::Bytes;
using veltest::bytesOf;
using veltest::Msg;

TEST(Containers, ASubMapClosedAtOnceLeavesItsNameAndAnEmptyHeader)
{
    std::vector<char> mem(64);
    velClient_opaqueContainer_pt map = nullptr, sub = nullptr;
    ASSERT_EQ(VELCLIENT_OK, velClient_container_createMap(&map, mem.data(), mem.size()));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_openSubMap(map, &sub, "s"));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_closeMapStream(&sub));
    EXPECT_EQ(nullptr, sub);
    EXPECT_EQ((Bytes{0x2B, 0, 0, 0, 14, 0x1C, 0x04, 's', 0x00, 0x2B, 0, 0, 0, 5}), bytesOf(map));
    /* The parent writes right after the closed child. */
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addBoolean(map, 1, "b"));
    EXPECT_EQ(21u, bytesOf(map).size());
    velClient_container_closeMapStream(&map);
}

TEST(Containers, SiblingsOpenedInTurnAndClosedInEitherOrder)
{
    for (bool firstClosesFirst : {true, false}) {
        std::vector<char> mem(128);
        velClient_opaqueContainer_pt map = nullptr, a = nullptr, b = nullptr;
        ASSERT_EQ(VELCLIENT_OK, velClient_container_createMap(&map, mem.data(), mem.size()));
        ASSERT_EQ(VELCLIENT_OK, velClient_container_openSubStream(map, &a, "a"));
        ASSERT_EQ(VELCLIENT_OK, velClient_container_addUint8(a, 1, nullptr));
        /* The parent is full while a child is open: a second child needs the
         * space the first reserved, which application memory cannot give. */
        EXPECT_EQ(VELCLIENT_FAIL, velClient_container_openSubStream(map, &b, "b"));
        ASSERT_EQ(VELCLIENT_OK, velClient_container_closeMapStream(&a));
        ASSERT_EQ(VELCLIENT_OK, velClient_container_openSubStream(map, &b, "b"));
        ASSERT_EQ(VELCLIENT_OK, velClient_container_addUint8(b, 2, nullptr));
        if (firstClosesFirst) {
            ASSERT_EQ(VELCLIENT_OK, velClient_container_closeMapStream(&b));
        }
        Bytes expected = {0x2B, 0, 0, 0, 29, 0x1C, 0x04, 'a', 0, 0x2F, 0, 0, 0, 8, 0x0C, 0x03, 1,
                          0x1C, 0x04, 'b', 0, 0x2F, 0, 0, 0, 8, 0x0C, 0x03, 2};
        Bytes got = bytesOf(map); /* finalises an open child too */
        EXPECT_EQ(expected, got) << firstClosesFirst;
        if (!firstClosesFirst) {
            ASSERT_EQ(VELCLIENT_OK, velClient_container_closeMapStream(&b));
        }
        velClient_container_closeMapStream(&map);
    }
}

TEST(Containers, ClosingAParentClosesItsOpenChildren)
{
    std::vector<char> mem(64);
    velClient_opaqueContainer_pt map = nullptr, sub = nullptr, subsub = nullptr;
    ASSERT_EQ(VELCLIENT_OK, velClient_container_createMap(&map, mem.data(), mem.size()));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_openSubMap(map, &sub, "s"));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_openSubStream(sub, &subsub, "t"));
    velClient_uint64_t before = veltest::stat(VELCLIENT_MSG_STATS_ALLOC_CONTAINERS);
    ASSERT_EQ(VELCLIENT_OK, velClient_container_closeMapStream(&map));
    EXPECT_EQ(before - 3, veltest::stat(VELCLIENT_MSG_STATS_ALLOC_CONTAINERS));
    EXPECT_EQ(VELCLIENT_FAIL, velClient_container_addNull(subsub, nullptr));
    EXPECT_EQ(VELCLIENT_FAIL, velClient_container_closeMapStream(&sub));
    EXPECT_LAST_ERROR(VELCLIENT_SUBCODE_PARAM_NULL_PTR,
                      veltest::format("Bad container pointer (%p) in velClient_container_closeMapStream", sub));
}

TEST(Containers, GrowthInAMessageMovesOpenChildrenAlong)
{
    Msg m;
    velClient_opaqueContainer_pt map = nullptr, sub = nullptr;
    velClient_uint64_t reallocs = veltest::stat(VELCLIENT_MSG_STATS_MSG_REALLOCS);
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_createBinaryAttachmentMap(m.h, &map, 0));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_openSubStream(map, &sub, "list"));
    for (int i = 0; i < 200; ++i)
        ASSERT_EQ(VELCLIENT_OK, velClient_container_addInt32(sub, i, nullptr));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_closeMapStream(&sub));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addString(map, "end", "tail"));
    /* The container moved into larger blocks: each move is one reallocation
     * in the pool statistics. */
    EXPECT_GT(veltest::stat(VELCLIENT_MSG_STATS_MSG_REALLOCS), reallocs);
    ASSERT_EQ(VELCLIENT_OK, velClient_container_closeMapStream(&map));
    Bytes a = m.attachment();
    ASSERT_EQ(5u + 7 + 5 + 200 * 6 + 7 + 6, a.size());
    EXPECT_EQ((Bytes{0x2B, 0, 0, 0x04, 0xCE}), Bytes(a.begin(), a.begin() + 5));

    ASSERT_EQ(VELCLIENT_OK, velClient_msg_getBinaryAttachmentMap(m.h, &map));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_getSubStream(map, &sub, "list"));
    velClient_int32_t v = -1;
    for (int i = 0; i < 200; ++i) {
        ASSERT_EQ(VELCLIENT_OK, velClient_container_getInt32(sub, &v, nullptr));
        ASSERT_EQ(i, v);
    }
    const char *tail = nullptr;
    ASSERT_EQ(VELCLIENT_OK, velClient_container_getStringPtr(map, &tail, "tail"));
    EXPECT_STREQ("end", tail);
}

TEST(Containers, NamesAndValuesReadFromTheGrowingTreeAreAddedIntact)
{
    /* The application adds names and values it read from the very map it
     * adds to. Growth moves those bytes (into a larger block, or further on
     * in place), so the add must take them before making room. The pool
     * keeps nothing, so a freed block goes back to the system at once. */
    velClient_msg_setMaxPoolMem(0);
    const std::string key = "a-key-of-twenty-four-by";
    const std::string text = "a text value of some length, longer than 32 bytes";
    {
        Msg m;
        velClient_opaqueContainer_pt map = nullptr;
        ASSERT_EQ(VELCLIENT_OK, velClient_msg_createBinaryAttachmentMap(m.h, &map, 16));
        ASSERT_EQ(VELCLIENT_OK, velClient_container_addString(map, text.c_str(), key.c_str()));
        velClient_field_t f;
        const char *name = nullptr;
        for (int i = 0; i < 40; ++i) {
            /* Read just before the add: the add before may have moved the bytes. */
            ASSERT_EQ(VELCLIENT_OK, velClient_container_rewind(map));
            ASSERT_EQ(VELCLIENT_OK, velClient_container_getNextField(map, &f, sizeof f, &name));
            ASSERT_EQ(VELCLIENT_OK, velClient_container_addString(map, f.value.string, name));
        }
        ASSERT_EQ(VELCLIENT_OK, velClient_container_rewind(map));
        int entries = 0;
        while (velClient_container_getNextField(map, &f, sizeof f, &name) == VELCLIENT_OK) {
            ++entries;
            EXPECT_EQ(key, name);
            EXPECT_EQ(text, f.value.string);
        }
        EXPECT_EQ(41, entries);
        velClient_container_closeMapStream(&map);
    }
    {
        /* A child grows in place and pushes the parent's later entry on. */
        Msg m;
        velClient_opaqueContainer_pt map = nullptr, child = nullptr;
        ASSERT_EQ(VELCLIENT_OK, velClient_msg_createBinaryAttachmentMap(m.h, &map, 16));
        ASSERT_EQ(VELCLIENT_OK, velClient_container_openSubMap(map, &child, "child"));
        ASSERT_EQ(VELCLIENT_OK, velClient_container_addString(map, text.c_str(), key.c_str()));
        const char *value = nullptr;
        for (int i = 0; i < 10; ++i) {
            ASSERT_EQ(VELCLIENT_OK, velClient_container_getStringPtr(map, &value, key.c_str()));
            ASSERT_EQ(VELCLIENT_OK, velClient_container_addString(child, value, "copy"));
        }
        ASSERT_EQ(VELCLIENT_OK, velClient_container_getStringPtr(map, &value, key.c_str()));
        velClient_opaqueContainer_pt grandchild = nullptr;
        ASSERT_EQ(VELCLIENT_OK, velClient_container_openSubMap(child, &grandchild, value)); /* a name, too */
        ASSERT_EQ(VELCLIENT_OK, velClient_container_closeMapStream(&grandchild));
        ASSERT_EQ(VELCLIENT_OK, velClient_container_closeMapStream(&child));
        ASSERT_EQ(VELCLIENT_OK, velClient_container_getSubMap(map, &child, "child"));
        velClient_field_t f;
        const char *name = nullptr;
        for (int i = 0; i < 10; ++i) {
            ASSERT_EQ(VELCLIENT_OK, velClient_container_getNextField(child, &f, sizeof f, &name));
            EXPECT_EQ(text, f.value.string) << i;
        }
        ASSERT_EQ(VELCLIENT_OK, velClient_container_getNextField(child, &f, sizeof f, &name));
        EXPECT_EQ(text, name);
        velClient_container_closeMapStream(&child);
        velClient_container_closeMapStream(&map);
    }
    velClient_msg_setMaxPoolMem(64ull << 20);
}

TEST(Containers, WritingIntoAnEarlierChildShiftsTheLaterOne)
{
    Msg m;
    velClient_opaqueContainer_pt map = nullptr, first = nullptr, second = nullptr;
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_createBinaryAttachmentMap(m.h, &map, 16));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_openSubMap(map, &first, "f"));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addUint8(first, 1, "a"));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_openSubMap(map, &second, "s"));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addUint8(second, 2, "b"));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addUint8(first, 3, "c"));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addUint8(second, 4, "d"));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_closeMapStream(&map));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_getBinaryAttachmentMap(m.h, &map));
    velClient_uint8_t v = 0;
    ASSERT_EQ(VELCLIENT_OK, velClient_container_getSubMap(map, &first, "f"));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_getSubMap(map, &second, "s"));
    EXPECT_EQ(VELCLIENT_OK, velClient_container_getUint8(first, &v, "c"));
    EXPECT_EQ(3, v);
    EXPECT_EQ(VELCLIENT_OK, velClient_container_getUint8(second, &v, "d"));
    EXPECT_EQ(4, v);
    EXPECT_EQ(VELCLIENT_NOT_FOUND, velClient_container_getUint8(second, &v, "c"));
}

TEST(Containers, ADuplicateChangesItsOwnCopyOnly)
{
    Msg a;
    velClient_opaqueContainer_pt map = nullptr;
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_createBinaryAttachmentMap(a.h, &map, 64));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addInt32(map, 1, "x"));
    Msg b;
    velClient_msg_free(&b.h);
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_dup(a.h, &b.h));
    Bytes original = a.attachment();
    velClient_opaqueContainer_pt bmap = nullptr;
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_getBinaryAttachmentMap(b.h, &bmap));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addInt32(bmap, 2, "y"));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_deleteField(bmap, "x"));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_closeMapStream(&bmap));
    EXPECT_EQ(original, a.attachment());
    EXPECT_NE(original, b.attachment());
    /* The source's own container kept working after the duplication made it read-only. */
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addInt32(map, 3, "z"));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_closeMapStream(&map));
    velClient_int32_t v = 0;
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_getBinaryAttachmentMap(b.h, &bmap));
    EXPECT_EQ(VELCLIENT_NOT_FOUND, velClient_container_getInt32(bmap, &v, "z"));
    EXPECT_EQ(VELCLIENT_OK, velClient_container_getInt32(bmap, &v, "y"));
}

TEST(Containers, OpeningExistingBytes)
{
    std::uint8_t bytes[] = {0x2F, 0, 0, 0, 8, 0x0C, 0x03, 0x07};
    velClient_opaqueContainer_pt h = nullptr;
    EXPECT_EQ(VELCLIENT_NOT_FOUND, velClient_container_openMapFromPtr(&h, bytes, 9));
    EXPECT_EQ(VELCLIENT_NOT_FOUND, velClient_container_openMapFromPtr(&h, bytes, 3));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_openMapFromPtr(&h, bytes, 8)); /* takes the stream as it is */
    velClient_uint8_t v = 0;
    EXPECT_EQ(VELCLIENT_OK, velClient_container_getUint8(h, &v, nullptr));
    EXPECT_EQ(7, v);
    EXPECT_EQ(VELCLIENT_EOS, velClient_container_getUint8(h, &v, nullptr));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_rewind(h));
    EXPECT_EQ(VELCLIENT_OK, velClient_container_getUint8(h, &v, nullptr));
    /* Full: nothing can be added where there is no message to grow into. */
    EXPECT_EQ(VELCLIENT_FAIL, velClient_container_addNull(h, nullptr));
    velClient_container_closeMapStream(&h);
    std::uint8_t notStructured[] = {0x0C, 0x03, 0x07};
    EXPECT_EQ(VELCLIENT_NOT_FOUND, velClient_container_openStreamFromPtr(&h, notStructured, 3));
    EXPECT_EQ(VELCLIENT_SUBCODE_NO_STRUCTURED_DATA, veltest::lastSubCode());
    EXPECT_EQ(VELCLIENT_FAIL, velClient_container_openStreamFromPtr(nullptr, bytes, 8));
    EXPECT_LAST_ERROR(VELCLIENT_SUBCODE_PARAM_NULL_PTR, "Null stream_p pointer in velClient_container_openStreamFromPtr");
}

TEST(Containers, FreeAndResetWithOpenContainersReleaseEverything)
{
    velClient_uint64_t containers = veltest::stat(VELCLIENT_MSG_STATS_ALLOC_CONTAINERS);
    velClient_uint64_t blocks = veltest::stat(VELCLIENT_MSG_STATS_ALLOC_DATA_BLOCKS, 0) +
                                veltest::stat(VELCLIENT_MSG_STATS_ALLOC_DATA_BLOCKS, 1);
    {
        Msg m;
        velClient_opaqueContainer_pt map = nullptr, sub = nullptr, props = nullptr;
        ASSERT_EQ(VELCLIENT_OK, velClient_msg_createBinaryAttachmentMap(m.h, &map, 64));
        ASSERT_EQ(VELCLIENT_OK, velClient_container_openSubMap(map, &sub, "s"));
        ASSERT_EQ(VELCLIENT_OK, velClient_msg_createUserPropertyMap(m.h, &props, 32));
        ASSERT_EQ(VELCLIENT_OK, velClient_msg_setSenderId(m.h, "me"));
        ASSERT_EQ(VELCLIENT_OK, velClient_msg_reset(m.h));
        EXPECT_EQ(VELCLIENT_FAIL, velClient_container_addNull(sub, "n"));
        ASSERT_EQ(VELCLIENT_OK, velClient_msg_createBinaryAttachmentStream(m.h, &map, 64));
        ASSERT_EQ(VELCLIENT_OK, velClient_container_openSubMap(map, &sub, nullptr)); /* left open at free */
    }
    EXPECT_EQ(containers, veltest::stat(VELCLIENT_MSG_STATS_ALLOC_CONTAINERS));
    EXPECT_EQ(blocks, veltest::stat(VELCLIENT_MSG_STATS_ALLOC_DATA_BLOCKS, 0) +
                          veltest::stat(VELCLIENT_MSG_STATS_ALLOC_DATA_BLOCKS, 1));
}
