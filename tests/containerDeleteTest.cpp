/* Deleting map entries by name: every entry of the name goes, the bytes
 * behind it move down, open sub-containers behind it keep working, and one
 * opened on the deleted entry itself is closed, the last entry's too. */
#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "support/velTestSupport.h"

using veltest::Bytes;
using veltest::names;
using Map = veltest::Container;

namespace {

std::string closedLine(velClient_opaqueContainer_pt h)
{
    return veltest::format("subcontainer %d closed due to field deletion",
                           static_cast<int>(reinterpret_cast<std::uintptr_t>(h)));
}

} // namespace

TEST(DeleteField, RemovesEveryEntryOfTheNameAndNothingElse)
{
    Map m;
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addInt32(m.h, 1, "x"));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addUint8(m.h, 2, "y"));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addInt32(m.h, 3, "x"));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addString(m.h, "x", "xx")); /* a longer name sharing the prefix */
    ASSERT_EQ(VELCLIENT_OK, velClient_container_deleteField(m.h, "x"));
    EXPECT_EQ((Bytes{0x1C, 0x04, 'y', 0x00, 0x0C, 0x03, 0x02, 0x1C, 0x05, 'x', 'x', 0x00, 0x1C, 0x04, 'x', 0x00}),
              m.fields());
    /* An absent name is no error and changes nothing. */
    EXPECT_EQ(VELCLIENT_OK, velClient_container_deleteField(m.h, "absent"));
    EXPECT_EQ((std::vector<std::string>{"y", "xx"}), names(m.h));
    /* The freed room is reused by the next add. */
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addInt32(m.h, 4, "z"));
    velClient_int32_t z = 0;
    EXPECT_EQ(VELCLIENT_OK, velClient_container_getInt32(m.h, &z, "z"));
    EXPECT_EQ(4, z);
    ASSERT_EQ(VELCLIENT_OK, velClient_container_deleteField(m.h, "z"));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_deleteField(m.h, "y"));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_deleteField(m.h, "xx"));
    EXPECT_TRUE(m.fields().empty());
}

TEST(DeleteField, ANameReadFromTheSameMapRemovesEveryEntryOfIt)
{
    /* The name points at the key of the first entry it removes: the move
     * that closes the gap overwrites it, and a shared map grows to get bytes
     * of its own. Both must not change which entries go. */
    Map m;
    for (const char *key : {"a-key", "b", "a-key", "c"})
        ASSERT_EQ(VELCLIENT_OK, velClient_container_addInt32(m.h, 1, key));
    velClient_field_t f;
    const char *name = nullptr;
    ASSERT_EQ(VELCLIENT_OK, velClient_container_getNextField(m.h, &f, sizeof f, &name));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_deleteField(m.h, name));
    EXPECT_EQ((std::vector<std::string>{"b", "c"}), names(m.h));

    velClient_msg_setMaxPoolMem(0);
    veltest::Msg original;
    velClient_opaqueContainer_pt map = nullptr;
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_createBinaryAttachmentMap(original.h, &map, 64));
    for (const char *key : {"a-key", "b", "a-key", "c"})
        ASSERT_EQ(VELCLIENT_OK, velClient_container_addInt32(map, 1, key));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_closeMapStream(&map));
    velClient_opaqueMsg_pt dupHandle = nullptr;
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_dup(original.h, &dupHandle));
    veltest::Msg dup(dupHandle);
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_getBinaryAttachmentMap(dup.h, &map));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_getNextField(map, &f, sizeof f, &name));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_deleteField(map, name));
    EXPECT_EQ((std::vector<std::string>{"b", "c"}), names(map));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_closeMapStream(&map));
    velClient_msg_setMaxPoolMem(64ull << 20);
}

TEST(DeleteField, RefusalsAndTheirTexts)
{
    Map m, s(false);
    const char *nameText = "Null or Empty Name pointer in velClient_container_deleteField";
    veltest::expectRefusals({
        {[&m] { return velClient_container_deleteField(m.h, nullptr); }, VELCLIENT_SUBCODE_PARAM_NULL_PTR, nameText},
        {[&m] { return velClient_container_deleteField(m.h, ""); }, VELCLIENT_SUBCODE_PARAM_NULL_PTR, nameText},
        {[&s] { return velClient_container_deleteField(s.h, "x"); }, VELCLIENT_SUBCODE_PARAM_OUT_OF_RANGE,
         "velClient_container_deleteField called on a Stream"},
    });
}

