/* Data blocks, the pools, their limit, classes and statistics, starting the
 * library with properties, and the message life cycle (dup, reset, cleanup).
 * Counters are process-wide: compared as differences, defaults restored. */
#include <cstdint>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "support/velTestSupport.h"

using veltest::stat;

namespace {

velClient_opaqueDatablock_pt block(velClient_uint32_t size)
{
    velClient_opaqueDatablock_pt b = nullptr;
    EXPECT_EQ(VELCLIENT_OK, velClient_datablock_alloc(&b, size));
    return b;
}

/* The block's data area and its capacity. */
std::pair<void *, velClient_uint32_t> areaOf(velClient_opaqueDatablock_pt b)
{
    std::pair<void *, velClient_uint32_t> area{nullptr, 0};
    EXPECT_EQ(VELCLIENT_OK, velClient_datablock_getDataPtr(b, &area.first, &area.second));
    return area;
}

} // namespace

/* Classes and a limit of 0 from the start properties; a block takes the
 * first class that holds it and is pooled unless oversize, whose memory goes
 * back; refused properties of the library change nothing. */
TEST(Pools, ClassesAndLimitFromStartPropertiesAndTheirRefusals)
{
    const char *const classes[] = {"GLOBAL_DBQUANTASIZE_0", "100", "GLOBAL_DBQUANTASIZE_1", "200", "GLOBAL_DBQUANTASIZE_2",
                                   "300", "GLOBAL_DBQUANTASIZE_3", "400", "GLOBAL_DBQUANTASIZE_4", "500",
                                   "GLOBAL_MAXPOOLMEM", "0", nullptr};
    EXPECT_EQ(VELCLIENT_OK, velClient_initialize(VELCLIENT_LOG_EMERGENCY, classes));
    velClient_opaqueDatablock_pt b = block(10);
    const velClient_uint64_t total = stat(VELCLIENT_MSG_STATS_TOTAL_MEMORY);
    velClient_datablock_free(&b);
    EXPECT_EQ(0u, stat(VELCLIENT_MSG_STATS_FREE_DATA_BLOCKS, 0)); /* at a limit of 0 nothing is pooled */
    EXPECT_GT(total - stat(VELCLIENT_MSG_STATS_TOTAL_MEMORY), 100u); /* capacity plus the block's header */
    veltest::Msg{}; /* a message freed at a limit of 0 is not pooled either */
    EXPECT_EQ(0u, stat(VELCLIENT_MSG_STATS_FREE_MSGS));
    velClient_msg_setMaxPoolMem(veltest::kDefaultPoolLimit);
    /* request, capacity, class: the first class that holds it; above the last, as asked and not pooled */
    const velClient_uint32_t cases[][3] = {{0, 100, 0}, {100, 100, 0}, {101, 200, 1}, {500, 500, 4}, {501, 501, 5}};
    const auto expectClasses = [&] {
        for (const auto &c : cases) {
            const velClient_uint64_t live = stat(VELCLIENT_MSG_STATS_ALLOC_DATA_BLOCKS, c[2]);
            b = block(c[0]);
            const velClient_uint64_t pooled = c[2] < 5 ? stat(VELCLIENT_MSG_STATS_FREE_DATA_BLOCKS, c[2]) + 1 : 0;
            EXPECT_EQ(c[1], areaOf(b).second) << c[0];
            EXPECT_EQ(live + 1, stat(VELCLIENT_MSG_STATS_ALLOC_DATA_BLOCKS, c[2])) << c[0];
            const velClient_uint64_t total = stat(VELCLIENT_MSG_STATS_TOTAL_MEMORY);
            EXPECT_EQ(VELCLIENT_OK, velClient_datablock_free(&b));
            EXPECT_EQ(c[2] < 5, total == stat(VELCLIENT_MSG_STATS_TOTAL_MEMORY)) << c[0]; /* oversize: given back */
            EXPECT_EQ(live, stat(VELCLIENT_MSG_STATS_ALLOC_DATA_BLOCKS, c[2]));
            EXPECT_EQ(pooled, c[2] < 5 ? stat(VELCLIENT_MSG_STATS_FREE_DATA_BLOCKS, c[2]) : 0) << c[0];
        }
    };
    expectClasses();
    veltest::expectDrainedPools(); /* lowering the limit to 0 empties every free list */

    /* A value too long for the error record is what gets cut, not the property's name. */
    const std::string digits(300, '1');
    const std::pair<const char *, const char *> bad[] = {
        {"GLOBAL_DBQUANTASIZE_0", "abc"}, {"GLOBAL_DBQUANTASIZE_1", "-1"}, {"GLOBAL_DBQUANTASIZE_2", ""},
        {"GLOBAL_DBQUANTASIZE_3", "4294967296"}, {"GLOBAL_DBQUANTASIZE_4", "12x"}, {"GLOBAL_DBQUANTASIZE_0", nullptr},
        {"GLOBAL_MAXPOOLMEM", "18446744073709551616"}, {"GLOBAL_MAXPOOLMEM", digits.c_str()},
        {"GLOBAL_DBQUANTASIZE_5", "100"}, {"GLOBAL_DBQUANTASIZE_", "100"}, {"GLOBAL_POOL", "1"}}; /* unknown */
    for (const auto &[name, value] : bad) {
        const char *one[] = {name, value, nullptr};
        EXPECT_EQ(VELCLIENT_FAIL, velClient_initialize(VELCLIENT_LOG_EMERGENCY, one)) << name;
        const std::string text = &name < &bad[8].first ? std::string("Invalid value for property ") + name +
                                                             " in velClient_initialize: '" + (value ? value : "(null)") + "'"
                                                       : std::string("Unknown property ") + name + " in velClient_initialize";
        EXPECT_LAST_ERROR(VELCLIENT_SUBCODE_PARAM_OUT_OF_RANGE, text.substr(0, 255));
    }
    const char *unordered[] = {"GLOBAL_DBQUANTASIZE_2", "100", nullptr};
    EXPECT_EQ(VELCLIENT_FAIL, velClient_initialize(VELCLIENT_LOG_EMERGENCY, unordered));
    EXPECT_LAST_ERROR(VELCLIENT_SUBCODE_PARAM_OUT_OF_RANGE,
                      "Property GLOBAL_DBQUANTASIZE_2 (100) is not above GLOBAL_DBQUANTASIZE_1 (2048) in velClient_initialize");
    expectClasses(); /* the classes set before every refusal still hold */
    velClient_initialize(VELCLIENT_LOG_EMERGENCY, nullptr); /* the default classes again */
}

