/*
 * largeChunks.cpp - the large allocations a thread gave back, kept for its
 * next large request. A large block taken from the system is a fresh mapping
 * whose pages the kernel hands out and clears one fault at a time; a thread
 * that sends or receives large messages frees and asks for the same sizes
 * over and over. Each thread keeps its last few such chunks, within a byte
 * bound, and gives them to the system when it ends. To everything above this
 * layer the memory has been returned: no pool counter includes it.
 */
#include <cstdlib>

#include "velClientAlloc/systemMemory.h"

namespace {

struct Chunk {
    void *mem;
    std::size_t bytes;
};

struct KeptChunks {
    Chunk slot[vel::kKeptChunks]; /* the first count used, oldest first */
    std::size_t count;
    bool closed; /* the thread is ending: keep nothing more */
};

thread_local constinit KeptChunks kept_s{};

/* Frees the thread's chunks when it ends; later frees go to the system. */
struct Release {
    ~Release()
    {
        vel::releaseKeptChunks();
        kept_s.closed = true;
    }
};

thread_local Release release_s;

/* Takes slot i out, closing the gap. */
void *removeAt(std::size_t i) noexcept
{
    void *mem = kept_s.slot[i].mem;
    for (; i + 1 < kept_s.count; ++i)
        kept_s.slot[i] = kept_s.slot[i + 1];
    --kept_s.count;
    return mem;
}

} // namespace

namespace vel {

void *takeKeptChunk(std::size_t bytes) noexcept
{
    /* A chunk serves a request of at least half its size. */
    for (std::size_t i = kept_s.count; i-- > 0;) {
        const Chunk &c = kept_s.slot[i];
        if (c.bytes >= bytes && c.bytes / 2 <= bytes)
            return removeAt(i);
    }
    return nullptr;
}

bool keepChunk(void *mem, std::size_t bytes) noexcept
{
    if (bytes < kKeptChunkMin || bytes > kKeptChunkMax || kept_s.closed)
        return false;
    (void)&release_s; /* registers the thread-exit hook */
    if (kept_s.count == kKeptChunks)
        std::free(removeAt(0));
    kept_s.slot[kept_s.count++] = Chunk{mem, bytes};
    return true;
}

void releaseKeptChunks() noexcept
{
    while (kept_s.count > 0)
        std::free(removeAt(kept_s.count - 1));
}

} // namespace vel
