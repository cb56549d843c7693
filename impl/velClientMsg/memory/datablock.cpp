/*
 * datablock.cpp - reference-counted data blocks: choosing a size class,
 * allocation from a class's free list or the system, the one sequence that
 * drops a reference, the public data-block calls, and attaching a block to or
 * taking it out of a message part.
 */
#include <cstring>

#include "velClientMsg/memory/blockSteps.h"

namespace {

constexpr std::uint32_t kHeaderSize = vel::pool::kDatabHeaderSize;

using namespace vel::pool;

} // namespace

_velClient_datab *vel::pool::newBlock(std::uint32_t q, std::uint32_t size)
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

void vel::pool::traceAlloc(const _velClient_datab *db, std::uint32_t size) noexcept
{
    VEL_LOG(VELCLIENT_LOG_DEBUG, "Allocated dataBlock %x, size %u, for requested size %u", addr32(db), db->dbSize,
            size);
}

void vel::pool::traceDrop(const _velClient_datab *db, std::int32_t before, const char *file_p, int line) noexcept
{
    VEL_LOG(VELCLIENT_LOG_DEBUG, "datablock_free %x, refcount=%d %s:%d", addr32(db), before, file_p, line);
    if (before <= 0)
        VEL_LOG(VELCLIENT_LOG_CRITICAL, "datablock already free %x, refcount=%d %s:%d", addr32(db), before, file_p,
                line);
}

namespace {

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
    *result = allocBlock(local(), size);
    return *result == nullptr ? VELCLIENT_FAIL : VELCLIENT_OK;
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
    dropBlockRefs(local(), db, count, file_p, line);
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
    return attachNewBlock(local(), msg, bufIndex, size);
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
