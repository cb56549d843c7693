/* Containers: growth inside a message under the bytes an add reads, opening
 * over existing bytes, containers as attachments. */
#include <string>
#include <vector>

#include "support/velTestSupport.h"

using veltest::Bytes;
using veltest::bytesOf;
using veltest::Msg;

TEST(Containers, NamesAndValuesReadFromTheGrowingTreeAreAddedIntact)
{
    /* The application adds names and values it read from the tree it adds
     * to: a child grows in place and pushes the parent's later entry, whose
     * bytes were read, on (and an open child behind it); so the add must take
     * them before making room. The pool keeps nothing, so a freed block goes
     * back to the system at once. */
    velClient_msg_setMaxPoolMem(0);
    const std::string key = "a-key-of-twenty-four-by", text = "a text value of some length, longer than 32 bytes";
    velClient_field_t f;
    const char *name = nullptr, *value = nullptr;
    Msg n;
    velClient_opaqueContainer_pt map = nullptr, child = nullptr, grandchild = nullptr, later = nullptr;
    OK(velClient_msg_createBinaryAttachmentMap(n.h, &map, 16));
    OK(velClient_container_openSubMap(map, &child, "child"));
    OK(velClient_container_addString(map, text.c_str(), key.c_str()));
    OK(velClient_container_openSubStream(map, &later, "t")); /* an open child the growth moves, once */
    for (int i = 0; i < 11; ++i) {
        OK(velClient_container_getStringPtr(map, &value, key.c_str()));
        if (i < 10)
            OK(velClient_container_addString(child, value, "copy"));
    }
    OK(velClient_container_openSubMap(child, &grandchild, value)); /* a name, too */
    OK(velClient_container_closeMapStream(&child));
    OK(velClient_container_addInt32(later, 6, nullptr));
    OK(velClient_container_closeMapStream(&later));
    OK(velClient_container_getSubMap(map, &child, "child"));
    for (int i = 0; i < 11; ++i) {
        OK(velClient_container_getNextField(child, &f, sizeof f, &name));
        EXPECT_EQ(text, i < 10 ? f.value.string : name) << i;
    }
    EXPECT_EQ((std::vector<std::string>{"child", key, "t"}), veltest::names(map));
    velClient_msg_setMaxPoolMem(veltest::kDefaultPoolLimit);
}

TEST(Containers, OpeningExistingBytes)
{
    std::uint8_t bytes[] = {0x2F, 0, 0, 0, 8, 0x0C, 0x03, 0x07}, notStructured[] = {0x0C, 0x03, 0x07};
    velClient_opaqueContainer_pt h = nullptr;
    EXPECT_EQ(VELCLIENT_NOT_FOUND, velClient_container_openMapFromPtr(&h, bytes, 9));
    EXPECT_EQ(VELCLIENT_NOT_FOUND, velClient_container_openMapFromPtr(&h, bytes, 3));
    OK(velClient_container_openMapFromPtr(&h, bytes, 8)); /* takes the stream as it is */
    velClient_uint8_t v = 0;
    EXPECT_EQ(VELCLIENT_OK, velClient_container_getUint8(h, &v, nullptr));
    EXPECT_EQ(7, v);
    EXPECT_EQ(VELCLIENT_EOS, velClient_container_getUint8(h, &v, nullptr));
    EXPECT_EQ(VELCLIENT_FAIL, velClient_container_addNull(h, nullptr)); /* full: there is no message to grow into */
    velClient_container_closeMapStream(&h);
    EXPECT_EQ(VELCLIENT_NOT_FOUND, velClient_container_openStreamFromPtr(&h, notStructured, 3));
    EXPECT_EQ(VELCLIENT_SUBCODE_NO_STRUCTURED_DATA, veltest::lastSubCode());
    EXPECT_EQ(VELCLIENT_FAIL, velClient_container_openStreamFromPtr(nullptr, bytes, 8));
    EXPECT_LAST_ERROR(VELCLIENT_SUBCODE_PARAM_NULL_PTR, "Null stream_p pointer in velClient_container_openStreamFromPtr");
}