TEST(DataBlocks, ReferencesAndExtractionHandTheMessagesReferenceOver)
{
    velClient_opaqueDatablock_pt b = block(10), copy = b;
    EXPECT_EQ(VELCLIENT_OK, velClient_datablock_dup(b));
    EXPECT_EQ(VELCLIENT_OK, velClient_datablock_free(&copy)); /* one holder left */
    copy = b;
    EXPECT_EQ(VELCLIENT_OK, velClient_datablock_free(&b));
    EXPECT_EQ(VELCLIENT_FAIL, velClient_datablock_free(&copy)); /* the count is 0: refused, the variable kept */
    EXPECT_LAST_ERROR(VELCLIENT_SUBCODE_PARAM_OUT_OF_RANGE, "Datablock pointer in velClient_datablock_free already free");
    EXPECT_NE(nullptr, copy);

    veltest::Msg m;
    b = reinterpret_cast<velClient_opaqueDatablock_pt>(1);
    velClient_bufInfo_t info{reinterpret_cast<void *>(1), 7};
    EXPECT_EQ(VELCLIENT_NOT_FOUND, velClient_msg_extractDatablock(m.h, VELCLIENT_BUFINFO_USER_DATA_PART, &b, &info));
    EXPECT_TRUE(b == nullptr && info.buf_p == nullptr && info.bufSize == 0);
    /* The map open on a part is finalised and closed before its block is taken. */
    velClient_opaqueContainer_pt props = nullptr;
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_createUserPropertyMap(m.h, &props, 16));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addInt8(props, 1, "p"));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_extractDatablock(m.h, VELCLIENT_BUFINFO_USER_PROPERTY_PART, &b, &info));
    EXPECT_EQ(VELCLIENT_FAIL, velClient_container_rewind(props));
    EXPECT_EQ((veltest::Bytes{0x2B, 0, 0, 0, 12, 0x1C, 0x04, 'p', 0, 0x08, 0x03, 0x01}), /* behind 4 reserved key bytes */
              veltest::bytesAt(static_cast<std::uint8_t *>(info.buf_p) + 4, info.bufSize - 4));
    velClient_datablock_free(&b);
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setUserData(m.h, "hello", 5));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_extractDatablock(m.h, VELCLIENT_BUFINFO_USER_DATA_PART, &b, &info));
    EXPECT_EQ(5u, info.bufSize);
    velClient_msg_free(&m.h);
    EXPECT_EQ(0, std::memcmp(info.buf_p, "hello", 5)); /* the block outlives the message */
    velClient_datablock_free(&b);
}

