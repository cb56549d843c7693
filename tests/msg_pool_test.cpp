/* Data blocks, the message pool, its limit and statistics, and the message
 * life cycle (alloc, free, reset, dup). Library state is process-wide, so
 * counters are compared as differences and defaults are restored. */
#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "support/velTestSupport.h"

namespace {

constexpr velClient_uint64_t kDefaultLimit = 64ull * 1024 * 1024;

/* Small, easily told apart size classes for the duration of a test. */
class SmallClasses : public ::testing::Test {
  protected:
    void SetUp() override
    {
        const char *props[] = {"GLOBAL_DBQUANTASIZE_0", "100", "GLOBAL_DBQUANTASIZE_1", "200",
                               "GLOBAL_DBQUANTASIZE_2", "300", "GLOBAL_DBQUANTASIZE_3", "400",
                               "GLOBAL_DBQUANTASIZE_4", "500", nullptr};
        ASSERT_EQ(VELCLIENT_OK, velClient_initialize(VELCLIENT_LOG_EMERGENCY, props));
    }
    void TearDown() override
    {
        velClient_msg_setMaxPoolMem(kDefaultLimit);
        velClient_initialize(VELCLIENT_LOG_EMERGENCY, nullptr);
    }
};

velClient_opaqueDatablock_pt block(velClient_uint32_t size)
{
    velClient_opaqueDatablock_pt b = nullptr;
    EXPECT_EQ(VELCLIENT_OK, velClient_datablock_alloc(&b, size));
    return b;
}

velClient_uint32_t capacityOf(velClient_opaqueDatablock_pt b)
{
    void *p = nullptr;
    velClient_uint32_t size = 0;
    EXPECT_EQ(VELCLIENT_OK, velClient_datablock_getDataPtr(b, &p, &size));
    return size;
}

velClient_uint64_t live(velClient_uint32_t q)
{
    return veltest::stat(VELCLIENT_MSG_STATS_ALLOC_DATA_BLOCKS, q);
}

} // namespace

TEST_F(SmallClasses, ABlockTakesTheFirstClassThatHoldsIt)
{
    struct Case {
        velClient_uint32_t request, capacity, cls;
    } cases[] = {{0, 100, 0}, {100, 100, 0}, {101, 200, 1}, {500, 500, 4}, {501, 501, 5}};
    for (const Case &c : cases) {
        velClient_uint64_t before = live(c.cls);
        velClient_opaqueDatablock_pt b = block(c.request);
        EXPECT_EQ(c.capacity, capacityOf(b)) << c.request;
        EXPECT_EQ(before + 1, live(c.cls)) << c.request;
        EXPECT_EQ(VELCLIENT_OK, velClient_datablock_free(&b));
        EXPECT_EQ(nullptr, b);
        EXPECT_EQ(before, live(c.cls));
    }
}

TEST_F(SmallClasses, ReleasedBlocksArePooledExceptOversizeOnes)
{
    velClient_uint64_t pooled = veltest::stat(VELCLIENT_MSG_STATS_FREE_DATA_BLOCKS, 2);
    velClient_opaqueDatablock_pt b = block(250);
    velClient_uint64_t total = veltest::stat(VELCLIENT_MSG_STATS_TOTAL_MEMORY);
    velClient_datablock_free(&b);
    EXPECT_EQ(pooled + 1, veltest::stat(VELCLIENT_MSG_STATS_FREE_DATA_BLOCKS, 2));
    EXPECT_EQ(total, veltest::stat(VELCLIENT_MSG_STATS_TOTAL_MEMORY)); /* pooled memory stays counted */
    velClient_opaqueDatablock_pt big = block(1000);
    velClient_uint64_t withBig = veltest::stat(VELCLIENT_MSG_STATS_TOTAL_MEMORY);
    velClient_datablock_free(&big);
    EXPECT_GE(withBig - veltest::stat(VELCLIENT_MSG_STATS_TOTAL_MEMORY), 1000u); /* oversize: back to the system */
}