TEST(DeleteField, MalformedEntriesEndTheWalkWithTheirTexts)
{
    struct Case {
        Bytes fields;
        const char *text;
    };
    const Case cases[] = {
        /* the entry's first field is not a string */
        {{0x0C, 0x03, 0x01, 0x0C, 0x03, 0x01}, "Invalid type in TLV string in structured data container"},
        /* the name has no NUL */
        {{0x1C, 0x03, 'x', 0x0C, 0x03, 0x01}, "Invalid length in TLV string in structured data container"},
        /* the name runs past the written bytes */
        {{0x1C, 0x09, 'x', 0x00}, "Invalid entry in structured data map in velClient_container_deleteField"},
        /* the value runs past the written bytes */
        {{0x1C, 0x04, 'x', 0x00, 0x1C, 0x07, 'a'}, "Invalid entry in structured data map in velClient_container_deleteField"},
        /* the value has no room for its length */
        {{0x1C, 0x04, 'x', 0x00, 0x2B}, "Invalid entry in structured data map in velClient_container_deleteField"},
        /* the value is a boolean of a length booleans never have */
        {{0x1C, 0x04, 'x', 0x00, 0x04, 0x04, 0x01, 0x01}, "Invalid entry in structured data TLV"},
    };
    for (const Case &c : cases) {
        veltest::Container e(veltest::container(0x2B, c.fields));
        ASSERT_EQ(VELCLIENT_OK, e.rc);
        EXPECT_EQ(VELCLIENT_FAIL, velClient_container_deleteField(e.h, "y")) << c.text;
        EXPECT_LAST_ERROR(VELCLIENT_SUBCODE_COMMUNICATION_ERROR, c.text);
        EXPECT_TRUE(std::equal(c.fields.begin(), c.fields.end(), e.mem.get() + 5)) << c.text;
    }
}

TEST(DeleteField, LaterEntriesAndTheReadingPositionFollowTheMove)
{
    Map m;
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addInt32(m.h, 1, "a"));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addInt32(m.h, 2, "b"));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addInt32(m.h, 3, "c"));
    /* A delete before reading starts leaves the cursor on the first field. */
    ASSERT_EQ(VELCLIENT_OK, velClient_container_deleteField(m.h, "absent"));
    velClient_field_t f{};
    const char *name = nullptr;
    ASSERT_EQ(VELCLIENT_OK, velClient_container_getNextField(m.h, &f, sizeof f, &name));
    ASSERT_STREQ("a", name);
    ASSERT_EQ(VELCLIENT_OK, velClient_container_getNextField(m.h, &f, sizeof f, &name));
    ASSERT_STREQ("b", name);
    ASSERT_EQ(VELCLIENT_OK, velClient_container_deleteField(m.h, "a"));
    /* The cursor stood on "b", which moved down with everything after "a". */
    ASSERT_EQ(VELCLIENT_OK, velClient_container_getNextField(m.h, &f, sizeof f, &name));
    EXPECT_STREQ("c", name);
    EXPECT_EQ(3, f.value.int32);
    EXPECT_EQ(VELCLIENT_EOS, velClient_container_getNextField(m.h, &f, sizeof f, &name));

    /* Deleting the entry just read: the next read is the entry now in its place. */
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addString(m.h, "a longer value", "d"));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_rewind(m.h));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_getNextField(m.h, &f, sizeof f, &name));
    ASSERT_STREQ("b", name);
    ASSERT_EQ(VELCLIENT_OK, velClient_container_deleteField(m.h, "b"));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_getNextField(m.h, &f, sizeof f, &name));
    EXPECT_STREQ("c", name);
    /* After a rewind a delete starts the cursor afresh at the first field. */
    ASSERT_EQ(VELCLIENT_OK, velClient_container_getNextField(m.h, &f, sizeof f, &name));
    ASSERT_STREQ("d", name);
    ASSERT_EQ(VELCLIENT_OK, velClient_container_rewind(m.h));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_deleteField(m.h, "absent"));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_getNextField(m.h, &f, sizeof f, &name));
    EXPECT_STREQ("c", name);
}

