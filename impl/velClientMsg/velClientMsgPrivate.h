/*
 * velClientMsgPrivate.h - the message module's private records and internal
 * functions: data blocks, the pool and its statistics, the message record with
 * its twelve buffer parts and flag words, and the container record. Every file
 * of the module includes this header; applications never see it.
 */
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>

#include "velClientHandle/handleTable.h"
#include "velClientLifo/lockFreeStack.h"
#include "velClientLog/logPrivate.h"
#include "velclient/velClientMsg.h"

/* ---- Internal buffer parts (after the eight public ones) ---------------- */
inline constexpr int _VELCLIENT_BUFINFO_BINARY_META_PART = 8;
inline constexpr int _VELCLIENT_BUFINFO_VWF_PART = 9;
inline constexpr int _VELCLIENT_BUFINFO_HDR_MAP_PART = 10;
inline constexpr int _VELCLIENT_BUFINFO_DEST_PREFIX_PART = 11;
inline constexpr int _VELCLIENT_BUFINFO_NUM_PARTS = 12;

/* ---- internalFlags of a message ------------------------------------------ */
inline constexpr std::uint32_t _VELCLIENT_MSG_FLAG_SENDER_ID = 0x00000001;
inline constexpr std::uint32_t _VELCLIENT_MSG_FLAG_SEQUENCE_NUMBER = 0x00000002;
inline constexpr std::uint32_t _VELCLIENT_MSG_FLAG_SENDER_TIMESTAMP = 0x00000004;
inline constexpr std::uint32_t _VELCLIENT_MSG_FLAG_REPLY_TO = 0x00000008;
inline constexpr std::uint32_t _VELCLIENT_MSG_FLAG_CORRELATION_ID = 0x00000010;
inline constexpr std::uint32_t _VELCLIENT_MSG_FLAG_APP_MSG_TYPE = 0x00000020;
inline constexpr std::uint32_t _VELCLIENT_MSG_FLAG_APP_MSG_ID = 0x00000040;
inline constexpr std::uint32_t _VELCLIENT_MSG_FLAG_NEW_HDR_MAP = 0x00000080;
inline constexpr std::uint32_t _VELCLIENT_MSG_FLAG_MODIFIED = 0x00000100;
inline constexpr std::uint32_t _VELCLIENT_MSG_FLAG_META_READONLY = 0x00000200;
inline constexpr std::uint32_t _VELCLIENT_MSG_FLAG_ATTACHMENT_READONLY = 0x00000400;
inline constexpr std::uint32_t _VELCLIENT_MSG_FLAG_SENDER_ID_AUTO = 0x00000800;
inline constexpr std::uint32_t _VELCLIENT_MSG_FLAG_SEQUENCE_NUMBER_AUTO = 0x00001000;
inline constexpr std::uint32_t _VELCLIENT_MSG_FLAG_SENDER_TIMESTAMP_AUTO = 0x00002000;
inline constexpr std::uint32_t _VELCLIENT_MSG_FLAG_HDR_MAP_READONLY = 0x00004000;
inline constexpr std::uint32_t _VELCLIENT_MSG_FLAG_USER_PROPS_READONLY = 0x00008000;
inline constexpr std::uint32_t _VELCLIENT_MSG_FLAG_EXPIRATION = 0x00010000;
inline constexpr std::uint32_t _VELCLIENT_MSG_FLAG_HTTP_CONTENT_TYPE = 0x00020000;
inline constexpr std::uint32_t _VELCLIENT_MSG_FLAG_HTTP_CONTENT_ENCODING = 0x00040000;