TEST(Containers, TheAttachmentByCopyByReferenceAndFromInsideItself)
{
    veltest::Container app(true, 64);
    OK(velClient_container_addInt8(app.h, 3, "x"));
    Msg copied, referred, m;
    OK(velClient_msg_setBinaryAttachmentContainer(copied.h, app.h));
    OK(velClient_msg_setBinaryAttachmentContainerPtr(referred.h, app.h));
    OK(velClient_container_addInt8(app.h, 4, "y")); /* shows through the reference only */
    EXPECT_EQ((Bytes{0x2B, 0, 0, 0, 0x0C, 0x1C, 0x04, 'x', 0x00, 0x08, 0x03, 0x03}), copied.attachment());
    void *p = nullptr;
    velClient_uint32_t n = 0;
    OK(velClient_msg_getBinaryAttachmentPtr(referred.h, &p, &n));
    EXPECT_EQ(static_cast<void *>(app.mem.get()), p); /* the application's memory, not a copy */
    velClient_opaqueContainer_pt map = nullptr, sub = nullptr, again = nullptr;
    OK(velClient_msg_getBinaryAttachmentMap(referred.h, &map));
    OK(velClient_container_deleteField(map, "x")); /* never written into: the bytes are copied first */
    EXPECT_TRUE(veltest::names(map).empty()); /* the reference holds the length it was set with */
    EXPECT_EQ((std::vector<std::string>{"x", "y"}), veltest::names(app.h));
    OK(velClient_container_closeMapStream(&map));
    /* Fetched again while open: the same container, one more reference. */
    velClient_field_t f{};
    OK(velClient_msg_createBinaryAttachmentMap(m.h, &map, 64));
    void *own = nullptr;
    OK(velClient_container_getContainerPtr(map, &own, &n));
    OK(velClient_msg_setBinaryAttachmentContainerPtr(referred.h, map)); /* a message's container: copied all the same */
    OK(velClient_msg_getBinaryAttachmentPtr(referred.h, &p, &n));
    EXPECT_NE(own, p);
    OK(velClient_msg_getBinaryAttachmentMap(m.h, &again));
    OK(velClient_msg_getBinaryAttachmentField(m.h, &f, sizeof f));
    EXPECT_EQ(map, again);
    EXPECT_EQ(VELCLIENT_MAP, f.type);
    EXPECT_EQ(map, f.value.map);
    OK(velClient_container_closeMapStream(&again));
    OK(velClient_container_closeMapStream(&f.value.map));
    OK(velClient_container_openSubStream(map, &sub, "inner")); /* still open */
    OK(velClient_container_addInt32(sub, 7, nullptr));
    /* The sub-stream's bytes die with the attachment it replaces: they are kept first. */
    OK(velClient_msg_setBinaryAttachmentContainer(m.h, sub));
    EXPECT_EQ(VELCLIENT_FAIL, velClient_container_rewind(sub)); /* closed with the old attachment */
    EXPECT_EQ(VELCLIENT_FAIL, velClient_container_rewind(map));
    Msg b(nullptr);
    OK(veltest::decode(veltest::encode(m.h), &b.h));
    OK(velClient_msg_getBinaryAttachmentField(b.h, &f, sizeof f)); /* received: opened from the bytes */
    EXPECT_EQ(VELCLIENT_STREAM, f.type);
    EXPECT_EQ((Bytes{0x2F, 0, 0, 0, 11, 0x08, 0x06, 0, 0, 0, 7}), bytesOf(f.value.stream));
    OK(velClient_msg_setBinaryAttachment(copied.h, "abc", 3)); /* plain bytes are no structured data */
    EXPECT_EQ(VELCLIENT_NOT_FOUND, velClient_msg_getBinaryAttachmentField(copied.h, &f, sizeof f));
}

/* A sub-map opened at the end of its parent takes all the room there is.
 * When the parent or an earlier sub-map then needs room, what the open
 * sub-maps left unwritten comes back first: growing around it instead
 * multiplied the block by four each time (a few hundred bytes of fields took
 * megabytes). */