TEST_F(SmallClasses, AtTheLimitReleasedBlocksGoBackToTheSystem)
{
    velClient_msg_setMaxPoolMem(0);
    velClient_uint64_t pooled = veltest::stat(VELCLIENT_MSG_STATS_FREE_DATA_BLOCKS, 0);
    velClient_opaqueDatablock_pt b = block(10);
    velClient_uint64_t total = veltest::stat(VELCLIENT_MSG_STATS_TOTAL_MEMORY);
    velClient_datablock_free(&b);
    EXPECT_EQ(pooled, veltest::stat(VELCLIENT_MSG_STATS_FREE_DATA_BLOCKS, 0));
    /* Capacity plus the block's header. */
    EXPECT_GT(total - veltest::stat(VELCLIENT_MSG_STATS_TOTAL_MEMORY), 100u);
    velClient_opaqueMsg_pt m = nullptr;
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_alloc(&m));
    velClient_uint64_t freeMsgs = veltest::stat(VELCLIENT_MSG_STATS_FREE_MSGS);
    velClient_msg_free(&m);
    EXPECT_EQ(freeMsgs, veltest::stat(VELCLIENT_MSG_STATS_FREE_MSGS));
}

TEST_F(SmallClasses, LoweringTheLimitToZeroEmptiesTheFreeLists)
{
    std::vector<velClient_opaqueDatablock_pt> blocks;
    for (velClient_uint32_t size : {50u, 150u, 250u, 350u, 450u})
        blocks.push_back(block(size));
    velClient_opaqueMsg_pt m = nullptr;
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_alloc(&m));
    for (auto &b : blocks)
        velClient_datablock_free(&b);
    velClient_msg_free(&m);
    veltest::expectDrainedPools();
}

TEST(DataBlocks, PublicCallsAndTheirRefusals)
{
    velClient_opaqueDatablock_pt b = block(10);
    EXPECT_EQ(VELCLIENT_OK, velClient_datablock_dup(b));
    velClient_opaqueDatablock_pt second = b;
    EXPECT_EQ(VELCLIENT_OK, velClient_datablock_free(&second)); /* one holder left */
    EXPECT_EQ(VELCLIENT_FAIL, velClient_datablock_getDataPtr(b, nullptr, nullptr));
    velClient_opaqueDatablock_pt copy = b;
    EXPECT_EQ(VELCLIENT_OK, velClient_datablock_free(&b));
    /* The count is now 0: freeing again is refused and the variable kept. */
    EXPECT_EQ(VELCLIENT_FAIL, velClient_datablock_free(&copy));
    EXPECT_LAST_ERROR(VELCLIENT_SUBCODE_PARAM_OUT_OF_RANGE, "Datablock pointer in velClient_datablock_free already free");
    EXPECT_NE(nullptr, copy);
    /* (Null and bad handles: Refusals.PoolDataBlocksSessionsAndLogs.) */
}

TEST(DataBlocks, ExtractHandsTheMessagesReferenceOver)
{
    velClient_opaqueMsg_pt m = nullptr;
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_alloc(&m));
    velClient_opaqueDatablock_pt b = reinterpret_cast<velClient_opaqueDatablock_pt>(1);
    velClient_bufInfo_t info{reinterpret_cast<void *>(1), 7};
    EXPECT_EQ(VELCLIENT_NOT_FOUND, velClient_msg_extractDatablock(m, VELCLIENT_BUFINFO_USER_DATA_PART, &b, &info));
    EXPECT_EQ(nullptr, b);
    EXPECT_EQ(nullptr, info.buf_p);
    EXPECT_EQ(0u, info.bufSize);
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setUserData(m, "hello", 5));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_extractDatablock(m, VELCLIENT_BUFINFO_USER_DATA_PART, &b, &info));
    EXPECT_EQ(5u, info.bufSize);
    EXPECT_EQ(0, std::memcmp(info.buf_p, "hello", 5));
    void *p = nullptr;
    velClient_uint32_t len = 0;
    EXPECT_EQ(VELCLIENT_NOT_FOUND, velClient_msg_getUserDataPtr(m, &p, &len));
    velClient_msg_free(&m);
    /* The block outlives the message: its capacity may exceed the part's length. */
    EXPECT_GE(capacityOf(b), 5u);
    EXPECT_EQ(0, std::memcmp(info.buf_p, "hello", 5));
    EXPECT_EQ(VELCLIENT_OK, velClient_datablock_free(&b));
}