/* The older statistics layout mirrors the counters; cleanup reports the
 * records never freed, which stay usable after a restart. */
TEST(MessagePool, TheOlderStatisticsLayoutAndCleanupWithRecordsNeverFreed)
{
    velClient_opaqueMsg_pt leaked = nullptr;
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_alloc(&leaked));
    _velClient_R43_msgPoolStats_pt legacy = velClient_msg_getMsgPoolStats();
    legacy->numAllocDataB[5] = 0xABCD; /* never written by the library */
    legacy = velClient_msg_getMsgPoolStats();
    EXPECT_EQ(stat(VELCLIENT_MSG_STATS_ALLOC_MSGS), legacy->numAllocMsg);
    EXPECT_EQ(stat(VELCLIENT_MSG_STATS_MSG_ALLOCS), legacy->msgAllocs);
    EXPECT_EQ(stat(VELCLIENT_MSG_STATS_TOTAL_MEMORY), legacy->totMemory);
    EXPECT_EQ(stat(VELCLIENT_MSG_STATS_ALLOC_CONTAINERS), legacy->numContainers);
    EXPECT_EQ(0xABCDu, legacy->numAllocDataB[5]);
    {
        veltest::LogCapture log;
        velClient_cleanup();
        EXPECT_TRUE(log.saw(veltest::format("Currently allocated %d messages not released",
                                            static_cast<int>(stat(VELCLIENT_MSG_STATS_ALLOC_MSGS)))));
    }
    EXPECT_EQ(0u, stat(VELCLIENT_MSG_STATS_FREE_MSGS));
    ASSERT_EQ(VELCLIENT_OK, velClient_initialize(VELCLIENT_LOG_EMERGENCY, nullptr));
    EXPECT_EQ(VELCLIENT_OK, velClient_msg_setUserData(leaked, "x", 1)); /* still usable after a restart */
    EXPECT_EQ(VELCLIENT_OK, velClient_msg_free(&leaked));
}

/* A duplicate shares its source's blocks and outlives it; its record carries
 * the source's handle, which nothing inside the library may reach the message
 * through, so encoding and a reply setting run on it alone. A reset
 * of the message received from it leaves a fresh message. */
