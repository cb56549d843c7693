/*
 * datablock.cpp - reference-counted data blocks: choosing a size class,
 * allocation from a class's free list or the system, the one sequence that
 * drops a reference, the public data-block calls, and attaching a block to or
 * taking it out of a message part.
 */
#include <cstring>

#include "velClientMsg/memory/poolAccounting.h"

namespace {

constexpr std::uint32_t kHeaderSize = vel::pool::kDatabHeaderSize;

using namespace vel::pool;

/* The first class whose capacity holds size, or 5 (oversize). */
inline std::uint32_t classFor(std::uint32_t size) noexcept
{
    const std::uint32_t *quanta = _velClient_msgPool_s.dbQuantaSize;
    std::uint32_t q = 0;
    while (q < _VELCLIENT_NUM_QUANTA && size > quanta[q])
        ++q;
    return q;
}

/* Low 32 bits of an address, for the traces that print blocks with %x. */
inline unsigned addr32(const void *p) noexcept
{
    return static_cast<unsigned>(reinterpret_cast<std::uintptr_t>(p));
}

/* A new block from the system for class q (capacity exactly size when oversize). */
[[gnu::noinline]] _velClient_datab *newBlock(std::uint32_t q, std::uint32_t size)
{
    std::uint32_t capacity = q < _VELCLIENT_NUM_QUANTA ? _velClient_msgPool_s.dbQuantaSize[q] : size;
    _velClient_datab *db = nullptr;
    if (size < static_cast<std::uint32_t>(capacity + kHeaderSize))
        db = obtain<_velClient_datab>(std::size_t{kHeaderSize} + capacity);
    if (db == nullptr) {
        VEL_STORE(VELCLIENT_SUBCODE_OUT_OF_MEMORY, VELCLIENT_LOG_WARNING,
                  "Unable to allocate memory for dataBlock of size %d in velClient_datablock_alloc",
                  static_cast<int>(capacity));
        return nullptr;
    }
    db->entry.next_p = nullptr;
    db->dbQuanta = q;
    db->dbSize = capacity;
    db->dbData_p = reinterpret_cast<std::uint8_t *>(db + 1);
    return db;
}

/* A public data-block handle is the record's address; refuse what cannot be one. */
inline _velClient_datab *blockOf(velClient_opaqueDatablock_pt datab) noexcept
{
    auto *db = static_cast<_velClient_datab *>(datab);
    if (db == nullptr || db->dbData_p != reinterpret_cast<std::uint8_t *>(db + 1))
        return nullptr;
    return db;
}

/* The open container of a structured part, or nullptr for other parts. */
_velClient_container **openContainerSlot(_velClient_msg *msg, int bufIndex)
{
    switch (bufIndex) {
    case VELCLIENT_BUFINFO_BINARY_ATTACHMENT_PART:
        return &msg->binaryAttachContainer_p;
    case VELCLIENT_BUFINFO_USER_PROPERTY_PART:
        return &msg->userPropertyMap_p;
    case _VELCLIENT_BUFINFO_HDR_MAP_PART:
        return &msg->hdrMap_p;
    default:
        return nullptr;
    }
}

} // namespace

velClient_returnCode_t _velClient_datablock_alloc(_velClient_datab **result, std::uint32_t size)
{
    std::uint32_t q = classFor(size);
    ThreadState &me = local();
    _velClient_datab *db = nullptr;
    if (q < _VELCLIENT_NUM_QUANTA)
        db = take<_velClient_datab>(me.blocks[q], _velClient_msgPool_s.freeDbList[q], me.counters.numFreeDataB[q]);
    if (db == nullptr && (db = newBlock(q, size)) == nullptr) {
        *result = nullptr;
        return VELCLIENT_FAIL;
    }
    bump(me.counters.numAllocDataB[db->dbQuanta]);
    bump(me.counters.allocMemory, static_cast<std::uint64_t>(db->dbSize));
    __atomic_store_n(&db->dbRefCount, 1, __ATOMIC_RELAXED);
    VEL_LOG(VELCLIENT_LOG_DEBUG, "Allocated dataBlock %x, size %u, for requested size %u", addr32(db), db->dbSize,
            size);
    *result = db;
    return VELCLIENT_OK;
}