TEST(MessagePool, StatisticsIndexesReachTheLastClass)
{
    velClient_uint64_t v = 0;
    EXPECT_EQ(VELCLIENT_OK, velClient_msg_getStat(VELCLIENT_MSG_STATS_ALLOC_DATA_BLOCKS, 5, &v));
    EXPECT_EQ(VELCLIENT_FAIL, velClient_msg_getStat(VELCLIENT_MSG_STATS_FREE_DATA_BLOCKS, 5, &v));
}

TEST(MessagePool, TheOlderStatisticsLayoutMirrorsTheCounters)
{
    velClient_opaqueMsg_pt m = nullptr;
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_alloc(&m));
    _velClient_R43_msgPoolStats_pt legacy = velClient_msg_getMsgPoolStats();
    legacy->numAllocDataB[5] = 0xABCD; /* never written by the library */
    legacy = velClient_msg_getMsgPoolStats();
    EXPECT_EQ(veltest::stat(VELCLIENT_MSG_STATS_ALLOC_MSGS), legacy->numAllocMsg);
    EXPECT_EQ(veltest::stat(VELCLIENT_MSG_STATS_MSG_ALLOCS), legacy->msgAllocs);
    EXPECT_EQ(veltest::stat(VELCLIENT_MSG_STATS_TOTAL_MEMORY), legacy->totMemory);
    EXPECT_EQ(veltest::stat(VELCLIENT_MSG_STATS_ALLOC_CONTAINERS), legacy->numContainers);
    EXPECT_EQ(0xABCDu, legacy->numAllocDataB[5]);
    velClient_msg_free(&m);
}

TEST(MessagePool, ResetKeepsTheHandleAndTheTopicSequenceNumberOnly)
{
    std::uint8_t frame[] = {1, 13, 0x00, 0x10, 0x00, 0x02, 0, 0, 0, 25, 0, 0, /* flags: topic seq, cos 2 */
                            0x02, 0, 0, 0, 8, 0, 0, 0, 0, 0, 0, 0, 42};
    velClient_bufInfo_t info{frame, sizeof frame};
    velClient_opaqueMsg_pt m = nullptr;
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_decodeFromVwf(&info, &m));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setTimeToLive(m, 9));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setUserData(m, "x", 1));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_reset(m));
    velClient_int64_t v = -1;
    EXPECT_EQ(VELCLIENT_OK, velClient_msg_getTimeToLive(m, &v));
    EXPECT_EQ(0, v);
    velClient_uint32_t cos = 9;
    EXPECT_EQ(VELCLIENT_OK, velClient_msg_getClassOfService(m, &cos));
    EXPECT_EQ(0u, cos);
    void *p = nullptr;
    velClient_uint32_t len = 0;
    EXPECT_EQ(VELCLIENT_NOT_FOUND, velClient_msg_getUserDataPtr(m, &p, &len));
    EXPECT_EQ(VELCLIENT_NOT_FOUND, velClient_msg_getTopicSequenceNumber(m, &v));
    EXPECT_EQ(VELCLIENT_OK, velClient_msg_setTopicPtr(m, "still/valid"));
    EXPECT_EQ(VELCLIENT_OK, velClient_msg_free(&m));
    EXPECT_EQ(VELCLIENT_FAIL, velClient_msg_reset(m));
}

TEST(MessagePool, DuplicatesShareAndOutliveEachOther)
{
    velClient_opaqueMsg_pt a = nullptr, b = nullptr;
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_alloc(&a));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setUserData(a, "shared", 6));
    char xml[] = "<x/>";
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setXmlPtr(a, xml, 4));
    velClient_uint64_t dups = veltest::stat(VELCLIENT_MSG_STATS_MSG_DUPS);
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_dup(a, &b));
    EXPECT_EQ(dups + 1, veltest::stat(VELCLIENT_MSG_STATS_MSG_DUPS));
    EXPECT_NE(a, b);
    void *pa = nullptr, *pb = nullptr;
    velClient_uint32_t la = 0, lb = 0;
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_getUserDataPtr(a, &pa, &la));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_getUserDataPtr(b, &pb, &lb));
    EXPECT_EQ(pa, pb); /* shared, not copied */
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_getXmlPtr(b, &pb, &lb));
    EXPECT_EQ(static_cast<void *>(xml), pb);
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_free(&a));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_getUserDataPtr(b, &pb, &lb));
    EXPECT_EQ(std::string("shared"), std::string(static_cast<char *>(pb), lb));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_free(&b));
}