TEST(DeleteField, OpenSubContainersBehindTheEntryAreRebased)
{
    Map m;
    velClient_opaqueContainer_pt sub = nullptr;
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addInt32(m.h, 1, "a"));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addInt32(m.h, 2, "b"));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_openSubStream(m.h, &sub, "s"));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addUint8(sub, 7, nullptr));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_deleteField(m.h, "a"));
    /* The open stream writes at its new place and closes into the map correctly. */
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addUint8(sub, 8, nullptr));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_closeMapStream(&sub));
    EXPECT_EQ((Bytes{0x1C, 0x04, 'b', 0x00, 0x08, 0x06, 0, 0, 0, 2,                /* b */
                     0x1C, 0x04, 's', 0x00, 0x2F, 0, 0, 0, 11, 0x0C, 0x03, 7, 0x0C, 0x03, 8}), /* s */
              m.fields());
}

TEST(DeleteField, AnOpenSubContainerOnADeletedEntryIsClosed)
{
    /* Not the last entry: the child is closed (its handle dies) and logged.
     * Only a map that can grow takes an entry behind an open child. */
    veltest::Msg msg;
    velClient_opaqueContainer_pt m = nullptr, sub = nullptr;
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_createBinaryAttachmentMap(msg.h, &m, 32));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_openSubMap(m, &sub, "x"));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addUint8(sub, 1, "a"));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addUint8(m, 2, "y")); /* goes behind the child's reserved room */
    {
        veltest::LogCapture log;
        ASSERT_EQ(VELCLIENT_OK, velClient_container_deleteField(m, "x"));
        EXPECT_TRUE(log.saw(closedLine(sub)));
    }
    EXPECT_EQ(VELCLIENT_FAIL, velClient_container_addNull(sub, "n"));
    EXPECT_EQ(VELCLIENT_SUBCODE_PARAM_NULL_PTR, veltest::lastSubCode());
    size_t size = 0;
    ASSERT_EQ(VELCLIENT_OK, velClient_container_getSize(m, &size));
    EXPECT_EQ(5u + 7, size);
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addUint8(m, 3, "z"));
    EXPECT_EQ((std::vector<std::string>{"y", "z"}), names(m));
    velClient_uint8_t y = 0;
    EXPECT_EQ(VELCLIENT_OK, velClient_container_getUint8(m, &y, "y"));
    EXPECT_EQ(2, y);
    ASSERT_EQ(VELCLIENT_OK, velClient_container_closeMapStream(&m));

    /* The last entry: the child goes too. Left open, it would keep the room
     * the map takes back, and the next add to the map would overlap it. */
    Map last;
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addUint8(last.h, 2, "y"));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_openSubMap(last.h, &sub, "x"));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addUint8(sub, 1, "a"));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_deleteField(last.h, "x"));
    EXPECT_EQ((Bytes{0x1C, 0x04, 'y', 0x00, 0x0C, 0x03, 0x02}), last.fields());
    EXPECT_EQ(VELCLIENT_FAIL, velClient_container_addNull(sub, "n"));
    EXPECT_EQ(VELCLIENT_SUBCODE_PARAM_NULL_PTR, veltest::lastSubCode());
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addUint8(last.h, 3, "z"));
    EXPECT_EQ((Bytes{0x1C, 0x04, 'y', 0x00, 0x0C, 0x03, 0x02, 0x1C, 0x04, 'z', 0x00, 0x0C, 0x03, 0x03}),
              last.fields());
}

TEST(DeleteField, ADuplicateDeletesFromItsOwnCopyOnly)
{
    veltest::Msg original;
    velClient_opaqueContainer_pt map = nullptr;
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_createBinaryAttachmentMap(original.h, &map, 64));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addInt32(map, 1, "x"));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addInt32(map, 2, "y"));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_closeMapStream(&map));
    velClient_opaqueMsg_pt dupHandle = nullptr;
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_dup(original.h, &dupHandle));
    veltest::Msg dup(dupHandle);

    velClient_opaqueContainer_pt dupMap = nullptr;
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_getBinaryAttachmentMap(dup.h, &dupMap));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_deleteField(dupMap, "x"));
    EXPECT_EQ((std::vector<std::string>{"y"}), names(dupMap));
    size_t size = 0;
    ASSERT_EQ(VELCLIENT_OK, velClient_container_getSize(dupMap, &size));
    EXPECT_EQ(5u + 10, size);
    ASSERT_EQ(VELCLIENT_OK, velClient_container_closeMapStream(&dupMap));

    ASSERT_EQ(VELCLIENT_OK, velClient_msg_getBinaryAttachmentMap(original.h, &map));
    EXPECT_EQ((std::vector<std::string>{"x", "y"}), names(map));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_closeMapStream(&map));
}
