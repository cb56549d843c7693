/*
 * systemMemory.h - the one door through which the library takes memory
 * from the system, and its failure hook: tests can make the Nth allocation
 * from now fail, to drive every out-of-memory path. Large chunks that a
 * thread frees it keeps for its next large request (largeChunks.cpp).
 */
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>

namespace vel {

/* malloc, or nullptr when it fails or the failure hook says so. */
void *sysMalloc(std::size_t bytes) noexcept;

/* aligned_alloc (bytes a multiple of align, align at most 64), or nullptr as
 * above. A large request may get a chunk the thread kept (see sysFreeSized). */
void *sysAlignedAlloc(std::size_t align, std::size_t bytes) noexcept;

inline void sysFree(void *p) noexcept
{
    std::free(p);
}

/* Frees bytes that sysAlignedAlloc gave. A large chunk is kept by the calling
 * thread for its next large request instead (largeChunks.cpp). */
void sysFreeSized(void *p, std::size_t bytes) noexcept;

/* Large chunks: between these sizes, at most kKeptChunks per thread. */
inline constexpr std::size_t kKeptChunkMin = 256 * 1024;
inline constexpr std::size_t kKeptChunkMax = 8 * 1024 * 1024;
inline constexpr std::size_t kKeptChunks = 2;

/* A kept chunk of at least bytes (and at most twice as many), or nullptr. */
void *takeKeptChunk(std::size_t bytes) noexcept;

/* Keeps mem (bytes long) for the calling thread; false when it is not kept. */
bool keepChunk(void *mem, std::size_t bytes) noexcept;

/* Frees the calling thread's kept chunks. */
void releaseKeptChunks() noexcept;

} // namespace vel

extern "C" {
/* Makes the nth system allocation from now fail (1: the next one); 0 disarms.
 * Also restarts the count that _velClient_allocFail_calls reports. */
void _velClient_allocFail_arm(std::uint64_t nth);

/* System allocations asked for since the last arm. */
std::uint64_t _velClient_allocFail_calls(void);
}
