/*
 * poolThreadState.h - what each thread keeps of the pool: its own share of
 * the statistics counters and small caches of free records in front of the
 * shared free lists. The owning thread updates both without locked
 * instructions; readers of a statistic add up every thread's share under the
 * registry lock. A thread's caches and counters go back to the shared pool
 * when the thread ends.
 */
#pragma once

#include <atomic>
#include <cstdint>

#include "velClientLifo/threadLocalStack.h"
#include "velClientMsg/velClientMsgPrivate.h"

namespace vel::pool {

struct ThreadState {
    ThreadState *next = nullptr; /* registry link, guarded by the registry lock */
    _velClient_msgPoolStats counters{};
    LocalStack msgs;
    LocalStack containers;
    LocalStack blocks[_VELCLIENT_NUM_QUANTA];
};

/* The calling thread's state, nullptr until its first use. */
extern thread_local constinit ThreadState *tlsStatePtr VEL_HOT_TLS;

/* Registers a state for the calling thread: its own on first use; after the
 * thread's exit step has run (a call from another thread-exit destructor),
 * a small one of its own on the heap with no caches, kept in the registry. */
ThreadState *attachThread() noexcept;

inline ThreadState &local() noexcept
{
    ThreadState *state = tlsStatePtr;
    if (__builtin_expect(state == nullptr, 0))
        state = attachThread();
    return *state;
}

/* A counter in the calling thread's own share: only this thread writes it, so
 * a plain load and store do (readers see either value). */
template <typename T>
inline void bump(std::atomic<T> &counter, T amount = 1) noexcept
{
    counter.store(static_cast<T>(counter.load(std::memory_order_relaxed) + amount), std::memory_order_relaxed);
}

template <typename T>
inline void drop(std::atomic<T> &counter, T amount = 1) noexcept
{
    counter.store(static_cast<T>(counter.load(std::memory_order_relaxed) - amount), std::memory_order_relaxed);
}

/* The calling thread's share of the counters. */
inline _velClient_msgPoolStats &myCounters() noexcept
{
    return local().counters;
}

/* A counter summed over the shared record and every thread's share. */
std::uint64_t sumCounter(std::atomic<std::uint32_t> _velClient_msgPoolStats::*field) noexcept;
std::uint64_t sumCounter(std::atomic<std::uint64_t> _velClient_msgPoolStats::*field) noexcept;
std::uint64_t sumCounter(std::atomic<std::uint32_t> (_velClient_msgPoolStats::*field)[_VELCLIENT_NUM_QUANTA],
                         std::uint32_t index) noexcept;
std::uint64_t sumCounter(std::atomic<std::uint32_t> (_velClient_msgPoolStats::*field)[_VELCLIENT_NUM_QUANTA + 1],
                         std::uint32_t index) noexcept;

/* Zeroes, in the shared record and every share, the counters fn picks. */
void clearCounters(void (*fn)(_velClient_msgPoolStats &)) noexcept;

/* Moves every thread's cached records to the shared free lists. Only safe
 * while no other thread uses the pool (cleanup and restart). */
void spillAllCaches() noexcept;

/* Moves the calling thread's cached records to the shared free lists. */
void spillMyCaches() noexcept;

inline constexpr std::uint32_t kRecordCacheCap = 64;

/* How many free data blocks of each class a thread keeps for itself: 64, or
 * fewer so that a class holds at most 256 KB. Set with the classes. */
extern std::uint32_t blockCacheCap[_VELCLIENT_NUM_QUANTA];
void setBlockCacheCaps(const std::uint32_t quanta[_VELCLIENT_NUM_QUANTA]) noexcept;

} // namespace vel::pool