/* ---- Receive flags (msgInfo.flags) ---------------------------------------- */
inline constexpr std::uint32_t _VELCLIENT_RX_FLAG_COS_MASK = 0x00000003;
inline constexpr std::uint32_t _VELCLIENT_RX_FLAG_DELIVERY_MODE_MASK = 0x00000030;
inline constexpr std::uint32_t _VELCLIENT_RX_FLAG_DELIVER_TO_ONE = 0x00000040;
inline constexpr std::uint32_t _VELCLIENT_RX_FLAG_TEMP_DEST = 0x00000080;
inline constexpr std::uint32_t _VELCLIENT_RX_FLAG_DMQ_ELIGIBLE = 0x00000100;
inline constexpr std::uint32_t _VELCLIENT_RX_FLAG_ELIDING_ELIGIBLE = 0x00000200;
inline constexpr std::uint32_t _VELCLIENT_RX_FLAG_ACK_IMMEDIATELY = 0x00000400;
inline constexpr std::uint32_t _VELCLIENT_RX_FLAG_TOPIC_SEQ_NUM = 0x00100000;
inline constexpr std::uint32_t _VELCLIENT_RX_FLAG_REDELIVERED_MASK = 0x10400000;
inline constexpr std::uint32_t _VELCLIENT_RX_FLAG_CACHE_SUSPECT = 0x01000000;
inline constexpr std::uint32_t _VELCLIENT_RX_FLAG_CACHE_MSG = 0x02000000;
inline constexpr std::uint32_t _VELCLIENT_RX_FLAG_REPLY_MSG = 0x04000000;
inline constexpr std::uint32_t _VELCLIENT_RX_FLAG_MSG_ID = 0x08000000;
inline constexpr std::uint32_t _VELCLIENT_RX_FLAG_DISCARD_INDICATION = 0x20000000;

/* ---- Data block ------------------------------------------------------------- */

/* Number of size classes; class 5 marks an oversize block. */
inline constexpr std::uint32_t _VELCLIENT_NUM_QUANTA = 5;
inline constexpr std::uint32_t _VELCLIENT_OVERSIZE_QUANTA = 5;

/* One allocation: this header, then dbSize bytes of data at dbData_p. */
struct _velClient_datab {
    _velClient_lifoEntry entry;
    std::int32_t dbRefCount;   /* holders; changed only atomically */
    std::uint32_t dbSize;      /* capacity of the data area */
    std::uint32_t dbQuanta;    /* 0..4, or 5 for oversize */
    std::uint8_t *dbData_p;    /* the byte after this header */
};

/* ---- Message record -------------------------------------------------------- */
struct velClient_session_rxCallbackInfo {
    std::uint32_t flags;        /* receive flags, _VELCLIENT_RX_FLAG_* */
    std::uint64_t msgId;
    std::uint64_t rcvTimestamp;
};

struct _velClient_container;

struct _velClient_msg {
    _velClient_lifoEntry entry;
    velClient_bufInfo_t bufInfo_a[_VELCLIENT_BUFINFO_NUM_PARTS];
    _velClient_datab *bufDatab_p[_VELCLIENT_BUFINFO_NUM_PARTS];
    _velClient_container *userPropertyMap_p;       /* open container on part 7 */
    _velClient_container *hdrMap_p;                /* open container on part 10 */
    _velClient_container *binaryAttachContainer_p; /* open container on part 0 */
    std::uint8_t binAttachmentType;
    std::uint32_t internalFlags;
    std::uint64_t cacheRequestId;
    std::uint64_t timeToLive;
    std::uint64_t expirationTime;
    std::uint64_t topicSeqNo;
    velClient_session_rxCallbackInfo msgInfo;
    velClient_opaqueMsg_pt opaqueMsg_p; /* handle issued for this record (a duplicate keeps its source's) */
};

/* ---- Container record -------------------------------------------------------- */
enum _velClient_containerType : std::uint32_t {
    VELCLIENT_CONTAINER_MAP = 1,
    VELCLIENT_CONTAINER_STREAM = 2,
    VELCLIENT_CONTAINER_STRING = 3,
    VELCLIENT_CONTAINER_NONE = 4
};

