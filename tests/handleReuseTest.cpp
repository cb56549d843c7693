/* Handle safety over a million reuses of one table entry: a freed message,
 * container or session handle is refused every time, and never reaches the
 * record that was recycled for the next object. */
#include <cstdint>

#include "support/velTestSupport.h"

namespace {

constexpr int kCycles = 1000000;
constexpr std::uint64_t kEntryBits = 0x3ffffff; /* page and entry of a handle; the rest is its generation */

std::uint64_t entryOf(void *handle)
{
    return reinterpret_cast<std::uint64_t>(handle) & kEntryBits;
}

/* Allocates with make, frees with kill, kCycles times; after each free the
 * stale handle must fail probe while the next object behind the same entry
 * answers it. Returns how many cycles reused the first entry. */
template <typename Make, typename Kill, typename Probe>
int cycleOneEntry(Make make, Kill kill, Probe probe)
{
    void *stale = make();
    const std::uint64_t entry = entryOf(stale);
    kill(stale);
    int sameEntry = 0;
    for (int i = 0; i < kCycles; ++i) {
        void *live = make();
        if (live == nullptr || live == stale) {
            ADD_FAILURE() << "cycle " << i << ": handle " << live << " after " << stale;
            return sameEntry;
        }
        sameEntry += entryOf(live) == entry;
        /* Both checks every cycle would double the run; every 1024th checks the live one too. */
        if (probe(stale) != VELCLIENT_FAIL || ((i & 1023) == 0 && probe(live) != VELCLIENT_OK)) {
            ADD_FAILURE() << "cycle " << i << ": the stale handle resolved, or the live one did not";
            return sameEntry;
        }
        kill(live);
        stale = live;
    }
    return sameEntry;
}

} // namespace

TEST(HandleReuse, AFreedHandleNeverReachesTheNextObjectOfItsEntry)
{
    static char mem[64];
    /* the same entry each time: the table reuses what was just freed */
    EXPECT_EQ(kCycles, cycleOneEntry(
                           [] {
                               velClient_opaqueMsg_pt m = nullptr;
                               velClient_msg_alloc(&m);
                               return m;
                           },
                           [](void *m) { velClient_msg_free(&m); },
                           [](void *m) { return velClient_msg_setDeliveryMode(m, VELCLIENT_DELIVERY_MODE_PERSISTENT); }));
    EXPECT_EQ(kCycles, cycleOneEntry(
                           [] {
                               velClient_opaqueContainer_pt c = nullptr;
                               velClient_container_createMap(&c, mem, sizeof mem);
                               return c;
                           },
                           [](void *c) { velClient_container_closeMapStream(&c); },
                           [](void *c) { return velClient_container_rewind(c); }));
    EXPECT_EQ(kCycles, cycleOneEntry(
                           [] {
                               velClient_opaqueSession_pt s = nullptr;
                               velClient_session_create(nullptr, nullptr, nullptr, &s);
                               return s;
                           },
                           [](void *s) { velClient_session_destroy(&s); },
                           [](void *s) {
                               velClient_opaqueMsg_pt m = nullptr;
                               velClient_msg_alloc(&m);
                               velClient_returnCode_t rc = velClient_session_sendMsg(s, m);
                               velClient_msg_free(&m);
                               return rc;
                           }));
}
