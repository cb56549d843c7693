/* Handle safety over a million reuses of one table entry: a freed message,
 * container or session handle is refused every time, and never reaches the
 * record that was recycled for the next object. */
#include <cstdint>

#include "support/velTestSupport.h"

namespace {

constexpr int kCycles = 1000000;
constexpr std::uint64_t kEntryBits = 0x3ffffff; /* page and entry of a handle; the rest is its generation */

struct Kind {
    void *(*make)();
    void (*kill)(void *);
    velClient_returnCode_t (*probe)(void *);
};

char mem[64];

const Kind kKinds[] = {
    {[]() -> void * {
         velClient_opaqueMsg_pt m = nullptr;
         return velClient_msg_alloc(&m), m;
     },
     [](void *m) { velClient_msg_free(&m); },
     [](void *m) { return velClient_msg_setDeliveryMode(m, VELCLIENT_DELIVERY_MODE_PERSISTENT); }},
    {[]() -> void * {
         velClient_opaqueContainer_pt c = nullptr;
         return velClient_container_createMap(&c, mem, sizeof mem), c;
     },
     [](void *c) { velClient_container_closeMapStream(&c); }, [](void *c) { return velClient_container_rewind(c); }},
    {[]() -> void * {
         velClient_opaqueSession_pt s = nullptr;
         return velClient_session_create(nullptr, nullptr, nullptr, &s), s;
     },
     [](void *s) { velClient_session_destroy(&s); },
     [](void *s) {
         veltest::Msg m;
         return velClient_session_sendMsg(s, m.h);
     }},
};

} // namespace

TEST(HandleReuse, AFreedHandleNeverReachesTheNextObjectOfItsEntry)
{
    for (const Kind &k : kKinds) {
        void *stale = k.make();
        const std::uint64_t entry = reinterpret_cast<std::uint64_t>(stale) & kEntryBits;
        k.kill(stale);
        int i = 0;
        for (; i < kCycles; ++i) {
            void *live = k.make();
            /* the same entry each time: the table reuses what was just freed; every 1024th also probes the live one */
            if (live == stale || (reinterpret_cast<std::uint64_t>(live) & kEntryBits) != entry ||
                k.probe(stale) != VELCLIENT_FAIL || ((i & 1023) == 0 && k.probe(live) != VELCLIENT_OK))
                break;
            k.kill(live);
            stale = live;
        }
        EXPECT_EQ(kCycles, i) << "kind " << &k - kKinds << ": the entry moved, or a stale handle resolved";
    }
}
