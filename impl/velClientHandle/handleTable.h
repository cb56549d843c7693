/*
 * handleTable.h - the handle table that turns opaque handles into records.
 *
 * A handle value h names page (h & 0x3fff000) >> 12 and entry h & 0xfff of the
 * table; the bits from bit 26 up carry a generation counter that changes each
 * time an entry is reused, so a stale handle no longer matches its entry. The
 * table never issues 0 and never releases a page while the library is loaded.
 * Resolution, and taking a handle for a call that frees its record, are
 * inline and lock-free; issuing and the other invalidations live in
 * handleTable.cpp.
 */
#pragma once

#include <atomic>
#include <cstdint>

#include "velClientLifo/lockFreeStack.h"
#include "velClientLifo/threadLocalStack.h"
#include "velClientLog/logPrivate.h"

enum _velClient_ptrType_t : std::uint32_t {
    _UNUSED_PTR_TYPE = 0,
    _CONTEXT_PTR_TYPE = 1,
    _SESSION_PTR_TYPE = 2,
    _FLOW_PTR_TYPE = 3,
    _TIMER_PTR_TYPE = 4,
    _MSG_PTR_TYPE = 5,
    _DATAB_PTR_TYPE = 6,
    _CONTAINER_PTR_TYPE = 7,
    _CACHE_PTR_TYPE = 8,
    _TRANSACTION_PTR_TYPE = 9
};

union _velClient_ptrInfo {
    void *opaquePtr;
    std::uint64_t ptrInfo;
};

struct alignas(64) _velClient_pointerInfo { /* a line each: threads reuse their own entries */
    _velClient_lifoEntry entry; /* the table's own free list of entries */
    _velClient_ptrInfo u;       /* the handle issued; with kSafePtrFreeBit when free */
    _velClient_ptrType_t ptrType;
    void *actualPtr;
};

inline constexpr std::uint32_t kSafePtrNumPages = 16384;
inline constexpr std::uint32_t kSafePtrPageEntries = 4096;
inline constexpr std::uint64_t kSafePtrPageMask = 0x3fff000;
inline constexpr std::uint64_t kSafePtrEntryMask = 0xfff;
inline constexpr unsigned kSafePtrGenShift = 26;
/* Set in a free entry's u: the last handle issued for it, so that no issued value matches. */
inline constexpr std::uint64_t kSafePtrFreeBit = std::uint64_t{1} << 63;

struct _velClient_globalInfo {
    /* Pages are allocated on demand and kept for the life of the process. A
     * forged handle may name a page that was never allocated; resolution
     * refuses it instead of dereferencing NULL. */
    std::atomic<_velClient_pointerInfo *> safePtrs[kSafePtrNumPages];
};

extern "C" {
extern _velClient_globalInfo _velClient_globalInfo_g;

/* A new handle bound to object with type, or NULL when the table is full or a
 * page cannot be allocated. Thread-safe, lock-free except for page creation. */
void *_velClient_safePtr_alloc(void *object, _velClient_ptrType_t type);

/* Invalidates handle: later resolution of the same value fails. Of two
 * threads freeing the same handle at once, one frees it (a locked
 * compare-and-swap decides which). */
void _velClient_safePtr_free(void *handle);

/* For a call that frees the record behind handle: the record when handle is
 * live and of type, the handle then invalidated; else nullptr, and nothing
 * changes. Plain stores, no locked instruction: two threads freeing the same
 * handle at once would free its record twice as well, so this gives that
 * race no protection the record does not have either. */
void *_velClient_safePtr_take(void *handle, _velClient_ptrType_t type);

/* Invalidates handle, the live handle of a record the caller is freeing, with
 * plain stores as _velClient_safePtr_take does: freeing the same record from
 * two threads at once is a double free whatever the handle does. A handle
 * that is not live changes nothing. */
void _velClient_safePtr_release(void *handle);
}

