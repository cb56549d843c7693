/*
 * poolAccounting.h - the few steps every pooled record shares: counting bytes
 * obtained from the system, taking a record off a free list, and handing a
 * released record back to its list or to the system depending on the memory
 * limit. Messages, containers and data blocks all go through these.
 */
#pragma once

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "velClientAlloc/systemMemory.h"
#include "velClientMsg/memory/poolThreadState.h"
#include "velClientMsg/velClientMsgPrivate.h"

namespace vel::pool {

/* Bytes of a data block obtained from the system besides its capacity. */
inline constexpr std::uint32_t kDatabHeaderSize = sizeof(_velClient_datab);

inline _velClient_msgPoolStats &stats() noexcept
{
    return _velClient_msgPool_s.msgPoolStats;
}

/* A counter several threads change: one atomic read-modify-write. */
template <typename T>
inline void add(std::atomic<T> &counter, T amount = 1) noexcept
{
    counter.fetch_add(amount, std::memory_order_relaxed);
}

template <typename T>
inline void sub(std::atomic<T> &counter, T amount = 1) noexcept
{
    counter.fetch_sub(amount, std::memory_order_relaxed);
}

/* Zeroes N bytes in 32-byte pieces, unrolled. A record is a few hundred
 * bytes: a string instruction's start-up would cost more than the stores, so
 * the pieces are kept apart (the empty asm, a compiler barrier, stops them
 * merging into one memset; it takes no operand, so that no address is
 * computed into a register for it). */
inline void zero32(unsigned char *p) noexcept
{
    std::memset(p, 0, 32);
    __asm__ volatile("" : : : "memory");
}

template <std::size_t N>
inline void zeroBytes(unsigned char *p) noexcept
{
    [p]<std::size_t... I>(std::index_sequence<I...>) { (zero32(p + I * 32), ...); }(std::make_index_sequence<N / 32>{});
    std::memset(p + N / 32 * 32, 0, N % 32);
}

/* Zeroes a record taken from a free list, up to its first Used bytes (what
 * lies beyond is not read before it is written). Its list link is cleared
 * with an atomic store: a thread that read the list head just before this
 * record was taken may still read the link (its compare-and-swap then fails). */
template <typename T, std::size_t Used = sizeof(T)>
inline void clearRecord(T *rec) noexcept
{
    static_assert(offsetof(T, entry) == 0, "the list link comes first");
    constexpr std::size_t link = sizeof(rec->entry);
    zeroBytes<Used - link>(reinterpret_cast<unsigned char *>(rec) + link);
    __atomic_store_n(&rec->entry.next_p, nullptr, __ATOMIC_RELAXED);
}

/* Copies src over dst except dst's list link (cleared as above). */
template <typename T>
inline void copyRecord(T *dst, const T *src) noexcept
{
    constexpr std::size_t link = sizeof(dst->entry);
    std::memcpy(reinterpret_cast<unsigned char *>(dst) + link, reinterpret_cast<const unsigned char *>(src) + link,
                sizeof(T) - link);
    __atomic_store_n(&dst->entry.next_p, nullptr, __ATOMIC_RELAXED);
}

/* The limit test: a plain, approximate read under concurrency. */
inline bool underLimit() noexcept
{
    return stats().totMemory.load(std::memory_order_relaxed) <
           _velClient_msgPool_s.maxPoolMemSize.load(std::memory_order_relaxed);
}

/* A pooled record from the shared list, counted out by countOut(), or nullptr. */
template <typename T, typename CountOut>
inline T *popShared(_velClient_lifoHead &list, CountOut countOut) noexcept
{
    _velClient_lifoEntry *entry = _velClient_lifoPop(&list);
    if (entry == nullptr)
        return nullptr;
    countOut();
    return reinterpret_cast<T *>(entry);
}

/* A pooled record from the shared list (its shared free count lowered), or
 * nullptr. For draining; allocation goes through take(). */
template <typename T>
inline T *takeShared(_velClient_lifoHead &list, std::atomic<std::uint32_t> &numFree) noexcept
{
    return popShared<T>(list, [&] { sub(numFree); });
}

/* The rest of take() once the thread's cache is empty, out of line. */
template <typename T>
[[gnu::noinline]] T *takeFromShared(_velClient_lifoHead &list, std::atomic<std::uint32_t> &myNumFree) noexcept
{
    return popShared<T>(list, [&] { drop(myNumFree); });
}

/* A pooled record from the thread's cache, else from the shared list, or
 * nullptr; the thread's free count is lowered. */
template <typename T>
inline T *take(LocalStack &cache, _velClient_lifoHead &list, std::atomic<std::uint32_t> &myNumFree) noexcept
{
    _velClient_lifoEntry *entry = cache.pop();
    if (__builtin_expect(entry == nullptr, 0))
        return takeFromShared<T>(list, myNumFree);
    drop(myNumFree);
    return reinterpret_cast<T *>(entry);
}

/* bytes from the system, counted in totMemory; nullptr when there are none.
 * Records start on a cache line of their own and fill whole lines, so two
 * threads working on records obtained one after the other never write to
 * the same line. */
inline constexpr std::size_t kLine = 64;

/* What obtain() asks the system for: bytes rounded up to whole lines. */
inline constexpr std::size_t wholeLines(std::size_t bytes) noexcept
{
    return (bytes + kLine - 1) / kLine * kLine;
}

template <typename T>
inline T *obtain(std::size_t bytes) noexcept
{
    void *mem = vel::sysAlignedAlloc(kLine, wholeLines(bytes));
    if (mem != nullptr)
        add(stats().totMemory, static_cast<std::uint64_t>(bytes));
    return static_cast<T *>(mem);
}

/* Returns bytes obtained for record to the system, once no pop can still
 * read its list link. A large block released in use (keepLarge) may be kept
 * by the system-memory layer for the thread's next large request; one
 * drained to lower the pool's memory is freed. Out of line: it is the rare
 * end of the release paths that are inline. */
[[gnu::noinline]] inline void giveToSystem(void *record, std::size_t bytes, bool keepLarge = false) noexcept
{
    _velClient_lifoQuiesce();
    sub(stats().totMemory, static_cast<std::uint64_t>(bytes));
    if (keepLarge)
        vel::sysFreeSized(record, wholeLines(bytes));
    else
        vel::sysFree(record);
}

/* release() once the thread's cache is full or the limit is reached: pools
 * record on the shared list, or gives it back to the system. */
[[gnu::noinline]] inline void releaseShared(_velClient_lifoHead &list, _velClient_lifoEntry *record,
                                            std::atomic<std::uint32_t> &myNumFree, std::size_t bytes,
                                            bool pool) noexcept
{
    if (pool) {
        bump(myNumFree);
        _velClient_lifoPush(&list, record);
        return;
    }
    giveToSystem(record, bytes);
}

/* Pools record (in the thread's cache while it has room, else on the shared
 * list) while under the limit, otherwise gives it back to the system.
 * underLimitKnown: the caller found the pool under its limit since its last
 * release to the system (pooling changes no memory count), no test needed. */
inline void release(LocalStack &cache, std::uint32_t cap, _velClient_lifoHead &list, _velClient_lifoEntry *record,
                    std::atomic<std::uint32_t> &myNumFree, std::size_t bytes, bool underLimitKnown = false) noexcept
{
    const bool pool = underLimitKnown || underLimit();
    if (__builtin_expect(pool && cache.push(record, cap), 1)) {
        bump(myNumFree);
        return;
    }
    releaseShared(list, record, myNumFree, bytes, pool);
}

} // namespace vel::pool
