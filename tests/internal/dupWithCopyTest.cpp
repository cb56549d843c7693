/* Duplication with copy, for modules that keep a message whose parts may
 * refer to application memory: such parts get blocks of the copy's own,
 * parts in blocks are shared, and a failed copy leaves nothing behind. */
#include <cstring>

#include <gtest/gtest.h>

#include "velClientHandle/handleTable.h"
#include "velClientMsg/velClientMsgPrivate.h"

extern "C" void _velClient_allocFail_arm(std::uint64_t nth);

namespace {

velClient_uint64_t stat(velClient_msg_stats_t type)
{
    velClient_uint64_t v = 0;
    velClient_msg_getStat(type, 0, &v);
    return v;
}

} // namespace

TEST(DupWithCopy, ApplicationMemoryIsCopiedBlocksAreShared)
{
    char userData[] = "application bytes";
    velClient_opaqueMsg_pt h = nullptr;
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_alloc(&h));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setUserDataPtr(h, userData, sizeof userData));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setBinaryAttachment(h, "in a block", 10));
    velClient_opaqueContainer_pt props = nullptr;
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_createUserPropertyMap(h, &props, 16));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addInt8(props, 1, "p"));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_closeMapStream(&props));
    auto *msg = vel::resolve<_velClient_msg>(h, _MSG_PTR_TYPE);
    const std::uint32_t flagsBefore = msg->internalFlags;
    const velClient_uint64_t dups = stat(VELCLIENT_MSG_STATS_MSG_DUPS);

    _velClient_msg *copy = nullptr;
    ASSERT_EQ(VELCLIENT_OK, _velClient_msg_dupMsgWithCopy(msg, &copy));
    const int userPart = VELCLIENT_BUFINFO_USER_DATA_PART;
    const int attachment = VELCLIENT_BUFINFO_BINARY_ATTACHMENT_PART;
    const int propsPart = VELCLIENT_BUFINFO_USER_PROPERTY_PART;
    /* The part in application memory now lives in a block of the copy's own. */
    ASSERT_NE(nullptr, copy->bufDatab_p[userPart]);
    EXPECT_NE(static_cast<void *>(userData), copy->bufInfo_a[userPart].buf_p);
    userData[0] = 'X';
    EXPECT_EQ(0, std::memcmp("application bytes", copy->bufInfo_a[userPart].buf_p, sizeof userData));
    /* Parts in blocks are shared, one more reference each. */
    EXPECT_EQ(msg->bufDatab_p[attachment], copy->bufDatab_p[attachment]);
    EXPECT_EQ(2, msg->bufDatab_p[attachment]->dbRefCount);
    /* Only the source's structured parts turn read-only; the copy keeps the flags it was copied with. */
    EXPECT_TRUE(msg->internalFlags & _VELCLIENT_MSG_FLAG_USER_PROPS_READONLY);
    EXPECT_FALSE(msg->internalFlags & _VELCLIENT_MSG_FLAG_ATTACHMENT_READONLY);
    EXPECT_EQ(flagsBefore, copy->internalFlags);
    EXPECT_EQ(dups + 1, stat(VELCLIENT_MSG_STATS_MSG_DUPS));

    _velClient_msg_free(copy);
    EXPECT_EQ(1, msg->bufDatab_p[attachment]->dbRefCount);
    EXPECT_NE(nullptr, msg->bufDatab_p[propsPart]);
    velClient_msg_free(&h);
}

TEST(DupWithCopy, AFailedCopyReleasesTheNewRecord)
{
    char userData[] = "kept by reference";
    velClient_opaqueMsg_pt h = nullptr;
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_alloc(&h));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setBinaryAttachment(h, "shared", 6));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setUserDataPtr(h, userData, sizeof userData));
    auto *msg = vel::resolve<_velClient_msg>(h, _MSG_PTR_TYPE);
    velClient_msg_setMaxPoolMem(0); /* every record and block from the system */
    const velClient_uint64_t live = stat(VELCLIENT_MSG_STATS_ALLOC_MSGS);
    _velClient_msg *copy = reinterpret_cast<_velClient_msg *>(&userData);
    _velClient_allocFail_arm(2); /* the record succeeds, the block for the user data fails */
    EXPECT_EQ(VELCLIENT_FAIL, _velClient_msg_dupMsgWithCopy(msg, &copy));
    _velClient_allocFail_arm(0);
    velClient_msg_setMaxPoolMem(64ull << 20);
    EXPECT_EQ(nullptr, copy);
    EXPECT_EQ(live, stat(VELCLIENT_MSG_STATS_ALLOC_MSGS));
    EXPECT_EQ(1, msg->bufDatab_p[VELCLIENT_BUFINFO_BINARY_ATTACHMENT_PART]->dbRefCount);
    velClient_msg_free(&h);
}
