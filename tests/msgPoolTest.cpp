/* Data blocks, the pools, their limit, classes and statistics, starting the
 * library with properties, and the message life cycle (reset, dup, cleanup).
 * Library state is process-wide, so counters are compared as differences and
 * the defaults are restored after each test. */
#include <cstring>
#include <string>
#include <vector>

#include "support/velTestSupport.h"

using veltest::stat;

namespace {

/* Starts the library with props; the defaults again afterwards. */
struct StartedWith {
    explicit StartedWith(const char *const *props) { EXPECT_EQ(VELCLIENT_OK, velClient_initialize(VELCLIENT_LOG_EMERGENCY, props)); }
    ~StartedWith()
    {
        velClient_msg_setMaxPoolMem(veltest::kDefaultPoolLimit);
        velClient_initialize(VELCLIENT_LOG_EMERGENCY, nullptr);
    }
};

const char *const kSmallClasses[] = {"GLOBAL_DBQUANTASIZE_0", "100", "GLOBAL_DBQUANTASIZE_1", "200",
                                     "GLOBAL_DBQUANTASIZE_2", "300", "GLOBAL_DBQUANTASIZE_3", "400",
                                     "GLOBAL_DBQUANTASIZE_4", "500", nullptr};

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

} // namespace

TEST(Pools, ABlockTakesTheFirstClassThatHoldsItAndIsPooledUnlessOversize)
{
    StartedWith small(kSmallClasses);
    const velClient_uint32_t cases[][3] = {{0, 100, 0}, {100, 100, 0}, {101, 200, 1}, {500, 500, 4}, {501, 501, 5}};
    for (const auto &c : cases) { /* request, capacity, class */
        const velClient_uint64_t live = stat(VELCLIENT_MSG_STATS_ALLOC_DATA_BLOCKS, c[2]);
        velClient_opaqueDatablock_pt b = block(c[0]);
        const velClient_uint64_t pooled = c[2] < 5 ? stat(VELCLIENT_MSG_STATS_FREE_DATA_BLOCKS, c[2]) : 0;
        EXPECT_EQ(c[1], capacityOf(b)) << c[0];
        EXPECT_EQ(live + 1, stat(VELCLIENT_MSG_STATS_ALLOC_DATA_BLOCKS, c[2])) << c[0];
        const velClient_uint64_t total = stat(VELCLIENT_MSG_STATS_TOTAL_MEMORY);
        EXPECT_EQ(VELCLIENT_OK, velClient_datablock_free(&b));
        EXPECT_EQ(nullptr, b);
        EXPECT_EQ(live, stat(VELCLIENT_MSG_STATS_ALLOC_DATA_BLOCKS, c[2]));
        if (c[2] < 5) { /* pooled, and its memory stays counted */
            EXPECT_EQ(pooled + 1, stat(VELCLIENT_MSG_STATS_FREE_DATA_BLOCKS, c[2]));
            EXPECT_EQ(total, stat(VELCLIENT_MSG_STATS_TOTAL_MEMORY));
        } else { /* back to the system */
            EXPECT_GE(total - stat(VELCLIENT_MSG_STATS_TOTAL_MEMORY), 501u);
        }
    }
    velClient_uint64_t v = 0;
    EXPECT_EQ(VELCLIENT_OK, velClient_msg_getStat(VELCLIENT_MSG_STATS_ALLOC_DATA_BLOCKS, 5, &v));
}

TEST(Pools, AtALimitOfZeroNothingIsPooledAndLoweringItEmptiesTheFreeLists)
{
    StartedWith small(kSmallClasses);
    std::vector<velClient_opaqueDatablock_pt> blocks;
    for (velClient_uint32_t size : {50u, 150u, 250u, 350u, 450u})
        blocks.push_back(block(size));
    velClient_opaqueMsg_pt m = nullptr;
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_alloc(&m));
    for (auto &b : blocks)
        velClient_datablock_free(&b);
    velClient_msg_free(&m);
    veltest::expectDrainedPools();

    velClient_msg_setMaxPoolMem(0);
    velClient_opaqueDatablock_pt b = block(10);
    const velClient_uint64_t total = stat(VELCLIENT_MSG_STATS_TOTAL_MEMORY);
    velClient_datablock_free(&b);
    EXPECT_EQ(0u, stat(VELCLIENT_MSG_STATS_FREE_DATA_BLOCKS, 0));
    EXPECT_GT(total - stat(VELCLIENT_MSG_STATS_TOTAL_MEMORY), 100u); /* capacity plus the block's header */
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_alloc(&m));
    velClient_msg_free(&m);
    EXPECT_EQ(0u, stat(VELCLIENT_MSG_STATS_FREE_MSGS));
}

