/* Threads sharing everything at once: messages with growing maps and user
 * properties, duplicates, encode and decode, data blocks handed between
 * threads, loopback sends on a thread's own session and on a shared one,
 * while another thread keeps lowering and raising the pool limit; and a
 * message freed after the library's own thread-exit step. Iterations are
 * bounded; nothing is timed. Also built and run under ThreadSanitizer. */
#include <atomic>
#include <cstdlib>
#include <thread>
#include <vector>

#include "support/velTestSupport.h"

namespace {

constexpr int kThreads = 4;
constexpr int kRounds = 1500;

struct Totals {
    std::atomic<long> failures{0}, sends{0}, received{0};
};

velClient_rxMsgCallback_returnCode_t countReceived(velClient_opaqueSession_pt, velClient_opaqueMsg_pt msg, void *user)
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

/* A message whose attachment map grows past its first guess, with a user
 * property; a duplicate of it goes through the wire and is read back. */
bool buildAndRoundTrip(velClient_opaqueMsg_pt m, velClient_opaqueMsg_pt *d, int round)
{
    velClient_opaqueContainer_pt map = nullptr, props = nullptr;
    bool ok = velClient_msg_setTopicPtr(m, "stress/topic") == VELCLIENT_OK &&
              velClient_msg_createUserPropertyMap(m, &props, 8) == VELCLIENT_OK &&
              velClient_container_addInt32(props, round, "n") == VELCLIENT_OK &&
              velClient_msg_createBinaryAttachmentMap(m, &map, 16) == VELCLIENT_OK;
    for (int f = 0; ok && f < 24; ++f)
        ok = velClient_container_addInt64(map, round * 100 + f, f == 23 ? "last" : "f") == VELCLIENT_OK;
    velClient_container_closeMapStream(&props);
    velClient_container_closeMapStream(&map);
    velClient_bufInfo_t wire{};
    velClient_opaqueDatablock_pt block = nullptr;
    velClient_opaqueMsg_pt back = nullptr;
    velClient_int64_t v = -1;
    ok = ok && velClient_msg_dup(m, d) == VELCLIENT_OK && velClient_msg_encodeToVWF(*d, &wire, &block) == VELCLIENT_OK &&
         velClient_msg_decodeFromVwf(&wire, &back) == VELCLIENT_OK &&
         velClient_msg_getBinaryAttachmentMap(back, &map) == VELCLIENT_OK &&
         velClient_container_getInt64(map, &v, "last") == VELCLIENT_OK && v == round * 100 + 23;
    velClient_container_closeMapStream(&map);
    velClient_msg_free(&back);
    velClient_datablock_free(&block);
    return ok;
}

/* Slots through which data blocks pass from one thread to the next. */
struct Lane {
    std::atomic<velClient_opaqueDatablock_pt> slots[32] = {};
};

void worker(int id, Lane &out, Lane &in, velClient_opaqueSession_pt shared, Totals &totals)
{
    velClient_opaqueSession_pt own = nullptr;
    totals.failures += velClient_session_create(nullptr, countReceived, &totals, &own) != VELCLIENT_OK;
    for (int i = 0; i < kRounds; ++i) {
        velClient_opaqueMsg_pt m = nullptr, d = nullptr;
        velClient_opaqueDatablock_pt b = nullptr;
        totals.failures += !(velClient_msg_alloc(&m) == VELCLIENT_OK && buildAndRoundTrip(m, &d, i) &&
                             velClient_session_sendMsg((i & 1) ? shared : own, m) == VELCLIENT_OK);
        ++totals.sends;
        velClient_msg_free(&d);
        velClient_msg_free(&m);
        totals.failures += velClient_datablock_alloc(&b, static_cast<velClient_uint32_t>((i * 131 + id) % 20000)) != VELCLIENT_OK;
        for (velClient_opaqueDatablock_pt old : {out.slots[i % 32].exchange(b), in.slots[(i * 7) % 32].exchange(nullptr)})
            if (old != nullptr)
                velClient_datablock_free(&old);
    }
    velClient_session_destroy(&own);
}

/* Frees its message when the thread ends, after the library's own
 * thread-exit step (it was made first, so it is destroyed last). */
struct FreedAtThreadExit {
    velClient_opaqueMsg_pt msg = nullptr;
    ~FreedAtThreadExit()
    {
        if (velClient_msg_free(&msg) != VELCLIENT_OK)
            std::abort();
    }
};

} // namespace

TEST(Stress, SharedPoolsSessionsAndAMovingLimitLoseNothing)
{
    const veltest::LiveCounts before;
    Totals totals;
    velClient_opaqueSession_pt shared = nullptr;
    ASSERT_EQ(VELCLIENT_OK, velClient_session_create(nullptr, countReceived, &totals, &shared));
    std::vector<Lane> lanes(kThreads);
    std::atomic<bool> done{false};
    std::thread limiter([&] { /* lowering the limit drains the free lists while the workers pop them */
        for (velClient_uint64_t limit = 0; !done.load(); limit = limit == 0 ? veltest::kDefaultPoolLimit : 0) {
            velClient_msg_setMaxPoolMem(limit);
            std::this_thread::yield();
        }
    });
    std::vector<std::thread> workers;
    for (int t = 0; t < kThreads; ++t)
        workers.emplace_back(worker, t, std::ref(lanes[t]), std::ref(lanes[(t + 1) % kThreads]), shared, std::ref(totals));
    for (auto &w : workers)
        w.join();
    done = true;
    limiter.join();
    velClient_msg_setMaxPoolMem(veltest::kDefaultPoolLimit);
    for (auto &lane : lanes)
        for (auto &slot : lane.slots)
            if (velClient_opaqueDatablock_pt b = slot.exchange(nullptr))
                velClient_datablock_free(&b);
    ASSERT_EQ(VELCLIENT_OK, velClient_session_destroy(&shared));
    std::thread([] { /* a message freed after the library's own thread-exit step is not lost */
        thread_local FreedAtThreadExit holder; /* constructed before the library sees this thread */
        ASSERT_EQ(VELCLIENT_OK, velClient_msg_alloc(&holder.msg));
        ASSERT_EQ(VELCLIENT_OK, velClient_msg_setUserData(holder.msg, "kept past the library's exit step", 30));
    }).join();
    EXPECT_EQ(0, totals.failures.load());
    EXPECT_EQ(kThreads * kRounds, totals.sends.load());
    EXPECT_EQ(totals.sends.load(), totals.received.load());
    before.expectBalanced(); /* the late free was counted too */
    veltest::expectDrainedPools(); /* every pooled record is on a free list, the late one's on the shared lists */
}
