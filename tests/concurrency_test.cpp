/* Several threads sharing the pools at once: messages, duplicates, data
 * blocks handed from one thread to another, containers. The counters must
 * balance afterwards. Iterations are bounded; nothing is timed. */
#include <atomic>
#include <cstdlib>
#include <thread>
#include <vector>

#include "support/velTestSupport.h"

namespace {

constexpr int kThreads = 4;
constexpr int kRounds = 3000;

/* A single-producer, single-consumer hand-over of data blocks between two threads. */
struct HandOver {
    static constexpr int kSlots = 64;
    std::atomic<velClient_opaqueDatablock_pt> slots[kSlots] = {};
};

void worker(int id, HandOver &out, HandOver &in, std::atomic<int> &failures)
{
    for (int i = 0; i < kRounds; ++i) {
        velClient_opaqueMsg_pt m = nullptr, d = nullptr;
        velClient_opaqueContainer_pt map = nullptr;
        if (velClient_msg_alloc(&m) != VELCLIENT_OK || velClient_msg_setUserData(m, "abc", 3) != VELCLIENT_OK ||
            velClient_msg_createBinaryAttachmentMap(m, &map, 16) != VELCLIENT_OK ||
            velClient_container_addInt32(map, i, "i") != VELCLIENT_OK || velClient_msg_dup(m, &d) != VELCLIENT_OK)
            ++failures;
        velClient_msg_free(&m);
        velClient_int32_t v = -1;
        if (velClient_msg_getBinaryAttachmentMap(d, &map) != VELCLIENT_OK ||
            velClient_container_getInt32(map, &v, "i") != VELCLIENT_OK || v != i)
            ++failures;
        velClient_msg_free(&d);

        /* Give a block away; free whatever the other thread handed over. */
        velClient_opaqueDatablock_pt b = nullptr;
        if (velClient_datablock_alloc(&b, static_cast<velClient_uint32_t>((i * 37 + id) % 3000)) != VELCLIENT_OK)
            ++failures;
        velClient_opaqueDatablock_pt old = out.slots[i % HandOver::kSlots].exchange(b);
        if (old != nullptr)
            velClient_datablock_free(&old);
        velClient_opaqueDatablock_pt got = in.slots[(i * 7) % HandOver::kSlots].exchange(nullptr);
        if (got != nullptr)
            velClient_datablock_free(&got);
    }
}

} // namespace

TEST(Concurrency, ThreadsSharingThePoolsLeaveTheCountersBalanced)
{
    const veltest::LiveCounts before;
    velClient_uint64_t allocMemory = veltest::stat(VELCLIENT_MSG_STATS_ALLOC_MEMORY);

    std::vector<HandOver> lanes(kThreads);
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back(worker, t, std::ref(lanes[t]), std::ref(lanes[(t + 1) % kThreads]), std::ref(failures));
    for (auto &th : threads)
        th.join();
    for (auto &lane : lanes)
        for (auto &slot : lane.slots) {
            velClient_opaqueDatablock_pt b = slot.exchange(nullptr);
            if (b != nullptr)
                velClient_datablock_free(&b);
        }

    EXPECT_EQ(0, failures.load());
    before.expectBalanced();
    EXPECT_EQ(allocMemory, veltest::stat(VELCLIENT_MSG_STATS_ALLOC_MEMORY));
    /* Every record is either live or pooled: the pooled counts match the free lists after draining. */
    velClient_msg_setMaxPoolMem(0);
    EXPECT_EQ(0u, veltest::stat(VELCLIENT_MSG_STATS_FREE_MSGS));
    for (velClient_uint32_t q = 0; q < 5; ++q)
        EXPECT_EQ(0u, veltest::stat(VELCLIENT_MSG_STATS_FREE_DATA_BLOCKS, q));
    velClient_msg_setMaxPoolMem(64ull * 1024 * 1024);
}

namespace {

/* Frees its message when the thread ends: after the library's own
 * thread-exit step has run, since it was made first. */
struct FreedAtThreadExit {
    velClient_opaqueMsg_pt msg = nullptr;
    ~FreedAtThreadExit()
    {
        if (velClient_msg_free(&msg) != VELCLIENT_OK)
            std::abort();
    }
};

} // namespace

TEST(Concurrency, AMessageFreedByALaterThreadExitDestructorIsNotLost)
{
    const veltest::LiveCounts before;
    std::thread t([] {
        thread_local FreedAtThreadExit holder; /* constructed before the library sees this thread */
        velClient_opaqueMsg_pt m = nullptr;
        ASSERT_EQ(VELCLIENT_OK, velClient_msg_alloc(&m));
        ASSERT_EQ(VELCLIENT_OK, velClient_msg_setUserData(m, "kept past the library's exit step", 30));
        holder.msg = m;
    });
    t.join();
    before.expectBalanced(); /* the late free was counted */
    /* The record and its block went to the shared lists, where draining finds them. */
    velClient_uint64_t memory = veltest::stat(VELCLIENT_MSG_STATS_TOTAL_MEMORY);
    velClient_msg_setMaxPoolMem(0);
    EXPECT_LT(veltest::stat(VELCLIENT_MSG_STATS_TOTAL_MEMORY), memory);
    EXPECT_EQ(0u, veltest::stat(VELCLIENT_MSG_STATS_FREE_MSGS));
    EXPECT_EQ(0u, veltest::stat(VELCLIENT_MSG_STATS_FREE_DATA_BLOCKS, 0));
    velClient_msg_setMaxPoolMem(64ull * 1024 * 1024);
}
