/*
 * systemMemory.h - the one door through which the library takes memory
 * from the system, and its failure hook: tests can make the Nth allocation
 * from now fail, to drive every out-of-memory path.
 */
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>

namespace vel {

/* malloc, or nullptr when it fails or the failure hook says so. */
void *sysMalloc(std::size_t bytes) noexcept;

/* aligned_alloc (bytes a multiple of align), or nullptr as above. */
void *sysAlignedAlloc(std::size_t align, std::size_t bytes) noexcept;

inline void sysFree(void *p) noexcept
{
    std::free(p);
}

} // namespace vel

extern "C" {
/* Makes the nth system allocation from now fail (1: the next one); 0 disarms.
 * Also restarts the count that _velClient_allocFail_calls reports. */
void _velClient_allocFail_arm(std::uint64_t nth);

/* System allocations asked for since the last arm. */
std::uint64_t _velClient_allocFail_calls(void);
}
