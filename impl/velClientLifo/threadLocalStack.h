/*
 * threadLocalStack.h - a per-thread stack of free records in front of a
 * shared lock-free list. Only its owning thread touches it, so a push or pop
 * is a few plain instructions; it spills to and refills from nothing but the
 * shared list, which it reaches when full or when the thread ends.
 */
#pragma once

#include <cstdint>

#include "velClientLifo/lockFreeStack.h"

/* The model for the few small thread-locals that every call reaches. In the
 * shared library the default model calls __tls_get_addr on each access;
 * initial-exec reads them at a fixed offset from the thread pointer. They take
 * a few dozen bytes of the static TLS space that the loader also keeps for
 * libraries opened later, so the library can still be dlopen'ed. */
#define VEL_HOT_TLS [[gnu::tls_model("initial-exec")]]

namespace vel {

struct LocalStack {
    _velClient_lifoEntry *top = nullptr;
    std::uint32_t count = 0;

    /* Keeps entry unless the stack already holds cap entries. */
    bool push(_velClient_lifoEntry *entry, std::uint32_t cap) noexcept
    {
        if (count >= cap)
            return false;
        /* The link is stored atomically: a thread that read the shared list's
         * head just before this record left it may still read the link. */
        __atomic_store_n(&entry->next_p, top, __ATOMIC_RELAXED);
        top = entry;
        ++count;
        return true;
    }

    _velClient_lifoEntry *pop() noexcept
    {
        _velClient_lifoEntry *entry = top;
        if (entry != nullptr) {
            top = __atomic_load_n(&entry->next_p, __ATOMIC_RELAXED);
            --count;
        }
        return entry;
    }

    /* Moves every entry to the shared list. */
    void spillAll(_velClient_lifoHead &shared) noexcept
    {
        while (_velClient_lifoEntry *entry = pop())
            _velClient_lifoPush(&shared, entry);
    }

    /* Spills, then keeps nothing from now on: for a thread that is ending,
     * whose later calls (from other thread-exit destructors) must not leave
     * records in a cache nobody will empty. */
    void close(_velClient_lifoHead &shared) noexcept
    {
        spillAll(shared);
        count = UINT32_MAX; /* push() refuses; pop() finds nothing */
    }
};

} // namespace vel
