/*
 * lockFreeStack.h - the lock-free last-in-first-out stack that pools records.
 * The head is a pointer and a sequence counter updated together by one 16-byte
 * compare-and-swap; the counter changes on every push and pop, which defeats
 * the ABA problem. Every pooled record begins with a _velClient_lifoEntry.
 *
 * A pop reads the link of the top record before its compare-and-swap; by then
 * another thread may have popped that record. So a record that was ever on a
 * list is given back to the system only after _velClient_lifoQuiesce(): every
 * pop that was under way when the record left the list has ended.
 */
#pragma once

#include <atomic>
#include <cstdint>
#include <thread>

__extension__ typedef unsigned __int128 _velClient_u128_t;

struct _velClient_lifoEntry {
    _velClient_lifoEntry *next_p;
};

union alignas(16) _velClient_lifoHead {
    std::uint64_t alignment;
    struct {
        std::uint64_t head;     /* address of the top entry, 0 when empty */
        std::uint64_t sequence; /* bumped by every successful push and pop */
    } s;
    _velClient_u128_t whole;
};

/* Pops under way in any thread, on any list. */
inline std::atomic<std::uint32_t> _velClient_lifoPoppers{0};

namespace vel::lifo_detail {

inline _velClient_u128_t load(const _velClient_lifoHead *head_p) noexcept
{
    /* Two relaxed 8-byte loads; the 16-byte compare-and-swap validates them. */
    std::uint64_t seq = __atomic_load_n(&head_p->s.sequence, __ATOMIC_ACQUIRE);
    std::uint64_t top = __atomic_load_n(&head_p->s.head, __ATOMIC_ACQUIRE);
    return (static_cast<_velClient_u128_t>(seq) << 64) | top;
}

inline _velClient_u128_t make(std::uint64_t top, std::uint64_t seq) noexcept
{
    return (static_cast<_velClient_u128_t>(seq) << 64) | top;
}

inline bool cas(_velClient_lifoHead *head_p, _velClient_u128_t expected, _velClient_u128_t desired) noexcept
{
    return __sync_bool_compare_and_swap(&head_p->whole, expected, desired);
}

} // namespace vel::lifo_detail

/* An empty list. Not safe against concurrent use of the same head. */
inline void _velClient_lifoInit(_velClient_lifoHead *head_p) noexcept
{
    head_p->s.head = 0;
    head_p->s.sequence = 0;
}

/* Pushes one record; never fails. Safe from any number of threads. */
inline void _velClient_lifoPush(_velClient_lifoHead *head_p, _velClient_lifoEntry *entry_p) noexcept
{
    using namespace vel::lifo_detail;
    for (;;) {
        _velClient_u128_t old = load(head_p);
        auto top = static_cast<std::uint64_t>(old);
        auto seq = static_cast<std::uint64_t>(old >> 64);
        __atomic_store_n(&entry_p->next_p, reinterpret_cast<_velClient_lifoEntry *>(top), __ATOMIC_RELAXED);
        if (cas(head_p, old, make(reinterpret_cast<std::uint64_t>(entry_p), seq + 1)))
            return;
    }
}

/* Pops the most recently pushed record, or nullptr when empty. Safe from any
 * number of threads. */
inline _velClient_lifoEntry *_velClient_lifoPop(_velClient_lifoHead *head_p) noexcept
{
    using namespace vel::lifo_detail;
    _velClient_lifoPoppers.fetch_add(1, std::memory_order_seq_cst);
    _velClient_lifoEntry *entry_p = nullptr;
    for (;;) {
        _velClient_u128_t old = load(head_p);
        auto top = static_cast<std::uint64_t>(old);
        if (top == 0)
            break;
        auto seq = static_cast<std::uint64_t>(old >> 64);
        auto *candidate = reinterpret_cast<_velClient_lifoEntry *>(top);
        auto *next_p = __atomic_load_n(&candidate->next_p, __ATOMIC_RELAXED);
        if (cas(head_p, old, make(reinterpret_cast<std::uint64_t>(next_p), seq + 1))) {
            entry_p = candidate;
            break;
        }
    }
    _velClient_lifoPoppers.fetch_sub(1, std::memory_order_release);
    return entry_p;
}

/* Waits until no pop that may still read a record taken off a list is under
 * way. Called before a pooled record's memory goes back to the system. */
inline void _velClient_lifoQuiesce() noexcept
{
    while (_velClient_lifoPoppers.load(std::memory_order_seq_cst) != 0)
        std::this_thread::yield();
}
