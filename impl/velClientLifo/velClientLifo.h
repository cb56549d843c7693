/*
 * velClientLifo.h - the lock-free last-in-first-out stack that pools records.
 * The head is a pointer and a sequence counter updated together by one 16-byte
 * compare-and-swap; the counter changes on every push and pop, which defeats
 * the ABA problem. Every pooled record begins with a _velClient_lifoEntry.
 */
#pragma once

#include <cstdint>

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
    for (;;) {
        _velClient_u128_t old = load(head_p);
        auto top = static_cast<std::uint64_t>(old);
        if (top == 0)
            return nullptr;
        auto seq = static_cast<std::uint64_t>(old >> 64);
        auto *entry_p = reinterpret_cast<_velClient_lifoEntry *>(top);
        auto *next_p = __atomic_load_n(&entry_p->next_p, __ATOMIC_RELAXED);
        if (cas(head_p, old, make(reinterpret_cast<std::uint64_t>(next_p), seq + 1)))
            return entry_p;
    }
}