namespace vel {

/* The entry that handle value h names, or nullptr when its page was never
 * allocated. One page load; the entry's state is the caller's to check. h = 0
 * needs no test of its own: entry 0 of page 0 never holds 0 (a free entry
 * holds bit 63, a live one a generation), so it matches no live check. */
inline _velClient_pointerInfo *entryOf(std::uint64_t h) noexcept
{
    _velClient_pointerInfo *page =
        _velClient_globalInfo_g.safePtrs[(h & kSafePtrPageMask) >> 12].load(std::memory_order_acquire);
    if (__builtin_expect(page == nullptr, 0))
        return nullptr;
    return &page[h & kSafePtrEntryMask];
}

/* The entry of handle when it is live and of type, else nullptr. */
inline _velClient_pointerInfo *liveEntry(const void *handle, _velClient_ptrType_t type) noexcept
{
    auto h = reinterpret_cast<std::uint64_t>(handle);
    _velClient_pointerInfo *entry = entryOf(h);
    if (entry == nullptr || __atomic_load_n(&entry->u.ptrInfo, __ATOMIC_ACQUIRE) != h ||
        __atomic_load_n(&entry->ptrType, __ATOMIC_RELAXED) != type)
        return nullptr;
    return entry;
}

/* The record behind handle when it is live and of type, else nullptr. */
inline void *resolveHandle(const void *handle, _velClient_ptrType_t type) noexcept
{
    _velClient_pointerInfo *entry = liveEntry(handle, type);
    return entry == nullptr ? nullptr : __atomic_load_n(&entry->actualPtr, __ATOMIC_RELAXED);
}

template <typename T>
inline T *resolve(const void *handle, _velClient_ptrType_t type) noexcept
{
    return static_cast<T *>(resolveHandle(handle, type));
}

namespace handles {

inline constexpr std::uint32_t kEntryCacheCap = 64;

/* The calling thread's cache of free entries. It starts with its count at the
 * cap and no entries, so that the thread's first push goes to recycleSlow(),
 * which registers the thread-exit step that returns the cache. */
extern thread_local constinit LocalStack myEntries VEL_HOT_TLS;

/* A free entry from the shared stack, adding pages as needed; nullptr when
 * the table is full or memory runs out. Off the hot path. */
[[gnu::noinline]] _velClient_lifoEntry *popSharedEntry() noexcept;

/* _velClient_safePtr_alloc, inline: the entry comes from the thread's cache
 * when it has one, and its next generation (never 0) makes the handle. */
inline void *issue(void *object, _velClient_ptrType_t type) noexcept
{
    constexpr std::uint64_t kLocationMask = kSafePtrPageMask | kSafePtrEntryMask;
    constexpr std::uint64_t kGenOne = std::uint64_t{1} << kSafePtrGenShift;
    constexpr std::uint64_t kGenMask = ~(kSafePtrFreeBit | kLocationMask);
    _velClient_lifoEntry *popped = myEntries.pop();
    if (__builtin_expect(popped == nullptr, 0) && (popped = popSharedEntry()) == nullptr)
        return nullptr;
    auto *entry = reinterpret_cast<_velClient_pointerInfo *>(popped);
    std::uint64_t old = entry->u.ptrInfo;
    std::uint64_t gen = ((old & kGenMask) + kGenOne) & kGenMask;
    if (gen == 0)
        gen = kGenOne;
    std::uint64_t handle = gen | (old & kLocationMask);
    __atomic_store_n(&entry->actualPtr, object, __ATOMIC_RELAXED);
    __atomic_store_n(&entry->ptrType, type, __ATOMIC_RELAXED);
    __atomic_store_n(&entry->u.ptrInfo, handle, __ATOMIC_RELEASE);
    return reinterpret_cast<void *>(handle);
}

/* recycle() once the thread's cache refuses the entry: registers the
 * thread-exit step on the thread's first push, else pushes on the shared list. */
[[gnu::noinline]] void recycleSlow(_velClient_lifoEntry *entry) noexcept;

inline void recycle(_velClient_lifoEntry *entry) noexcept
{
    if (__builtin_expect(!myEntries.push(entry, kEntryCacheCap), 0))
        recycleSlow(entry);
}

/* Withdraws the live handle h of entry with plain stores and frees the entry. */
inline void retire(_velClient_pointerInfo *entry, std::uint64_t h) noexcept
{
    __atomic_store_n(&entry->u.ptrInfo, h | kSafePtrFreeBit, __ATOMIC_RELEASE);
    __atomic_store_n(&entry->ptrType, _UNUSED_PTR_TYPE, __ATOMIC_RELAXED);
    recycle(&entry->entry);
}

/* _velClient_safePtr_release, inline. */
inline void release(const void *handle) noexcept
{
    const auto h = reinterpret_cast<std::uint64_t>(handle);
    _velClient_pointerInfo *entry = entryOf(h);
    if (entry != nullptr && __atomic_load_n(&entry->u.ptrInfo, __ATOMIC_ACQUIRE) == h)
        retire(entry, h);
}

/* _velClient_safePtr_take, inline. */
inline void *take(const void *handle, _velClient_ptrType_t type) noexcept
{
    _velClient_pointerInfo *entry = liveEntry(handle, type);
    if (entry == nullptr)
        return nullptr;
    void *object = __atomic_load_n(&entry->actualPtr, __ATOMIC_RELAXED);
    if (object == nullptr)
        return nullptr;
    retire(entry, reinterpret_cast<std::uint64_t>(handle));
    return object;
}

} // namespace handles

/* The record behind *handle_p for a call that frees it: the handle is
 * withdrawn and *handle_p set to nullptr. nullptr after recording a null
 * handle_p or a handle that does not resolve (resolveOrFail records it). */
template <typename Record, typename Handle>
Record *takeHandle(Handle *handle_p, _velClient_ptrType_t type, Record *(*resolveOrFail)(Handle, HandleFormat),
                   Format<> nullText, HandleFormat badHandle)
{
    if (handle_p == nullptr) {
        VEL_STORE_F(VELCLIENT_SUBCODE_PARAM_NULL_PTR, VELCLIENT_LOG_WARNING, nullText);
        return nullptr;
    }
    for (;;) {
        if (void *record = handles::take(*handle_p, type)) {
            *handle_p = nullptr;
            return static_cast<Record *>(record);
        }
        if (resolveOrFail(*handle_p, badHandle) == nullptr)
            return nullptr;
    }
}

} // namespace vel