TEST(MessagePool, BadHandlesAreRefused)
{
    /* A stale handle whose record and table entry were just reused. (Every export
     * with a forged, stale or wrong-type handle: Refusals.EveryMessageExportRefusesABadHandle.) */
    velClient_opaqueMsg_pt m = nullptr;
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_alloc(&m));
    velClient_opaqueMsg_pt stale = m;
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_free(&m));
    EXPECT_EQ(nullptr, m);
    velClient_opaqueMsg_pt reused = nullptr;
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_alloc(&reused)); /* likely the same record and table entry */
    EXPECT_NE(stale, reused);
    EXPECT_EQ(VELCLIENT_FAIL, velClient_msg_free(&stale));
    EXPECT_LAST_ERROR(VELCLIENT_SUBCODE_PARAM_NULL_PTR, veltest::format("Bad msg_p pointer (%p) in velClient_msg_free", stale));
    EXPECT_EQ(VELCLIENT_OK, velClient_msg_free(&reused));
}

TEST(MessagePool, CleanupReportsRecordsNeverFreed)
{
    velClient_opaqueMsg_pt leaked = nullptr;
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_alloc(&leaked));
    {
        veltest::LogCapture log;
        velClient_cleanup();
        EXPECT_TRUE(log.saw(veltest::format("Currently allocated %d messages not released",
                                            static_cast<int>(veltest::stat(VELCLIENT_MSG_STATS_ALLOC_MSGS)))));
    }
    EXPECT_EQ(0u, veltest::stat(VELCLIENT_MSG_STATS_FREE_MSGS));
    ASSERT_EQ(VELCLIENT_OK, velClient_initialize(VELCLIENT_LOG_EMERGENCY, nullptr));
    /* Records the application still holds stay usable after a restart. */
    EXPECT_EQ(VELCLIENT_OK, velClient_msg_setUserData(leaked, "x", 1));
    EXPECT_EQ(VELCLIENT_OK, velClient_msg_free(&leaked));
}

/* A duplicate's record carries its source's handle; nothing inside the
 * library may reach the message through it. Every path that works on the
 * whole message is driven on a duplicate whose source is gone. */
TEST(MessagePool, ADuplicateOutlivesItsSourceOnEveryPath)
{
    velClient_opaqueMsg_pt source = nullptr, dup = nullptr;
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_alloc(&source));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setSenderId(source, "src"));
    velClient_opaqueContainer_pt map = nullptr;
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_createBinaryAttachmentMap(source, &map, 32));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addInt32(map, 5, "n"));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_closeMapStream(&map));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_dup(source, &dup));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_free(&source));

    veltest::Msg d(dup);
    velClient_opaqueContainer_pt props = nullptr;
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_createUserPropertyMap(d.h, &props, 16));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addBoolean(props, 1, "p"));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_closeMapStream(&props));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setApplicationMessageId(d.h, "dup-only"));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setAsReplyMsg(d.h, 1));

    veltest::Msg b(nullptr);
    ASSERT_EQ(VELCLIENT_OK, veltest::decode(veltest::encode(d.h), &b.h));
    const char *text = nullptr;
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_getSenderId(b.h, &text));
    EXPECT_STREQ("src", text);
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_getApplicationMessageId(b.h, &text));
    EXPECT_STREQ("dup-only", text);
    EXPECT_TRUE(velClient_msg_isReplyMsg(b.h));

    velClient_opaqueSession_pt session = nullptr;
    ASSERT_EQ(VELCLIENT_OK, velClient_session_create(nullptr, nullptr, nullptr, &session));
    EXPECT_EQ(VELCLIENT_OK, velClient_session_sendMsg(session, d.h));
    velClient_session_destroy(&session);
    char dump[2048];
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_dump(d.h, dump, sizeof dump));
    EXPECT_NE(nullptr, std::strstr(dump, "Key 'n' (INT32) 5"));
}