/* Map entries a container remembers as well formed (see checkedAt). */
inline constexpr std::uint32_t kCheckedEntries = 16;

struct _velClient_container {
    _velClient_lifoEntry entry;
    _velClient_containerType type;
    velClient_bufInfo_index_t bufInfoIndex; /* message part holding the bytes (0, 7 or 10) */
    velClient_opaqueContainer_pt opaqueContainer_p;
    std::uint8_t *startPtr;      /* the type byte 0x2B / 0x2F */
    std::uint8_t *firstFieldPtr; /* startPtr + 5 */
    std::uint8_t *curRdPtr;      /* field last returned, nullptr before the first read */
    std::uint32_t offset;        /* in a part: startPtr's offset in the block; child: from parent's startPtr */
    std::int32_t refCount;
    std::uint32_t curFieldLength;
    std::uint32_t curKeyLength;
    std::uint8_t *curWrPtr; /* end of the written bytes */
    std::uint8_t *maxWrPtr; /* end of the writable space */
    _velClient_msg *msg_b;  /* message whose part holds the bytes, or nullptr */
    _velClient_container *parent_p;
    _velClient_container *child_p; /* newest open child; list through sib_p */
    _velClient_container *sib_p;
    bool onFreeList;
    bool copyOnModify;
    /* The first map entries that reads found well formed, so that a lookup
     * compares their keys without checking them again: checkedCount offsets
     * from firstFieldPtr, in order, then checkedEnd where the first entry not
     * yet checked begins, and checkedKeys with a bit set for each of their
     * keys (a key whose bit is clear is not among them). Forgotten whenever
     * bytes move inside the container. checkedNext is a guess at the index
     * of the remembered entry the cursor reaches next, tested before use. */
    std::uint32_t checkedCount;
    std::uint32_t checkedEnd;
    std::uint64_t checkedKeys;
    std::uint32_t checkedAt[kCheckedEntries];
    std::uint32_t checkedNext;
};

inline void forgetCheckedEntries(_velClient_container *c) noexcept
{
    c->checkedCount = 0;
    c->checkedEnd = 0;
    c->checkedKeys = 0;
    c->checkedNext = 0;
}

/* ---- Pool ----------------------------------------------------------------------- */
struct _velClient_msgPoolStats {
    std::atomic<std::uint64_t> totMemory;
    std::atomic<std::uint64_t> allocMemory;
    std::atomic<std::uint32_t> msgAllocs;
    std::atomic<std::uint32_t> msgFrees;
    std::atomic<std::uint32_t> msgDups;
    std::atomic<std::uint32_t> msgReallocs;
    std::atomic<std::uint32_t> numFreeMsg;
    std::atomic<std::uint32_t> numAllocMsg;
    std::atomic<std::uint32_t> numFreeContainer;
    std::atomic<std::uint32_t> numAllocContainer;
    std::atomic<std::uint32_t> numFreeDataB[_VELCLIENT_NUM_QUANTA];
    std::atomic<std::uint32_t> numAllocDataB[_VELCLIENT_NUM_QUANTA + 1];
};

struct _velClient_msgPool {
    std::uint32_t initCalled;
    std::uint32_t dbQuantaSize[_VELCLIENT_NUM_QUANTA];
    _velClient_lifoHead freeMsgList;
    _velClient_lifoHead freeContainerList;
    _velClient_lifoHead freeDbList[_VELCLIENT_NUM_QUANTA];
    std::atomic<std::uint64_t> maxPoolMemSize;
    _velClient_msgPoolStats msgPoolStats;
};

extern _velClient_msgPool _velClient_msgPool_s;

/* Defaults that hold before the first velClient_initialize. */
inline constexpr std::uint32_t VEL_DEFAULT_QUANTA[_VELCLIENT_NUM_QUANTA] = {256, 2048, 16384, 131072, 1048576};
inline constexpr std::uint64_t kDefaultMaxPoolMem = 64ull * 1024 * 1024;

