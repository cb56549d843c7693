/*
 * handleTable.cpp - issuing and invalidating handles. Free entries are
 * kept on a lock-free stack of their own, with a small per-thread cache in
 * front of it; pages of 4096 entries are added on demand (under a mutex, off
 * the hot path) and never released.
 *
 * A live entry's `u` holds the handle issued for it. A free entry keeps the
 * last handle with bit 63 set, so no issued value matches it, and the next
 * issue of the entry advances the generation in bits 26..62. The generation
 * never is 0, so no handle value is 0.
 */
#include "velClientHandle/handleTable.h"

#include <cstdlib>
#include <cstring>
#include <mutex>

#include "velClientAlloc/systemMemory.h"
#include "velClientLifo/threadLocalStack.h"

_velClient_globalInfo _velClient_globalInfo_g{};

namespace {

constexpr std::uint64_t kFreeBit = kSafePtrFreeBit;

_velClient_lifoHead freeEntries_s{};
std::mutex growMutex_s;
std::uint32_t pagesUsed_s = 0; /* guarded by growMutex_s */

/* Adds one page of entries to the free list; false when the table is full or
 * memory runs out. */
bool addPage()
{
    std::lock_guard<std::mutex> lock(growMutex_s);
    if (__atomic_load_n(&freeEntries_s.s.head, __ATOMIC_ACQUIRE) != 0)
        return true; /* another thread added a page meanwhile: retry the pop */
    if (pagesUsed_s >= kSafePtrNumPages)
        return false;
    constexpr std::size_t bytes = kSafePtrPageEntries * sizeof(_velClient_pointerInfo);
    auto *page = static_cast<_velClient_pointerInfo *>(vel::sysAlignedAlloc(alignof(_velClient_pointerInfo), bytes));
    if (page == nullptr)
        return false;
    std::memset(static_cast<void *>(page), 0, bytes);
    std::uint32_t pageIndex = pagesUsed_s++;
    for (std::uint32_t i = 0; i < kSafePtrPageEntries; ++i)
        page[i].u.ptrInfo = kFreeBit | (std::uint64_t{pageIndex} << 12) | i;
    _velClient_globalInfo_g.safePtrs[pageIndex].store(page, std::memory_order_release);
    for (std::uint32_t i = kSafePtrPageEntries; i-- > 0;)
        _velClient_lifoPush(&freeEntries_s, &page[i].entry);
    return true;
}

/* Gives the thread's cached entries back to the shared stack when it ends. */
struct EntryCacheReturn {
    ~EntryCacheReturn() { vel::handles::myEntries.close(freeEntries_s); }
};
thread_local EntryCacheReturn entryCacheReturn_s;
/* Whether this thread has registered the hook: reaching entryCacheReturn_s
 * itself takes a call to __tls_get_addr in the shared library. */
thread_local constinit bool entryHookSet_s VEL_HOT_TLS = false;

} // namespace

thread_local constinit vel::LocalStack vel::handles::myEntries VEL_HOT_TLS{nullptr, kEntryCacheCap};

void vel::handles::recycleSlow(_velClient_lifoEntry *entry) noexcept
{
    if (!entryHookSet_s) {
        (void)&entryCacheReturn_s; /* registers the thread-exit hook */
        entryHookSet_s = true;
        myEntries.count = 0; /* the cache takes entries from now on */
        if (myEntries.push(entry, kEntryCacheCap))
            return;
    }
    _velClient_lifoPush(&freeEntries_s, entry);
}

_velClient_lifoEntry *vel::handles::popSharedEntry() noexcept
{
    _velClient_lifoEntry *popped = nullptr;
    while ((popped = _velClient_lifoPop(&freeEntries_s)) == nullptr) {
        if (!addPage())
            return nullptr;
    }
    return popped;
}

extern "C" void *_velClient_safePtr_alloc(void *object, _velClient_ptrType_t type)
{
    return vel::handles::issue(object, type);
}

extern "C" void *_velClient_safePtr_take(void *handle, _velClient_ptrType_t type)
{
    return vel::handles::take(handle, type);
}

extern "C" void _velClient_safePtr_release(void *handle)
{
    vel::handles::release(handle);
}

extern "C" void _velClient_safePtr_free(void *handle)
{
    auto h = reinterpret_cast<std::uint64_t>(handle);
    _velClient_pointerInfo *entry = vel::entryOf(h);
    if (entry == nullptr)
        return;
    std::uint64_t expected = h;
    /* Only the holder of the live value may free it: a stale or repeated free
     * finds a different value and changes nothing. */
    if (!__atomic_compare_exchange_n(&entry->u.ptrInfo, &expected, h | kFreeBit, false, __ATOMIC_ACQ_REL,
                                     __ATOMIC_RELAXED))
        return;
    __atomic_store_n(&entry->ptrType, _UNUSED_PTR_TYPE, __ATOMIC_RELAXED);
    vel::handles::recycle(&entry->entry);
}