TEST(MessagePool, ADuplicateSharesAndOutlivesItsSourceOnEveryPath)
{
    velClient_opaqueMsg_pt source = nullptr, dup = nullptr;
    velClient_opaqueContainer_pt map = nullptr;
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_alloc(&source));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setUserData(source, "shared", 6));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setCorrelationTag(source, "ct-1", 5));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_createBinaryAttachmentMap(source, &map, 32));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addInt32(map, 5, "n"));
    const velClient_uint64_t dups = stat(VELCLIENT_MSG_STATS_MSG_DUPS);
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_dup(source, &dup));
    EXPECT_EQ(dups + 1, stat(VELCLIENT_MSG_STATS_MSG_DUPS));
    veltest::Msg d(dup);
    void *pa = nullptr, *pb = nullptr;
    velClient_uint32_t len = 0;
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_getUserDataPtr(source, &pa, &len));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_getUserDataPtr(d.h, &pb, &len));
    EXPECT_EQ(pa, pb); /* shared, not copied */
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_free(&source));

    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setAsReplyMsg(d.h, 1));
    veltest::Msg b(nullptr);
    ASSERT_EQ(VELCLIENT_OK, veltest::decode(veltest::encode(d.h), &b.h));
    const std::string text = b.dump();
    for (const char *shown : {"Key 'n' (INT32) 5", "Reply Message", "shared", "ct-1."})
        EXPECT_NE(std::string::npos, text.find(shown)) << shown;
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_reset(b.h)); /* a reset keeps the handle only */
    EXPECT_EQ(veltest::Msg().dump(), b.dump());
}

/* Every part's block goes back exactly once, whether the part holds it alone, shares it with a
 * duplicate, or (in a received message) shares it with the other parts cut from the same frame;
 * on a reset as on a free. The live blocks of every class are back where they started. */
TEST(MessagePool, EveryPartsBlockIsDroppedOnceOnResetAndFree)
{
    auto liveBlocks = [] {
        velClient_uint64_t n = 0;
        for (velClient_uint32_t c = 0; c <= 5; ++c)
            n += stat(VELCLIENT_MSG_STATS_ALLOC_DATA_BLOCKS, c);
        return n;
    };
    const velClient_uint64_t live = liveBlocks();
    {
        veltest::Msg m;
        const velClient_destination_t queue{VELCLIENT_QUEUE_DESTINATION, "a/queue"};
        const velClient_destination_t topic{VELCLIENT_TOPIC_DESTINATION, "a/topic"};
        ASSERT_EQ(VELCLIENT_OK, velClient_msg_setBinaryAttachment(m.h, "attachment", 10));
        ASSERT_EQ(VELCLIENT_OK, velClient_msg_setUserData(m.h, "user", 4));
        ASSERT_EQ(VELCLIENT_OK, velClient_msg_setXml(m.h, "<x/>", 4));
        ASSERT_EQ(VELCLIENT_OK, velClient_msg_setCorrelationTag(m.h, "tag", 3));
        ASSERT_EQ(VELCLIENT_OK, velClient_msg_setDestination(m.h, &queue, sizeof queue));
        ASSERT_EQ(VELCLIENT_OK, velClient_msg_setDestination(m.h, &topic, sizeof topic));
        ASSERT_EQ(VELCLIENT_OK, velClient_msg_setReplyTo(m.h, &queue, sizeof queue));
        ASSERT_EQ(VELCLIENT_OK, velClient_msg_setSenderId(m.h, "sender"));
        velClient_opaqueContainer_pt props = nullptr;
        ASSERT_EQ(VELCLIENT_OK, velClient_msg_createUserPropertyMap(m.h, &props, 64));
        ASSERT_EQ(VELCLIENT_OK, velClient_container_addInt32(props, 7, "seven"));
        ASSERT_EQ(VELCLIENT_OK, velClient_container_closeMapStream(&props));
        const veltest::Bytes wire = veltest::encode(m.h);
        for (int round = 0; round < 2; ++round) {
            veltest::Msg received(nullptr);
            ASSERT_EQ(VELCLIENT_OK, veltest::decode(wire, &received.h));
            velClient_opaqueMsg_pt dup = nullptr;
            ASSERT_EQ(VELCLIENT_OK, velClient_msg_dup(round == 0 ? m.h : received.h, &dup));
            veltest::Msg d(dup);
            ASSERT_EQ(VELCLIENT_OK, velClient_msg_reset(round == 0 ? received.h : d.h));
        }
        ASSERT_EQ(VELCLIENT_OK, velClient_msg_reset(m.h));
    }
    EXPECT_EQ(live, liveBlocks());
}
