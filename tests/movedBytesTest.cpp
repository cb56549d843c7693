/* Bytes that move under the caller: every step that can grow, move or free a
 * message's or a container's bytes runs here between the moment a position
 * into them is taken and the moment it is used. Under AddressSanitizer a
 * stale position is a use-after-free; without it, a wrong value. (The
 * sequence number a send reserves is checked with the other sends.) */
#include <cstring>
#include <string>
#include <vector>

#include "support/velTestSupport.h"

/* A lookup that passes over other entries does not leave them in the
 * caller's field: a miss leaves it as it was, a hit holds only the entry
 * found. */
TEST(MovedBytes, LookupsWriteOnlyTheEntryFound)
{
    veltest::Container c;
    velClient_opaqueContainer_pt map = c.h;
    velClient_destination_t dest{VELCLIENT_TOPIC_DESTINATION, "a/b"};
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addDestination(map, &dest, sizeof dest, "d"));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addInt32(map, -7, "i"));
    velClient_field_t field;
    std::memset(&field, 0xA5, sizeof field);
    const velClient_field_t untouched = field;
    EXPECT_EQ(VELCLIENT_NOT_FOUND, velClient_container_getField(map, &field, sizeof field, "none"));
    EXPECT_EQ(0, std::memcmp(&untouched, &field, sizeof field));
    std::memset(&field, 0, sizeof field);
    ASSERT_EQ(VELCLIENT_OK, velClient_container_getField(map, &field, sizeof field, "i"));
    EXPECT_EQ(VELCLIENT_INT32, field.type);
    EXPECT_EQ(-7, field.value.int32);
    const auto *bytes = reinterpret_cast<const unsigned char *>(&field.value);
    for (std::size_t i = sizeof(velClient_int32_t); i < sizeof field.value; ++i)
        EXPECT_EQ(0, bytes[i]) << "byte " << i << " of the value holds a leftover";
}

/* A container that lives in another message's data block is copied even by
 * the by-reference setter: that block moves when the container grows and
 * goes when its message is freed. */
TEST(MovedBytes, AnAttachmentSetByReferenceFromAnotherMessagesContainerKeepsItsBytes)
{
    veltest::Msg a;
    {
        veltest::Msg b;
        velClient_opaqueContainer_pt map = nullptr;
        ASSERT_EQ(VELCLIENT_OK, velClient_msg_createBinaryAttachmentMap(b.h, &map, 16));
        ASSERT_EQ(VELCLIENT_OK, velClient_container_addInt32(map, 42, "x"));
        ASSERT_EQ(VELCLIENT_OK, velClient_msg_setBinaryAttachmentContainerPtr(a.h, map));
        for (int i = 0; i < 64; ++i) /* grows b's map into new blocks, freeing the old ones */
            ASSERT_EQ(VELCLIENT_OK, velClient_container_addInt64(map, i, "y"));
    }
    veltest::Msg received(nullptr);
    ASSERT_EQ(VELCLIENT_OK, veltest::decode(veltest::encode(a.h), &received.h));
    velClient_opaqueContainer_pt map = nullptr;
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_getBinaryAttachmentMap(received.h, &map));
    EXPECT_EQ((std::vector<std::string>{"x"}), veltest::names(map));
    velClient_int32_t x = 0;
    EXPECT_EQ(VELCLIENT_OK, velClient_container_getInt32(map, &x, "x"));
    EXPECT_EQ(42, x);
    velClient_container_closeMapStream(&map);
}

/* A part that refers to the application's memory is never written into: a
 * delete in the container read from it copies the bytes first, so a
 * container the application still has open on that memory keeps them. */
TEST(MovedBytes, ADeleteInAnAttachmentThatRefersToApplicationMemoryCopiesFirst)
{
    const veltest::LiveCounts before;
    {
        veltest::Container app(true, 200);
        velClient_opaqueContainer_pt own = app.h, sub = nullptr, read = nullptr;
        ASSERT_EQ(VELCLIENT_OK, velClient_container_addUint16(own, 513, "a"));
        ASSERT_EQ(VELCLIENT_OK, velClient_container_openSubMap(own, &sub, "b"));
        ASSERT_EQ(VELCLIENT_OK, velClient_container_addInt8(sub, -1, "a"));
        veltest::Msg m;
        ASSERT_EQ(VELCLIENT_OK, velClient_msg_setBinaryAttachmentContainerPtr(m.h, own));
        ASSERT_EQ(VELCLIENT_OK, velClient_msg_getBinaryAttachmentMap(m.h, &read));
        ASSERT_EQ(VELCLIENT_OK, velClient_container_deleteField(read, "a"));
        EXPECT_EQ((std::vector<std::string>{"b"}), veltest::names(read));
        EXPECT_EQ((std::vector<std::string>{"a", "b"}), veltest::names(own));
        velClient_int8_t a = 0;
        EXPECT_EQ(VELCLIENT_OK, velClient_container_getInt8(sub, &a, "a"));
        EXPECT_EQ(-1, a);
        ASSERT_EQ(VELCLIENT_OK, velClient_container_closeMapStream(&sub));
        velClient_container_closeMapStream(&read);
    }
    before.expectBalanced();
}

/* A delete before any read puts the cursor before the first field; growth at
 * that point (a full map) moves the cursor with the bytes, into the entry a
 * sub-container then opens. Deleting that entry leaves the cursor where the
 * entry was, not in front of the map's own header. */
TEST(MovedBytes, ACursorInsideADeletedEntryStaysInsideTheMap)
{
    veltest::Msg msg;
    velClient_opaqueContainer_pt map = nullptr, sub = nullptr;
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_createBinaryAttachmentMap(msg.h, &map, 5));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_deleteField(map, "a"));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_openSubStream(map, &sub, "b"));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addUint16(sub, 2, nullptr));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_deleteField(map, "b"));
    velClient_field_t f{};
    const char *name = nullptr;
    EXPECT_EQ(VELCLIENT_EOS, velClient_container_getNextField(map, &f, sizeof f, &name));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_rewind(map));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addUint8(map, 7, "c"));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_getNextField(map, &f, sizeof f, &name));
    EXPECT_STREQ("c", name);
    EXPECT_EQ(7, f.value.uint8);
    EXPECT_EQ(VELCLIENT_EOS, velClient_container_getNextField(map, &f, sizeof f, &name));
    velClient_container_closeMapStream(&map);
}