/* ==================================================================== */
/* Pool, messages and data blocks                                        */
/* ==================================================================== */

/* Starts (or restarts, draining first) the pool; classes and limit untouched. */
velClient_returnCode_t _velClient_msgInit();
/* Drains the free lists and reports records never released. */
void _velClient_msg_cleanup();
/* Sets the five ascending class capacities and the memory limit (library initialisation). */
void _velClient_msgPool_configure(const std::uint32_t quanta[_VELCLIENT_NUM_QUANTA], std::uint64_t maxPoolMem);

/* A block of capacity >= size with reference count 1; records the failure. */
velClient_returnCode_t _velClient_datablock_alloc(_velClient_datab **result, std::uint32_t size);
/* True when the caller holds db's only reference and a new block for size
 * would be of db's class: the caller may then write size bytes into db
 * instead of releasing it and taking another, and every pool statistic reads
 * as if it had. */
bool _velClient_datablock_reusableFor(const _velClient_datab *db, std::uint32_t size);
/* Drops one reference (the one sequence every holder uses); the last holder
 * pools or frees the block. file/line only appear in traces. */
void _velClient_datablock_decRef(_velClient_datab *datab, const char *file_p, int line);
#define VEL_DATAB_RELEASE(datab) _velClient_datablock_decRef((datab), __FILE__, __LINE__)
/* Drops count references held by one holder at once (parts sharing a block). */
void _velClient_datablock_decRefBy(_velClient_datab *datab, std::int32_t count, const char *file_p, int line);
/* Adds count references (one by default) in one step. */
void _velClient_datablock_incRef(_velClient_datab *datab, std::int32_t count = 1);
/* Adds count references for a holder that already holds held of them. When
 * those are all the block has, nobody else can change the count meanwhile,
 * and a plain store does it instead of a locked instruction. */
void _velClient_datablock_addRefs(_velClient_datab *datab, std::int32_t count, std::int32_t held);
/* Attaches a new block of size bytes to an empty part; buf_p/bufSize = the block. */
velClient_returnCode_t _velClient_msg_dbAlloc(_velClient_msg *msg, int bufIndex, std::uint32_t size);

velClient_returnCode_t _velClient_msg_alloc(_velClient_msg **msg_p);
/* Closes the containers, drops the part blocks, pools or frees the record. */
velClient_returnCode_t _velClient_msg_free(_velClient_msg *msg);
velClient_returnCode_t _velClient_msg_dup(_velClient_msg *msg, _velClient_msg **newMsg_p);
velClient_returnCode_t _velClient_msg_dupMsgWithCopy(_velClient_msg *msg, _velClient_msg **newMsg_p);

/* A zeroed container record with a handle and refCount 1. */
velClient_returnCode_t _velClient_container_alloc(_velClient_container **container_p);
/* Invalidates the handle and pools or frees the record; *container_p = nullptr. */
velClient_returnCode_t _velClient_container_free(_velClient_container **container_p);

/* ==================================================================== */
/* Buffer parts                                                          */
/* ==================================================================== */

/* Part := reference to caller memory (drops the part's block). */
velClient_returnCode_t _velClient_msg_setBufinfoPtr(_velClient_msg *msg, int bufInfoIndex, void *buf_p,
                                                    std::uint32_t size);
/* Part := copy of size bytes at offset; the first offset bytes are the caller's to fill. */
velClient_returnCode_t _velClient_msg_setBufinfo(_velClient_msg *msg, int bufInfoIndex, const void *buf_p,
                                                 std::uint32_t size, std::int32_t offset);
/* Reads a part; VELCLIENT_NOT_FOUND (outputs untouched) when it is empty. */
velClient_returnCode_t _velClient_msg_getBufinfoPtr(_velClient_msg *msg, int bufInfoIndex, void **bufPtr_p,
                                                    std::uint32_t *size_p);

