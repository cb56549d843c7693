/* Deleting map entries by name: every entry of the name goes, the bytes
 * behind it move down, open sub-containers behind it keep working, and one
 * opened on the deleted entry itself is closed, the last entry's too. */
#include <cstdint>
#include <string>
#include <vector>

#include "support/velTestSupport.h"

using veltest::Bytes;
using veltest::names;
using Map = veltest::Container;
using Names = std::vector<std::string>;

TEST(DeleteField, RemovesEveryEntryOfTheNameAndNothingElse)
{
    Map m;
    for (const char *key : {"x", "y", "x"})
        OK(velClient_container_addUint8(m.h, 2, key));
    OK(velClient_container_addString(m.h, "x", "xx")); /* a longer name sharing the prefix */
    OK(velClient_container_deleteField(m.h, "x"));
    OK(velClient_container_deleteField(m.h, "absent")); /* no error, no change */
    EXPECT_EQ((Bytes{0x1C, 0x04, 'y', 0x00, 0x0C, 0x03, 0x02, 0x1C, 0x05, 'x', 'x', 0x00, 0x1C, 0x04, 'x', 0x00}),
              m.fields());
    /* A name read from the map itself: the move that closes the gap overwrites
     * it, and a shared map grows to get bytes of its own. Neither changes which
     * entries go. */
    velClient_msg_setMaxPoolMem(0);
    veltest::Msg original, dup(nullptr);
    velClient_opaqueContainer_pt map = nullptr;
    OK(velClient_msg_createBinaryAttachmentMap(original.h, &map, 64));
    for (const char *key : {"a-key", "b", "a-key", "c"})
        OK(velClient_container_addInt32(map, 1, key));
    OK(velClient_container_closeMapStream(&map));
    OK(velClient_msg_dup(original.h, &dup.h));
    velClient_field_t f;
    const char *name = nullptr;
    for (velClient_opaqueMsg_pt msg : {original.h, dup.h}) {
        OK(velClient_msg_getBinaryAttachmentMap(msg, &map));
        OK(velClient_container_getNextField(map, &f, sizeof f, &name));
        OK(velClient_container_deleteField(map, name));
        EXPECT_EQ((Names{"b", "c"}), names(map));
        OK(velClient_container_closeMapStream(&map));
    }
    velClient_msg_setMaxPoolMem(veltest::kDefaultPoolLimit);
}

TEST(DeleteField, LaterEntriesOpenChildrenAndTheReadingPositionFollowTheMove)
{
    Map m;
    velClient_field_t f{};
    const char *name = nullptr;
    const auto nextName = [&] {
        EXPECT_EQ(VELCLIENT_OK, velClient_container_getNextField(m.h, &f, sizeof f, &name));
        return std::string(name != nullptr ? name : "");
    };
    for (const char *key : {"a", "b", "c"})
        OK(velClient_container_addInt32(m.h, key[0], key));
    EXPECT_EQ("a", nextName());
    EXPECT_EQ("b", nextName());
    OK(velClient_container_deleteField(m.h, "a")); /* the cursor stood on b, which moved down */
    EXPECT_EQ("c", nextName());
    EXPECT_EQ('c', f.value.int32);
    EXPECT_EQ(VELCLIENT_EOS, velClient_container_getNextField(m.h, &f, sizeof f, &name));
    velClient_int32_t v = 0;
    OK(velClient_container_getInt32(m.h, &v, "b")); /* a remembered entry the delete moved down */
    EXPECT_EQ('b', v);
    OK(velClient_container_addString(m.h, "a longer value", "d"));
    OK(velClient_container_rewind(m.h));
    EXPECT_EQ("b", nextName());
    OK(velClient_container_deleteField(m.h, "b")); /* the entry just read: next is the one now in its place */
    EXPECT_EQ("c", nextName());
    EXPECT_EQ("d", nextName());
    /* An open stream behind the entry writes at its new place and closes into the map correctly. */
    velClient_opaqueContainer_pt sub = nullptr;
    OK(velClient_container_openSubStream(m.h, &sub, "s"));
    OK(velClient_container_addUint8(sub, 7, nullptr));
    OK(velClient_container_deleteField(m.h, "c"));
    OK(velClient_container_addUint8(sub, 8, nullptr));
    OK(velClient_container_closeMapStream(&sub));
    EXPECT_EQ((Bytes{0x1C, 0x04, 'd', 0x00, 0x1C, 0x11, 'a', ' ', 'l', 'o', 'n', 'g', 'e', 'r', ' ', 'v', 'a', 'l', 'u',
                     'e', 0x00, 0x1C, 0x04, 's', 0x00, 0x2F, 0, 0, 0, 11, 0x0C, 0x03, 7, 0x0C, 0x03, 8}), m.fields());
}

TEST(DeleteField, AnOpenSubContainerOnADeletedEntryIsClosed)
{
    const veltest::LiveCounts before;
    /* The child is closed (its handle dies) and logged; only a map that can
     * grow takes an entry behind an open child. */
    veltest::Msg msg;
    velClient_opaqueContainer_pt m = nullptr, sub = nullptr;
    OK(velClient_msg_createBinaryAttachmentMap(msg.h, &m, 32));
    OK(velClient_container_openSubMap(m, &sub, "x"));
    OK(velClient_container_addUint8(sub, 1, "a"));
    OK(velClient_container_addUint8(m, 2, "y")); /* goes behind the child's reserved room */
    {
        veltest::LogCapture log;
        OK(velClient_container_deleteField(m, "x"));
        EXPECT_TRUE(log.saw(veltest::format("subcontainer %d closed due to field deletion",
                                            static_cast<int>(reinterpret_cast<std::uintptr_t>(sub)))));
    }
    EXPECT_EQ(VELCLIENT_FAIL, velClient_container_addNull(sub, "n"));
    OK(velClient_container_addUint8(m, 3, "z"));
    EXPECT_EQ((Bytes{0x2B, 0, 0, 0, 19, 0x1C, 0x04, 'y', 0x00, 0x0C, 0x03, 0x02, 0x1C, 0x04, 'z', 0x00, 0x0C, 0x03, 0x03}),
              veltest::bytesOf(m));
    OK(velClient_container_closeMapStream(&m));
    /* On the map's last entry too: the map takes the child's room back, and its next add goes there. */
    OK(velClient_msg_createUserPropertyMap(msg.h, &m, 256));
    OK(velClient_container_openSubMap(m, &sub, "a"));
    OK(velClient_container_deleteField(m, "a"));
    EXPECT_EQ(VELCLIENT_FAIL, velClient_container_addBoolean(sub, 1, "x")); /* closed with its entry */
    OK(velClient_container_addBoolean(m, 1, "b"));
    EXPECT_EQ((Names{"b"}), veltest::names(m));
    OK(velClient_container_closeMapStream(&m));
    velClient_msg_free(&msg.h);
    before.expectBalanced();
}
