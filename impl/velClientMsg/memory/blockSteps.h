/*
 * blockSteps.h - the inline steps of data blocks that the hot paths share:
 * choosing a size class, taking a block for the calling thread, attaching a
 * new block to an empty message part, and dropping references (the last
 * holder pools or frees the block). datablock.cpp holds the rest.
 */
#pragma once

#include "velClientMsg/memory/poolAccounting.h"

namespace vel::pool {

/* Low 32 bits of an address, for the traces that print blocks with %x. */
inline unsigned addr32(const void *p) noexcept
{
    return static_cast<unsigned>(reinterpret_cast<std::uintptr_t>(p));
}

/* The first class whose capacity holds size, or 5 (oversize). */
inline std::uint32_t classFor(std::uint32_t size) noexcept
{
    const std::uint32_t *quanta = _velClient_msgPool_s.dbQuantaSize;
    std::uint32_t q = 0;
    while (q < _VELCLIENT_NUM_QUANTA && size > quanta[q])
        ++q;
    return q;
}

/* The debug trace of a block just allocated for a request of size bytes. */
[[gnu::cold, gnu::noinline]] void traceAlloc(const _velClient_datab *db, std::uint32_t size) noexcept;
/* The traces of a drop of references from before (file and line name the
 * dropping holder): at debug, and at critical when the block was free. */
[[gnu::cold, gnu::noinline]] void traceDrop(const _velClient_datab *db, std::int32_t before, const char *file_p,
                                            int line) noexcept;

/* A new block from the system for class q (capacity exactly size when
 * oversize), or nullptr after recording the failure. */
_velClient_datab *newBlock(std::uint32_t q, std::uint32_t size);

/* A block of capacity >= size with reference count 1, taken by the calling
 * thread me; nullptr after recording the failure. */
inline _velClient_datab *allocBlock(ThreadState &me, std::uint32_t size) noexcept
{
    std::uint32_t q = classFor(size);
    _velClient_datab *db = nullptr;
    if (__builtin_expect(q < _VELCLIENT_NUM_QUANTA, 1))
        db = take<_velClient_datab>(me.blocks[q], _velClient_msgPool_s.freeDbList[q], me.counters.numFreeDataB[q]);
    if (db == nullptr && (db = newBlock(q, size)) == nullptr)
        return nullptr;
    bump(me.counters.numAllocDataB[q]); /* db->dbQuanta, known without waiting for the block */
    bump(me.counters.allocMemory, static_cast<std::uint64_t>(db->dbSize));
    __atomic_store_n(&db->dbRefCount, 1, __ATOMIC_RELAXED);
    if (vel::logAdmits(VELCLIENT_LOG_DEBUG))
        traceAlloc(db, size);
    return db;
}

/* dropBlockRefs once the caller has read the reference count, before (with
 * acquire: when this is the last reference, what other holders wrote before
 * dropping theirs is visible before the block is reused). underLimitKnown as
 * release() takes it. */
inline void dropBlockRefsFrom(ThreadState &me, _velClient_datab *db, std::int32_t before, std::int32_t count,
                              const char *file_p, int line, bool underLimitKnown) noexcept
{
    if (__builtin_expect(vel::logAdmits(VELCLIENT_LOG_DEBUG) || before <= 0, 0))
        traceDrop(db, before, file_p, line);
    /* The only holder needs no atomic decrement: nobody else can add a reference. */
    if (before != count && __atomic_fetch_sub(&db->dbRefCount, count, __ATOMIC_ACQ_REL) != count)
        return;
    __atomic_store_n(&db->dbRefCount, 0, __ATOMIC_RELAXED);
    std::uint32_t q = db->dbQuanta;
    drop(me.counters.numAllocDataB[q]);
    drop(me.counters.allocMemory, static_cast<std::uint64_t>(db->dbSize));
    std::size_t bytes = std::size_t{kDatabHeaderSize} + db->dbSize;
    if (__builtin_expect(q < _VELCLIENT_NUM_QUANTA, 1))
        release(me.blocks[q], blockCacheCap[q], _velClient_msgPool_s.freeDbList[q], &db->entry,
                me.counters.numFreeDataB[q], bytes, underLimitKnown);
    else
        giveToSystem(db, bytes, true);
}

/* Drops count references held by one holder at once, for the calling
 * thread me: the one sequence every holder uses (traces name file and line).
 * The last holder pools the block, or frees it when oversize. */
inline void dropBlockRefs(ThreadState &me, _velClient_datab *db, std::int32_t count, const char *file_p,
                          int line) noexcept
{
    dropBlockRefsFrom(me, db, __atomic_load_n(&db->dbRefCount, __ATOMIC_ACQUIRE), count, file_p, line, false);
}

/* Attaches a new block of size bytes to the empty part index of msg:
 * buf_p/bufSize = the block. Records the failure. */
inline velClient_returnCode_t attachNewBlock(ThreadState &me, _velClient_msg *msg, int index, std::uint32_t size)
{
    _velClient_datab *db = allocBlock(me, size);
    if (db == nullptr) {
        VEL_LOG(VELCLIENT_LOG_WARNING,
                "Unable to allocate buffer of size %u for buffer index %d in _velClient_msg_dbAlloc", size, index);
        return VELCLIENT_FAIL;
    }
    msg->internalFlags |= _VELCLIENT_MSG_FLAG_MODIFIED;
    msg->bufDatab_p[index] = db;
    msg->bufInfo_a[index].buf_p = db->dbData_p;
    msg->bufInfo_a[index].bufSize = db->dbSize;
    return VELCLIENT_OK;
}

} // namespace vel::pool