/* Header values set by the receive path. */
velClient_returnCode_t _velClient_msg_setMsgId(velClient_opaqueMsg_pt msg_p, velClient_msgId_t msgId);
velClient_returnCode_t _velClient_msg_setTopicSequenceNumber(velClient_opaqueMsg_pt msg_p, velClient_uint64_t seqNum);

/* ==================================================================== */
/* Containers                                                            */
/* ==================================================================== */

/* An empty container in message part 0 (map or stream) or part 7 / 10 (map,
 * 4 bytes into the part). */
velClient_returnCode_t _velClient_msg_createContainer(_velClient_msg *msg, int bufInfoIndex,
                                                      _velClient_container **container_p, std::uint32_t size,
                                                      _velClient_containerType cType);
/* Opens the structured data held in part 0, 7 or 10 as a new outermost container. */
velClient_returnCode_t _velClient_msg_getField(_velClient_msg *msg, int bufInfoIndex, velClient_field_t *field_p,
                                               std::size_t fieldSize);
/* Close and/or finalise (see the container writer). */
velClient_returnCode_t _velClient_container_closeMapStream(_velClient_container **container_p, bool close,
                                                           bool force, bool makeReadOnly);
/* The forced close of a message's open container (*slot, the message's own
 * pointer): _velClient_container_closeMapStream(slot, true, true, false). */
void _velClient_container_closeForGood(_velClient_container **slot);
/* Makes requiredSpace bytes of room at bufWrPtr (negative: removes), growing
 * a message container into a larger block when needed. */
velClient_returnCode_t _velClient_container_growData(_velClient_container *container_p, std::uint8_t *bufWrPtr,
                                                     std::int32_t requiredSpace, int adjWrPtr);
/* Gives k's reserved room that it has not written back to its parent (a
 * child's extent then ends at its written bytes). */
velClient_returnCode_t _velClient_container_giveBackRoom(_velClient_container *k);
/* Gives back the room that the open sub-containers of c's tree (c's outermost
 * container and every open container under it) reserved and have not written:
 * each keeps its bytes, stays open and declares only what it holds. */
void _velClient_container_returnUnusedRoom(_velClient_container *c);
/* Re-bases a child and its descendants after their bytes moved. */
void _velClient_modContainerPtrs(_velClient_container *cont_p, std::uint8_t *start_p, std::int32_t adjustment);
/* The open child of parent whose type byte is at start_p (reference count
 * raised), or a new child container over the map or stream there. */
velClient_returnCode_t _velClient_container_getSubContainer(_velClient_container *parent, std::uint8_t *start_p,
                                                            _velClient_container **child_p);

/* True when the tree around c holds together: every container's positions
 * in order, every child inside its parent's written bytes, at its recorded
 * offset and clear of its siblings, an open child's header declaring its
 * reserved extent, the outermost container inside its part. For assert only. */
bool _velClient_container_treeIsSound(const _velClient_container *c);
namespace vel::msg {
/* The invariants of a message: every part in a data block lies inside it,
 * and the trees of its open containers hold (for assert). */
bool isSound(const _velClient_msg *msg);
} // namespace vel::msg

/* ==================================================================== */
/* Reading                                                               */
/* ==================================================================== */

/* Reads the next field (map: name and value) and moves the cursor onto it. */
velClient_returnCode_t _velClient_container_readNextField(_velClient_container *cont, velClient_field_t *field_p,
                                                          const char **name_p);
/* Reads the next field like _velClient_container_readNextField but leaves a
 * map or stream value without a sub-container (value.map is nullptr). */
velClient_returnCode_t _velClient_container_readNextValue(_velClient_container *cont, velClient_field_t *field_p);
/* Gives the map or stream value just read (at the cursor) its sub-container handle. */
velClient_returnCode_t _velClient_container_attachSubContainer(_velClient_container *cont, velClient_field_t *field_p);
/* First entry of a map with that name; moves the cursor. */
velClient_returnCode_t _velClient_container_getFieldAndTypeByName(_velClient_container *cont, const char *name_p,
                                                                  velClient_field_t *field_p);