bool _velClient_datablock_reusableFor(const _velClient_datab *db, std::uint32_t size)
{
    return __atomic_load_n(&db->dbRefCount, __ATOMIC_ACQUIRE) == 1 && db->dbQuanta < _VELCLIENT_NUM_QUANTA &&
           classFor(size) == db->dbQuanta;
}

void _velClient_datablock_decRef(_velClient_datab *db, const char *file_p, int line)
{
    _velClient_datablock_decRefBy(db, 1, file_p, line);
}

void _velClient_datablock_decRefBy(_velClient_datab *db, std::int32_t count, const char *file_p, int line)
{
    /* Acquire: when this is the last reference, what other holders wrote
     * before dropping theirs is visible before the block is reused. */
    std::int32_t before = __atomic_load_n(&db->dbRefCount, __ATOMIC_ACQUIRE);
    VEL_LOG(VELCLIENT_LOG_DEBUG, "datablock_free %x, refcount=%d %s:%d", addr32(db), before, file_p, line);
    if (before <= 0)
        VEL_LOG(VELCLIENT_LOG_CRITICAL, "datablock already free %x, refcount=%d %s:%d", addr32(db), before, file_p,
                line);
    /* The only holder needs no atomic decrement: nobody else can add a reference. */
    if (before != count && __atomic_fetch_sub(&db->dbRefCount, count, __ATOMIC_ACQ_REL) != count)
        return;
    __atomic_store_n(&db->dbRefCount, 0, __ATOMIC_RELAXED);
    ThreadState &me = local();
    std::uint32_t q = db->dbQuanta;
    drop(me.counters.numAllocDataB[q]);
    drop(me.counters.allocMemory, static_cast<std::uint64_t>(db->dbSize));
    std::size_t bytes = std::size_t{kHeaderSize} + db->dbSize;
    if (q < _VELCLIENT_NUM_QUANTA)
        release(me.blocks[q], blockCacheCap[q], _velClient_msgPool_s.freeDbList[q], &db->entry,
                me.counters.numFreeDataB[q], bytes);
    else
        giveToSystem(db, bytes, true);
}

void _velClient_datablock_incRef(_velClient_datab *db, std::int32_t count)
{
    __atomic_fetch_add(&db->dbRefCount, count, __ATOMIC_RELAXED);
}

void _velClient_datablock_addRefs(_velClient_datab *db, std::int32_t count, std::int32_t held)
{
    if (count == 0)
        return;
    if (__atomic_load_n(&db->dbRefCount, __ATOMIC_ACQUIRE) == held)
        __atomic_store_n(&db->dbRefCount, held + count, __ATOMIC_RELAXED);
    else
        __atomic_fetch_add(&db->dbRefCount, count, __ATOMIC_RELAXED);
}

velClient_returnCode_t _velClient_msg_dbAlloc(_velClient_msg *msg, int bufIndex, std::uint32_t size)
{
    if (bufIndex < 0 || bufIndex >= _VELCLIENT_BUFINFO_NUM_PARTS)
        return VEL_FAIL_RANGE("Invalid bufInfo part in _velClient_msg_dbAlloc");
    if (msg->bufDatab_p[bufIndex] != nullptr)
        return VEL_FAIL(VELCLIENT_SUBCODE_DBLOCK_ALREADY_EXISTS, VELCLIENT_LOG_WARNING,
                        "bufInfo part already contains data block in _velClient_msg_dbAlloc");
    _velClient_datab *db = nullptr;
    if (_velClient_datablock_alloc(&db, size) != VELCLIENT_OK) {
        VEL_LOG(VELCLIENT_LOG_WARNING, "Unable to allocate buffer of size %u for buffer index %d in _velClient_msg_dbAlloc",
                size, bufIndex);
        return VELCLIENT_FAIL;
    }
    msg->internalFlags |= _VELCLIENT_MSG_FLAG_MODIFIED;
    msg->bufDatab_p[bufIndex] = db;
    msg->bufInfo_a[bufIndex].buf_p = db->dbData_p;
    msg->bufInfo_a[bufIndex].bufSize = db->dbSize;
    return VELCLIENT_OK;
}

extern "C" VELCLIENT_API velClient_returnCode_t velClient_datablock_alloc(velClient_opaqueDatablock_pt *datab_p,
                                                                         velClient_uint32_t size)
{
    if (datab_p == nullptr)
        return VEL_FAIL_NULL("Null reference to datab_p pointer in velClient_datablock_alloc");
    _velClient_datab *db = nullptr;
    velClient_returnCode_t rc = _velClient_datablock_alloc(&db, size);
    *datab_p = db;
    return rc;
}