TEST(Pools, ClassesAndLimitFromStartPropertiesAndRefusalsThatChangeNothing)
{
    const char *props[] = {"GLOBAL_DBQUANTASIZE_0", "64",   "GLOBAL_DBQUANTASIZE_1", "128",
                           "GLOBAL_DBQUANTASIZE_2", "1000", "GLOBAL_DBQUANTASIZE_3", "5000",
                           "GLOBAL_DBQUANTASIZE_4", "9000", "GLOBAL_MAXPOOLMEM",     "0", nullptr};
    StartedWith started(props);
    auto capacityFor = [](velClient_uint32_t size) {
        velClient_opaqueDatablock_pt b = block(size);
        velClient_uint32_t c = capacityOf(b);
        velClient_datablock_free(&b);
        return c;
    };
    EXPECT_EQ(64u, capacityFor(1));
    EXPECT_EQ(128u, capacityFor(65));
    EXPECT_EQ(9000u, capacityFor(5001));
    EXPECT_EQ(9001u, capacityFor(9001)); /* above the last class: exactly the size asked */
    EXPECT_EQ(0u, stat(VELCLIENT_MSG_STATS_FREE_DATA_BLOCKS, 0)); /* a limit of 0 pools nothing */

    const std::string digits(300, '1');
    struct Bad {
        const char *name, *value;
        bool known;
    };
    const Bad bad[] = {{"GLOBAL_DBQUANTASIZE_0", "abc", true},  {"GLOBAL_DBQUANTASIZE_1", "-1", true},
                       {"GLOBAL_DBQUANTASIZE_2", "", true},     {"GLOBAL_DBQUANTASIZE_3", "4294967296", true},
                       {"GLOBAL_DBQUANTASIZE_4", "12x", true},  {"GLOBAL_DBQUANTASIZE_0", nullptr, true},
                       {"GLOBAL_MAXPOOLMEM", "18446744073709551616", true}, {"GLOBAL_MAXPOOLMEM", digits.c_str(), true},
                       {"GLOBAL_DBQUANTASIZE_5", "100", false}, {"GLOBAL_DBQUANTASIZE_", "100", false},
                       {"GLOBAL_POOL", "1", false}};
    for (const Bad &c : bad) {
        const char *one[] = {c.name, c.value, nullptr};
        EXPECT_EQ(VELCLIENT_FAIL, velClient_initialize(VELCLIENT_LOG_EMERGENCY, one)) << c.name;
        /* A value too long for the error record is what gets cut, not the property's name. */
        const std::string text = c.known ? std::string("Invalid value for property ") + c.name +
                                               " in velClient_initialize: '" + (c.value ? c.value : "(null)") + "'"
                                         : std::string("Unknown property ") + c.name + " in velClient_initialize";
        EXPECT_LAST_ERROR(VELCLIENT_SUBCODE_PARAM_OUT_OF_RANGE, text.substr(0, 255));
    }
    const char *unordered[] = {"GLOBAL_DBQUANTASIZE_2", "100", nullptr};
    EXPECT_EQ(VELCLIENT_FAIL, velClient_initialize(VELCLIENT_LOG_EMERGENCY, unordered));
    EXPECT_LAST_ERROR(VELCLIENT_SUBCODE_PARAM_OUT_OF_RANGE,
                      "Property GLOBAL_DBQUANTASIZE_2 (100) is not above GLOBAL_DBQUANTASIZE_1 (2048) in "
                      "velClient_initialize");
    EXPECT_EQ(64u, capacityFor(1)); /* the classes set before every refusal still hold */
}

TEST(DataBlocks, ReferencesAndExtractionHandTheMessagesReferenceOver)
{
    velClient_opaqueDatablock_pt b = block(10), copy = b;
    EXPECT_EQ(VELCLIENT_OK, velClient_datablock_dup(b));
    EXPECT_EQ(VELCLIENT_OK, velClient_datablock_free(&copy)); /* one holder left */
    EXPECT_EQ(VELCLIENT_FAIL, velClient_datablock_getDataPtr(b, nullptr, nullptr));
    copy = b;
    EXPECT_EQ(VELCLIENT_OK, velClient_datablock_free(&b));
    EXPECT_EQ(VELCLIENT_FAIL, velClient_datablock_free(&copy)); /* the count is 0: refused, the variable kept */
    EXPECT_LAST_ERROR(VELCLIENT_SUBCODE_PARAM_OUT_OF_RANGE, "Datablock pointer in velClient_datablock_free already free");
    EXPECT_NE(nullptr, copy);

    velClient_opaqueMsg_pt m = nullptr;
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_alloc(&m));
    b = reinterpret_cast<velClient_opaqueDatablock_pt>(1);
    velClient_bufInfo_t info{reinterpret_cast<void *>(1), 7};
    EXPECT_EQ(VELCLIENT_NOT_FOUND, velClient_msg_extractDatablock(m, VELCLIENT_BUFINFO_USER_DATA_PART, &b, &info));
    EXPECT_TRUE(b == nullptr && info.buf_p == nullptr && info.bufSize == 0);
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setUserData(m, "hello", 5));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_extractDatablock(m, VELCLIENT_BUFINFO_USER_DATA_PART, &b, &info));
    EXPECT_EQ(5u, info.bufSize);
    void *p = nullptr;
    velClient_uint32_t len = 0;
    EXPECT_EQ(VELCLIENT_NOT_FOUND, velClient_msg_getUserDataPtr(m, &p, &len));
    velClient_msg_free(&m);
    EXPECT_GE(capacityOf(b), 5u); /* the block outlives the message */
    EXPECT_EQ(0, std::memcmp(info.buf_p, "hello", 5));
    EXPECT_EQ(VELCLIENT_OK, velClient_datablock_free(&b));
}