TEST(Containers, RoomThatOpenSubMapsLeaveUnwrittenComesBackBeforeAnotherContainerGrows)
{
    const velClient_uint64_t memoryBefore = veltest::stat(VELCLIENT_MSG_STATS_ALLOC_MEMORY);
    Msg m;
    velClient_opaqueContainer_pt map = nullptr, subs[8] = {};
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_createBinaryAttachmentMap(m.h, &map, 64));
    for (int i = 0; i < 8; ++i) {
        ASSERT_EQ(VELCLIENT_OK, velClient_container_openSubMap(map, &subs[i], "s"));
        if (i > 0) { /* an earlier sibling grows while the new sub-map holds the room */
            ASSERT_EQ(VELCLIENT_OK, velClient_container_addInt32(subs[i - 1], i - 1, "x"));
        }
        ASSERT_EQ(VELCLIENT_OK, velClient_container_addInt32(subs[i], i, "v"));
        ASSERT_EQ(VELCLIENT_OK, velClient_container_addInt32(map, i, "p")); /* and the parent */
    }
    EXPECT_LT(veltest::stat(VELCLIENT_MSG_STATS_ALLOC_MEMORY) - memoryBefore, 4096u);
    for (int i = 0; i < 8; ++i) /* the sub-maps, left without room, grow in the middle of the map */
        ASSERT_EQ(VELCLIENT_OK, velClient_container_addInt32(subs[i], 100 + i, "w"));
    for (velClient_opaqueContainer_pt &sub : subs)
        ASSERT_EQ(VELCLIENT_OK, velClient_container_closeMapStream(&sub));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_closeMapStream(&map));
    Msg back(nullptr);
    ASSERT_EQ(VELCLIENT_OK, veltest::decode(veltest::encode(m.h), &back.h));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_getBinaryAttachmentMap(back.h, &map));
    velClient_field_t f{};
    const char *name = nullptr;
    for (int i = 0; i < 8; ++i) {
        ASSERT_EQ(VELCLIENT_OK, velClient_container_getNextField(map, &f, sizeof f, &name));
        ASSERT_EQ(VELCLIENT_MAP, f.type);
        EXPECT_EQ(i < 7 ? (std::vector<std::string>{"v", "x", "w"}) : (std::vector<std::string>{"v", "w"}),
                  veltest::names(f.value.map));
        velClient_int32_t v = -1, w = -1;
        EXPECT_EQ(VELCLIENT_OK, velClient_container_getInt32(f.value.map, &v, "v"));
        EXPECT_EQ(VELCLIENT_OK, velClient_container_getInt32(f.value.map, &w, "w"));
        EXPECT_EQ(i, v);
        EXPECT_EQ(100 + i, w);
        EXPECT_EQ(VELCLIENT_OK, velClient_container_closeMapStream(&f.value.map));
        ASSERT_EQ(VELCLIENT_OK, velClient_container_getNextField(map, &f, sizeof f, &name));
        EXPECT_STREQ("p", name);
        EXPECT_EQ(i, f.value.int32);
    }
    EXPECT_EQ(VELCLIENT_EOS, velClient_container_getNextField(map, &f, sizeof f, &name));
    EXPECT_EQ(VELCLIENT_OK, velClient_container_closeMapStream(&map));
    /* In the application's memory, which cannot grow, the parent's add now fits. */
    veltest::Container app(true, 64);
    velClient_opaqueContainer_pt sub = nullptr;
    ASSERT_EQ(VELCLIENT_OK, velClient_container_openSubMap(app.h, &sub, "s"));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addInt32(sub, 1, "v"));
    EXPECT_EQ(VELCLIENT_OK, velClient_container_addInt32(app.h, 2, "p"));
    EXPECT_EQ(VELCLIENT_FAIL, velClient_container_addInt32(sub, 3, "w")); /* the room is the parent's now */
    EXPECT_LAST_ERROR(VELCLIENT_SUBCODE_INSUFFICIENT_SPACE, "Unable to add more structured data to container memory");
    EXPECT_EQ(VELCLIENT_OK, velClient_container_closeMapStream(&sub));
    EXPECT_EQ((std::vector<std::string>{"s", "p"}), veltest::names(app.h));
}