extern "C" VELCLIENT_API velClient_returnCode_t velClient_datablock_free(velClient_opaqueDatablock_pt *datab_p)
{
    if (datab_p == nullptr)
        return VEL_FAIL_NULL("Null reference to datab_p pointer in velClient_datablock_free");
    _velClient_datab *db = blockOf(*datab_p);
    if (db == nullptr)
        return VEL_FAIL_NULL("Bad datablock pointer (%p) in velClient_datablock_free", static_cast<void *>(datab_p));
    if (__atomic_load_n(&db->dbRefCount, __ATOMIC_RELAXED) == 0)
        return VEL_FAIL_RANGE("Datablock pointer in velClient_datablock_free already free");
    VEL_DATAB_RELEASE(db);
    *datab_p = nullptr;
    return VELCLIENT_OK;
}

extern "C" VELCLIENT_API velClient_returnCode_t velClient_datablock_dup(velClient_opaqueDatablock_pt datab)
{
    _velClient_datab *db = blockOf(datab);
    if (db == nullptr)
        return VEL_FAIL_NULL("Bad datablock pointer (%p) in velClient_datablock_incRef", datab);
    _velClient_datablock_incRef(db);
    return VELCLIENT_OK;
}

extern "C" VELCLIENT_API velClient_returnCode_t velClient_datablock_getDataPtr(velClient_opaqueDatablock_pt datab,
                                                                              velClient_opaquePointer_pt bufPtr_p,
                                                                              velClient_uint32_t *size_p)
{
    _velClient_datab *db = blockOf(datab);
    if (db == nullptr)
        return VEL_FAIL_NULL("Bad datablock pointer (%p) in velClient_datablock_getDataPtr", datab);
    if (bufPtr_p == nullptr || size_p == nullptr)
        return VEL_FAIL_NULL("Null output pointer in velClient_datablock_getDataPtr");
    *bufPtr_p = db->dbData_p;
    *size_p = db->dbSize;
    return VELCLIENT_OK;
}

extern "C" VELCLIENT_API velClient_returnCode_t velClient_msg_extractDatablock(velClient_opaqueMsg_pt msg_p,
                                                                              velClient_bufInfo_index_t bufIndex,
                                                                              velClient_opaqueDatablock_pt *datab_p,
                                                                              velClient_bufInfo_pt bufInfo_p)
{
    _velClient_msg *msg = vel::msgOrFail(msg_p, "Bad msg_p pointer (%p) in velClient_msg_extractDatablock");
    if (msg == nullptr)
        return VELCLIENT_FAIL;
    auto index = static_cast<int>(vel::enumValue(bufIndex));
    if (index < 0 || index >= _VELCLIENT_BUFINFO_NUM_PARTS)
        return VEL_FAIL_RANGE("Invalid bufInfo part in velClient_msg_extractDatablock");
    if (datab_p == nullptr)
        return VEL_FAIL_NULL("Null datablock pointer in velClient_msg_extractDatablock");
    if (bufInfo_p == nullptr)
        return VEL_FAIL_NULL("Null bufInfo_p pointer in velClient_msg_extractDatablock");
    if (_velClient_container **slot = openContainerSlot(msg, index); slot != nullptr && *slot != nullptr)
        _velClient_container_closeMapStream(slot, true, true, false);
    _velClient_datab *db = msg->bufDatab_p[index];
    if (db == nullptr) {
        *datab_p = nullptr;
        bufInfo_p->buf_p = nullptr;
        bufInfo_p->bufSize = 0;
        return VELCLIENT_NOT_FOUND;
    }
    *datab_p = db;
    *bufInfo_p = msg->bufInfo_a[index];
    msg->internalFlags |= _VELCLIENT_MSG_FLAG_MODIFIED;
    VEL_LOG(VELCLIENT_LOG_DEBUG, "Extracted dataBlock %x, buf_p %p, buf size %u, refCount = %d", addr32(db),
            bufInfo_p->buf_p, bufInfo_p->bufSize, __atomic_load_n(&db->dbRefCount, __ATOMIC_RELAXED));
    msg->bufInfo_a[index] = velClient_bufInfo_t{nullptr, 0};
    msg->bufDatab_p[index] = nullptr;
    return VELCLIENT_OK;
}
