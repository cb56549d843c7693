/*
 * systemMemory.cpp - system allocations with the failure hook. The hook
 * costs one atomic count per allocation, and allocations happen only when a
 * pool has nothing to reuse.
 */
#include "velClientAlloc/systemMemory.h"

#include <atomic>

namespace {

std::atomic<std::uint64_t> calls_s{0};
std::atomic<std::uint64_t> failAt_s{0};

bool shouldFail() noexcept
{
    std::uint64_t n = calls_s.fetch_add(1, std::memory_order_relaxed) + 1;
    std::uint64_t at = failAt_s.load(std::memory_order_relaxed);
    return at != 0 && n == at;
}

} // namespace

namespace vel {

void *sysMalloc(std::size_t bytes) noexcept
{
    return shouldFail() ? nullptr : std::malloc(bytes);
}

void *sysAlignedAlloc(std::size_t align, std::size_t bytes) noexcept
{
    if (shouldFail())
        return nullptr;
    if (bytes >= kKeptChunkMin)
        if (void *kept = takeKeptChunk(bytes); kept != nullptr)
            return kept;
    return std::aligned_alloc(align, bytes);
}

void sysFreeSized(void *p, std::size_t bytes) noexcept
{
    if (p != nullptr && !keepChunk(p, bytes))
        std::free(p);
}

} // namespace vel

extern "C" void _velClient_allocFail_arm(std::uint64_t nth)
{
    calls_s.store(0, std::memory_order_relaxed);
    failAt_s.store(nth, std::memory_order_relaxed);
}

extern "C" std::uint64_t _velClient_allocFail_calls(void)
{
    return calls_s.load(std::memory_order_relaxed);
}
