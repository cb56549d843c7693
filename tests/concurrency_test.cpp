/* A thread's pool state at thread exit: a message freed by a later
 * thread-exit destructor is still counted and pooled. (Threads sharing the
 * pools under load: stress_test.cpp.) */
#include <cstdlib>
#include <thread>

#include "support/velTestSupport.h"

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
    veltest::expectDrainedPools();
    EXPECT_LT(veltest::stat(VELCLIENT_MSG_STATS_TOTAL_MEMORY), memory);
}
