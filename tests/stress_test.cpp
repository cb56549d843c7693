/* Threads sharing everything at once: messages with growing maps and user
 * properties, duplicates, encode and decode of separate messages, data blocks
 * handed between threads, loopback sends on a thread's own session and on one
 * shared session, while another thread keeps lowering and raising the pool
 * limit. Iterations are bounded; nothing is timed. Built and run under
 * ThreadSanitizer as well as the other builds. */
#include <atomic>
#include <cstdio>
#include <thread>
#include <vector>

#include "support/velTestSupport.h"

namespace {

constexpr int kThreads = 4;
constexpr int kRounds = 1500;

struct Totals {
    std::atomic<long> failures{0}, messages{0}, dups{0}, wireRoundTrips{0}, blocksHanded{0}, sends{0},
        received{0}, limitChanges{0};
};

velClient_rxMsgCallback_returnCode_t countReceived(velClient_opaqueSession_pt, velClient_opaqueMsg_pt msg,
                                                   void *user)
{
    auto *totals = static_cast<Totals *>(user);
    velClient_int32_t n = -1;
    velClient_opaqueContainer_pt props = nullptr;
    if (velClient_msg_getUserPropertyMap(msg, &props) != VELCLIENT_OK ||
        velClient_container_getInt32(props, &n, "n") != VELCLIENT_OK || n < 0)
        ++totals->failures;
    velClient_container_closeMapStream(&props);
    ++totals->received;
    return VELCLIENT_CALLBACK_OK;
}

/* A message whose attachment map grows past its first guess, with a user property. */
bool build(velClient_opaqueMsg_pt m, int round)
{
    velClient_opaqueContainer_pt map = nullptr, props = nullptr;
    bool ok = velClient_msg_setTopicPtr(m, "stress/topic") == VELCLIENT_OK &&
              velClient_msg_createUserPropertyMap(m, &props, 8) == VELCLIENT_OK &&
              velClient_container_addInt32(props, round, "n") == VELCLIENT_OK &&
              velClient_msg_createBinaryAttachmentMap(m, &map, 16) == VELCLIENT_OK;
    for (int f = 0; ok && f < 24; ++f) {
        char name[8];
        std::snprintf(name, sizeof name, "f%d", f);
        ok = velClient_container_addInt64(map, round * 100 + f, name) == VELCLIENT_OK;
    }
    velClient_container_closeMapStream(&props);
    velClient_container_closeMapStream(&map);
    return ok;
}

/* Encodes m, decodes the bytes into a new message and reads a field back. */
bool wireRoundTrip(velClient_opaqueMsg_pt m, int round)
{
    velClient_bufInfo_t wire{};
    velClient_opaqueDatablock_pt block = nullptr;
    velClient_opaqueMsg_pt back = nullptr;
    velClient_opaqueContainer_pt map = nullptr;
    velClient_int64_t v = -1;
    bool ok = velClient_msg_encodeToVWF(m, &wire, &block) == VELCLIENT_OK &&
              velClient_msg_decodeFromVwf(&wire, &back) == VELCLIENT_OK &&
              velClient_msg_getBinaryAttachmentMap(back, &map) == VELCLIENT_OK &&
              velClient_container_getInt64(map, &v, "f23") == VELCLIENT_OK && v == round * 100 + 23;
    velClient_container_closeMapStream(&map);
    velClient_msg_free(&back);
    velClient_datablock_free(&block);
    return ok;
}

struct Lane {
    static constexpr int kSlots = 32;
    std::atomic<velClient_opaqueDatablock_pt> slots[kSlots] = {};
};

void worker(int id, Lane &out, Lane &in, velClient_opaqueSession_pt shared, Totals &totals)
{
    velClient_opaqueSession_pt own = nullptr;
    if (velClient_session_create(nullptr, countReceived, &totals, &own) != VELCLIENT_OK)
        ++totals.failures;
    for (int i = 0; i < kRounds; ++i) {
        velClient_opaqueMsg_pt m = nullptr, d = nullptr;
        bool ok = velClient_msg_alloc(&m) == VELCLIENT_OK && build(m, i) && velClient_msg_dup(m, &d) == VELCLIENT_OK &&
                  wireRoundTrip(d, i) &&
                  velClient_session_sendMsg((i & 1) ? shared : own, m) == VELCLIENT_OK;
        totals.failures += !ok;
        ++totals.messages;
        ++totals.dups;
        ++totals.wireRoundTrips;
        ++totals.sends;
        velClient_msg_free(&d);
        velClient_msg_free(&m);

        velClient_opaqueDatablock_pt b = nullptr;
        if (velClient_datablock_alloc(&b, static_cast<velClient_uint32_t>((i * 131 + id) % 20000)) != VELCLIENT_OK)
            ++totals.failures;
        if (velClient_opaqueDatablock_pt old = out.slots[i % Lane::kSlots].exchange(b))
            velClient_datablock_free(&old);
        if (velClient_opaqueDatablock_pt got = in.slots[(i * 7) % Lane::kSlots].exchange(nullptr)) {
            velClient_datablock_free(&got);
            ++totals.blocksHanded;
        }
    }
    velClient_session_destroy(&own);
}

} // namespace

TEST(Stress, SharedPoolsSessionsAndAMovingLimitLoseNothing)
{
    const veltest::LiveCounts before;
    const velClient_uint64_t allocMemory = veltest::stat(VELCLIENT_MSG_STATS_ALLOC_MEMORY);
    Totals totals;
    velClient_opaqueSession_pt shared = nullptr;
    ASSERT_EQ(VELCLIENT_OK, velClient_session_create(nullptr, countReceived, &totals, &shared));
    std::vector<Lane> lanes(kThreads);
    std::atomic<bool> done{false};
    std::thread limiter([&] {
        /* Lowering the limit drains the shared free lists while the workers pop them. */
        for (velClient_uint64_t limit = 0; !done.load(); limit = limit == 0 ? 64ull << 20 : 0) {
            velClient_msg_setMaxPoolMem(limit);
            ++totals.limitChanges;
            std::this_thread::yield();
        }
    });
    std::vector<std::thread> workers;
    for (int t = 0; t < kThreads; ++t)
        workers.emplace_back(worker, t, std::ref(lanes[t]), std::ref(lanes[(t + 1) % kThreads]), shared,
                             std::ref(totals));
    for (auto &w : workers)
        w.join();
    done = true;
    limiter.join();
    velClient_msg_setMaxPoolMem(64ull << 20);
    for (auto &lane : lanes)
        for (auto &slot : lane.slots)
            if (velClient_opaqueDatablock_pt b = slot.exchange(nullptr))
                velClient_datablock_free(&b);
    ASSERT_EQ(VELCLIENT_OK, velClient_session_destroy(&shared));

    EXPECT_EQ(0, totals.failures.load());
    EXPECT_EQ(totals.sends.load(), totals.received.load());
    before.expectBalanced();
    EXPECT_EQ(allocMemory, veltest::stat(VELCLIENT_MSG_STATS_ALLOC_MEMORY));
    /* Every pooled record is on a free list: draining empties every count. */
    veltest::expectDrainedPools();
    std::printf("stress: %ld messages, %ld dups, %ld wire round trips, %ld sends (%ld received), %ld blocks handed "
                "over, %ld limit changes\n",
                totals.messages.load(), totals.dups.load(), totals.wireRoundTrips.load(), totals.sends.load(),
                totals.received.load(), totals.blocksHanded.load(), totals.limitChanges.load());
}