TEST(MessagePool, TheOlderStatisticsLayoutMirrorsTheCounters)
{
    veltest::Msg m;
    _velClient_R43_msgPoolStats_pt legacy = velClient_msg_getMsgPoolStats();
    legacy->numAllocDataB[5] = 0xABCD; /* never written by the library */
    legacy = velClient_msg_getMsgPoolStats();
    EXPECT_EQ(stat(VELCLIENT_MSG_STATS_ALLOC_MSGS), legacy->numAllocMsg);
    EXPECT_EQ(stat(VELCLIENT_MSG_STATS_MSG_ALLOCS), legacy->msgAllocs);
    EXPECT_EQ(stat(VELCLIENT_MSG_STATS_TOTAL_MEMORY), legacy->totMemory);
    EXPECT_EQ(stat(VELCLIENT_MSG_STATS_ALLOC_CONTAINERS), legacy->numContainers);
    EXPECT_EQ(0xABCDu, legacy->numAllocDataB[5]);
}

TEST(MessagePool, ResetKeepsTheHandleOnly)
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
    velClient_uint32_t cos = 9, len = 0;
    void *p = nullptr;
    EXPECT_EQ(VELCLIENT_OK, velClient_msg_getTimeToLive(m, &v));
    EXPECT_EQ(0, v);
    EXPECT_EQ(VELCLIENT_OK, velClient_msg_getClassOfService(m, &cos));
    EXPECT_EQ(0u, cos);
    EXPECT_EQ(VELCLIENT_NOT_FOUND, velClient_msg_getUserDataPtr(m, &p, &len));
    EXPECT_EQ(VELCLIENT_NOT_FOUND, velClient_msg_getTopicSequenceNumber(m, &v));
    EXPECT_EQ(VELCLIENT_OK, velClient_msg_setTopicPtr(m, "still/valid"));
    EXPECT_EQ(VELCLIENT_OK, velClient_msg_free(&m));
    EXPECT_EQ(VELCLIENT_FAIL, velClient_msg_reset(m));
}

TEST(MessagePool, CleanupReportsRecordsNeverFreed)
{
    velClient_opaqueMsg_pt leaked = nullptr;
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_alloc(&leaked));
    {
        veltest::LogCapture log;
        velClient_cleanup();
        EXPECT_TRUE(log.saw(veltest::format("Currently allocated %d messages not released",
                                            static_cast<int>(stat(VELCLIENT_MSG_STATS_ALLOC_MSGS)))));
    }
    EXPECT_EQ(0u, stat(VELCLIENT_MSG_STATS_FREE_MSGS));
    ASSERT_EQ(VELCLIENT_OK, velClient_initialize(VELCLIENT_LOG_EMERGENCY, nullptr));
    /* Records the application still holds stay usable after a restart. */
    EXPECT_EQ(VELCLIENT_OK, velClient_msg_setUserData(leaked, "x", 1));
    EXPECT_EQ(VELCLIENT_OK, velClient_msg_free(&leaked));
}

/* A duplicate shares its source's blocks and outlives it; its record carries
 * the source's handle, which nothing inside the library may reach the message
 * through, so every path that works on the whole message runs on it. */
TEST(MessagePool, ADuplicateSharesAndOutlivesItsSourceOnEveryPath)
{
    velClient_opaqueMsg_pt source = nullptr, dup = nullptr;
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_alloc(&source));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setSenderId(source, "src"));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setUserData(source, "shared", 6));
    char xml[] = "<x/>";
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setXmlPtr(source, xml, 4));
    velClient_opaqueContainer_pt map = nullptr;
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_createBinaryAttachmentMap(source, &map, 32));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addInt32(map, 5, "n"));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_closeMapStream(&map));
    const velClient_uint64_t dups = stat(VELCLIENT_MSG_STATS_MSG_DUPS);
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_dup(source, &dup));
    EXPECT_EQ(dups + 1, stat(VELCLIENT_MSG_STATS_MSG_DUPS));
    veltest::Msg d(dup);
    void *pa = nullptr, *pb = nullptr;
    velClient_uint32_t la = 0, lb = 0;
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_getUserDataPtr(source, &pa, &la));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_getUserDataPtr(d.h, &pb, &lb));
    EXPECT_EQ(pa, pb); /* shared, not copied */
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_getXmlPtr(d.h, &pb, &lb));
    EXPECT_EQ(static_cast<void *>(xml), pb);
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_free(&source));

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
    EXPECT_EQ(std::string("shared"), std::string(static_cast<char *>(pa), 6));
    velClient_opaqueSession_pt session = nullptr;
    ASSERT_EQ(VELCLIENT_OK, velClient_session_create(nullptr, nullptr, nullptr, &session));
    EXPECT_EQ(VELCLIENT_OK, velClient_session_sendMsg(session, d.h));
    velClient_session_destroy(&session);
    EXPECT_NE(std::string::npos, d.dump().find("Key 'n' (INT32) 5"));
}