/* ==================================================================== */
/* Handle resolution: the one place a bad handle is recorded            */
/* ==================================================================== */
namespace vel {

/* The number an application passed in an enumeration, read without assuming
 * it is one of the enumerators (hostile input may hold anything). */
template <typename E>
inline std::int64_t enumValue(const E &e) noexcept
{
    std::underlying_type_t<E> v;
    std::memcpy(&v, &e, sizeof v);
    return static_cast<std::int64_t>(v);
}

/* Stores any number into an enumeration without an out-of-range conversion. */
template <typename E>
inline void setEnumValue(E &e, std::int64_t value) noexcept
{
    auto v = static_cast<std::underlying_type_t<E>>(value);
    std::memcpy(&e, &v, sizeof v);
}

inline _velClient_msg *msgOf(velClient_opaqueMsg_pt handle) noexcept
{
    return resolve<_velClient_msg>(handle, _MSG_PTR_TYPE);
}

inline _velClient_container *containerOf(velClient_opaqueContainer_pt handle) noexcept
{
    return resolve<_velClient_container>(handle, _CONTAINER_PTR_TYPE);
}

/* Records badHandleFormat (whose optional %p receives the handle) as
 * PARAM_NULL_PTR, warning: the failure of a handle that did not resolve. */
[[gnu::cold]] void recordBadHandle(const void *handle, HandleFormat badHandleFormat);

/* The record behind handle, or nullptr after recording badHandleFormat. */
inline _velClient_msg *msgOrFail(velClient_opaqueMsg_pt handle, HandleFormat badHandleFormat)
{
    _velClient_msg *msg = msgOf(handle);
    if (__builtin_expect(msg == nullptr, 0))
        recordBadHandle(handle, badHandleFormat);
    return msg;
}

inline _velClient_container *containerOrFail(velClient_opaqueContainer_pt handle, HandleFormat badHandleFormat)
{
    _velClient_container *cont = containerOf(handle);
    if (__builtin_expect(cont == nullptr, 0))
        recordBadHandle(handle, badHandleFormat);
    return cont;
}

/* The record behind a handle for a call that also takes a pointer to write
 * to: nullptr after recording the bad handle, or else the null pointer. */
template <typename Record, typename Handle>
inline Record *withOut(Record *(*resolve)(Handle, HandleFormat), Handle handle, const void *out,
                       HandleFormat badHandleFormat, Format<> nullOut)
{
    Record *record = resolve(handle, badHandleFormat);
    if (record != nullptr && out == nullptr) {
        VEL_STORE_F(VELCLIENT_SUBCODE_PARAM_NULL_PTR, VELCLIENT_LOG_WARNING, nullOut);
        return nullptr;
    }
    return record;
}

inline _velClient_msg *msgWithOut(velClient_opaqueMsg_pt handle, const void *out, HandleFormat badHandleFormat,
                                  Format<> nullOut)
{
    return withOut(msgOrFail, handle, out, badHandleFormat, nullOut);
}

/* An export that reads through get: the message behind handle and a good
 * out-pointer (recording what is wrong with either), then get(msg, out). */
template <typename T, typename Get>
inline velClient_returnCode_t readThrough(velClient_opaqueMsg_pt handle, T *out, Get get, HandleFormat badHandleFormat,
                                          Format<> nullOut)
{
    _velClient_msg *msg = msgWithOut(handle, out, badHandleFormat, nullOut);
    return msg == nullptr ? VELCLIENT_FAIL : get(msg, out);
}

inline _velClient_container *containerWithOut(velClient_opaqueContainer_pt handle, const void *out,
                                              HandleFormat badHandleFormat, Format<> nullOut)
{
    return withOut(containerOrFail, handle, out, badHandleFormat, nullOut);
}

} // namespace vel
