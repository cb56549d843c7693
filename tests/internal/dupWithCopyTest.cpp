/* Duplication with copy, for modules that keep a message whose parts may
 * refer to application memory: such parts get blocks of the copy's own,
 * parts in blocks are shared, and a failed copy leaves nothing behind. */
#include <cstring>

#include "support/velTestSupport.h"
#include "velClientHandle/handleTable.h"
#include "velClientMsg/velClientMsgPrivate.h"

extern "C" void _velClient_allocFail_arm(std::uint64_t nth);

using veltest::stat;

TEST(DupWithCopy, ApplicationMemoryIsCopiedBlocksAreShared)
{
    char userData[] = "application bytes";
    const int user = VELCLIENT_BUFINFO_USER_DATA_PART, attachment = VELCLIENT_BUFINFO_BINARY_ATTACHMENT_PART;
    veltest::Msg m;
    velClient_opaqueContainer_pt props = nullptr;
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setUserDataPtr(m.h, userData, sizeof userData));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setBinaryAttachment(m.h, "in a block", 10));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_createUserPropertyMap(m.h, &props, 16));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addInt8(props, 1, "p"));
    auto *msg = vel::resolve<_velClient_msg>(m.h, _MSG_PTR_TYPE);
    const std::uint32_t flagsBefore = msg->internalFlags;
    const velClient_uint64_t dups = stat(VELCLIENT_MSG_STATS_MSG_DUPS);
    _velClient_msg *copy = nullptr;
    ASSERT_EQ(VELCLIENT_OK, _velClient_msg_dupMsgWithCopy(msg, &copy));
    EXPECT_EQ(dups + 1, stat(VELCLIENT_MSG_STATS_MSG_DUPS));
    ASSERT_NE(nullptr, copy->bufDatab_p[user]); /* application memory now in a block of the copy's own */
    userData[0] = 'X';
    EXPECT_EQ(0, std::memcmp("application bytes", copy->bufInfo_a[user].buf_p, sizeof userData));
    EXPECT_EQ(msg->bufDatab_p[attachment], copy->bufDatab_p[attachment]); /* shared, one more reference */
    EXPECT_EQ(2, msg->bufDatab_p[attachment]->dbRefCount);
    /* Only the source's structured parts turn read-only; the copy keeps the flags it was copied with. */
    EXPECT_TRUE(msg->internalFlags & _VELCLIENT_MSG_FLAG_USER_PROPS_READONLY);
    EXPECT_FALSE(msg->internalFlags & _VELCLIENT_MSG_FLAG_ATTACHMENT_READONLY);
    EXPECT_EQ(flagsBefore, copy->internalFlags);
    _velClient_msg_free(copy);
    EXPECT_EQ(1, msg->bufDatab_p[attachment]->dbRefCount);
    EXPECT_NE(nullptr, msg->bufDatab_p[VELCLIENT_BUFINFO_USER_PROPERTY_PART]);

    /* The record succeeds, the block for the user data fails: the record goes back. */
    velClient_msg_setMaxPoolMem(0); /* every record and block from the system */
    const velClient_uint64_t live = stat(VELCLIENT_MSG_STATS_ALLOC_MSGS);
    copy = reinterpret_cast<_velClient_msg *>(&userData);
    _velClient_allocFail_arm(2);
    EXPECT_EQ(VELCLIENT_FAIL, _velClient_msg_dupMsgWithCopy(msg, &copy));
    _velClient_allocFail_arm(0);
    velClient_msg_setMaxPoolMem(veltest::kDefaultPoolLimit);
    EXPECT_EQ(nullptr, copy);
    EXPECT_EQ(live, stat(VELCLIENT_MSG_STATS_ALLOC_MSGS));
    EXPECT_EQ(1, msg->bufDatab_p[attachment]->dbRefCount);
}
