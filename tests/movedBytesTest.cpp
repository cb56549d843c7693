/* Bytes that move under the caller: every step that can grow, move or free a
 * message's or a container's bytes runs here between the moment a position
 * into them is taken and the moment it is used. Under AddressSanitizer a
 * stale position is a use-after-free; without it, a wrong value. (The
 * sequence number a send reserves is checked with the other sends.) */
#include <cstring>
#include <string>
#include <vector>

#include "support/velTestSupport.h"

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
