/*
 * poolThreadState.cpp - the registry of thread states, the sums the
 * statistics read, and giving a thread's caches and counters back to the
 * shared pool when it ends.
 */
#include "velClientMsg/memory/poolThreadState.h"

#include <mutex>
#include <new>

#include "velClientAlloc/systemMemory.h"

namespace vel::pool {

thread_local constinit ThreadState *tlsStatePtr VEL_HOT_TLS = nullptr;

namespace {
thread_local constinit ThreadState tlsState{};
thread_local constinit bool tlsExited = false;
} // namespace

namespace {

std::mutex registryMutex_s;
ThreadState *registry_s = nullptr; /* guarded by registryMutex_s */

_velClient_msgPoolStats &shared() noexcept
{
    return _velClient_msgPool_s.msgPoolStats;
}

/* Applies op to each of a thread's record caches with the shared list it feeds. */
template <typename Op>
void eachCache(ThreadState &state, Op op) noexcept
{
    _velClient_msgPool &pool = _velClient_msgPool_s;
    op(state.msgs, pool.freeMsgList);
    op(state.containers, pool.freeContainerList);
    for (std::uint32_t q = 0; q < _VELCLIENT_NUM_QUANTA; ++q)
        op(state.blocks[q], pool.freeDbList[q]);
}

void spill(ThreadState &state) noexcept
{
    eachCache(state, [](LocalStack &cache, _velClient_lifoHead &list) { cache.spillAll(list); });
}

void closeCaches(ThreadState &state) noexcept
{
    eachCache(state, [](LocalStack &cache, _velClient_lifoHead &list) { cache.close(list); });
}

/* Adds a thread's share into the shared record (other threads may be doing the same). */
template <typename T>
void fold(std::atomic<T> &into, std::atomic<T> &from) noexcept
{
    into.fetch_add(from.exchange(0, std::memory_order_relaxed), std::memory_order_relaxed);
}

void foldAll(_velClient_msgPoolStats &into, _velClient_msgPoolStats &from) noexcept
{
    fold(into.allocMemory, from.allocMemory);
    for (auto m : {&_velClient_msgPoolStats::msgAllocs, &_velClient_msgPoolStats::msgFrees,
                   &_velClient_msgPoolStats::msgDups, &_velClient_msgPoolStats::msgReallocs,
                   &_velClient_msgPoolStats::numFreeMsg, &_velClient_msgPoolStats::numAllocMsg,
                   &_velClient_msgPoolStats::numFreeContainer, &_velClient_msgPoolStats::numAllocContainer})
        fold(into.*m, from.*m);
    for (std::uint32_t q = 0; q < _VELCLIENT_NUM_QUANTA; ++q)
        fold(into.numFreeDataB[q], from.numFreeDataB[q]);
    for (std::uint32_t q = 0; q <= _VELCLIENT_NUM_QUANTA; ++q)
        fold(into.numAllocDataB[q], from.numAllocDataB[q]);
}

/* Runs when the thread ends: its records and counts go back to the shared
 * pool, and its state leaves the registry before its memory goes. */
struct Detacher {
    ~Detacher()
    {
        if (tlsStatePtr != &tlsState)
            return;
        std::lock_guard<std::mutex> lock(registryMutex_s);
        closeCaches(tlsState);
        foldAll(shared(), tlsState.counters);
        for (ThreadState **p = &registry_s; *p != nullptr; p = &(*p)->next) {
            if (*p == &tlsState) {
                *p = tlsState.next;
                break;
            }
        }
        tlsStatePtr = nullptr;
        tlsExited = true;
    }
};

thread_local Detacher detacher_s;

/* The sum, in the counter's own width, over the shared record and every share. */
template <typename T, typename Get>
std::uint64_t sum(Get get) noexcept
{
    std::lock_guard<std::mutex> lock(registryMutex_s);
    T total = get(shared()).load(std::memory_order_relaxed);
    for (ThreadState *s = registry_s; s != nullptr; s = s->next)
        total = static_cast<T>(total + get(s->counters).load(std::memory_order_relaxed));
    return total;
}

} // namespace

ThreadState *attachThread() noexcept
{
    ThreadState *state = &tlsState;
    if (!tlsExited) {
        (void)&detacher_s; /* registers the thread-exit hook */
    } else if (void *mem = vel::sysMalloc(sizeof(ThreadState)); mem != nullptr) {
        state = new (mem) ThreadState{};
        closeCaches(*state);
    } else {
        return &tlsState; /* caches closed; what this call counts is lost */
    }
    std::lock_guard<std::mutex> lock(registryMutex_s);
    state->next = registry_s;
    registry_s = state;
    tlsStatePtr = state;
    return state;
}

std::uint64_t sumCounter(std::atomic<std::uint32_t> _velClient_msgPoolStats::*field) noexcept
{
    return sum<std::uint32_t>([field](_velClient_msgPoolStats &st) -> auto & { return st.*field; });
}

std::uint64_t sumCounter(std::atomic<std::uint64_t> _velClient_msgPoolStats::*field) noexcept
{
    return sum<std::uint64_t>([field](_velClient_msgPoolStats &st) -> auto & { return st.*field; });
}

std::uint64_t sumCounter(std::atomic<std::uint32_t> (_velClient_msgPoolStats::*field)[_VELCLIENT_NUM_QUANTA],
                         std::uint32_t index) noexcept
{
    return sum<std::uint32_t>([=](_velClient_msgPoolStats &st) -> auto & { return (st.*field)[index]; });
}

std::uint64_t sumCounter(std::atomic<std::uint32_t> (_velClient_msgPoolStats::*field)[_VELCLIENT_NUM_QUANTA + 1],
                         std::uint32_t index) noexcept
{
    return sum<std::uint32_t>([=](_velClient_msgPoolStats &st) -> auto & { return (st.*field)[index]; });
}

void clearCounters(void (*fn)(_velClient_msgPoolStats &)) noexcept
{
    std::lock_guard<std::mutex> lock(registryMutex_s);
    fn(shared());
    for (ThreadState *s = registry_s; s != nullptr; s = s->next)
        fn(s->counters);
}

void spillAllCaches() noexcept
{
    std::lock_guard<std::mutex> lock(registryMutex_s);
    for (ThreadState *s = registry_s; s != nullptr; s = s->next)
        spill(*s);
}

void spillMyCaches() noexcept
{
    spill(local());
}

namespace {
constexpr std::uint32_t capFor(std::uint32_t size) noexcept
{
    constexpr std::uint32_t kBytesPerClass = 256 * 1024;
    std::uint32_t cap = size == 0 ? kRecordCacheCap : kBytesPerClass / size;
    return cap < kRecordCacheCap ? cap : kRecordCacheCap;
}
} // namespace

std::uint32_t blockCacheCap[_VELCLIENT_NUM_QUANTA] = {capFor(VEL_DEFAULT_QUANTA[0]), capFor(VEL_DEFAULT_QUANTA[1]),
                                                      capFor(VEL_DEFAULT_QUANTA[2]), capFor(VEL_DEFAULT_QUANTA[3]),
                                                      capFor(VEL_DEFAULT_QUANTA[4])};

void setBlockCacheCaps(const std::uint32_t quanta[_VELCLIENT_NUM_QUANTA]) noexcept
{
    for (std::uint32_t q = 0; q < _VELCLIENT_NUM_QUANTA; ++q)
        blockCacheCap[q] = capFor(quanta[q]);
}

} // namespace vel::pool
