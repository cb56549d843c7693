/*
 * msgLifecycle.cpp - the life of a message record: allocation with its
 * handle, release, reset to the fresh state, duplication that shares data
 * blocks, and duplication that copies parts held in application memory.
 */
#include <cassert>
#include <cstring>
#include <utility>

#include "velClientMsg/memory/blockSteps.h"
#include "velClientMsg/message/recordApi.h"

namespace {

using namespace vel::pool;

/* Read-only mark of each part that a container may be opened on; 0 for the others. */
constexpr std::uint32_t readOnlyFlagOf(int part) noexcept
{
    switch (part) {
    case VELCLIENT_BUFINFO_BINARY_ATTACHMENT_PART: return _VELCLIENT_MSG_FLAG_ATTACHMENT_READONLY;
    case VELCLIENT_BUFINFO_USER_PROPERTY_PART: return _VELCLIENT_MSG_FLAG_USER_PROPS_READONLY;
    case _VELCLIENT_BUFINFO_BINARY_META_PART: return _VELCLIENT_MSG_FLAG_META_READONLY;
    case _VELCLIENT_BUFINFO_HDR_MAP_PART: return _VELCLIENT_MSG_FLAG_HDR_MAP_READONLY;
    default: return 0;
    }
}

/* dropPartBlock for a block with more than one holder: the later slots
 * that hold the same block are emptied and their references dropped with
 * this one, in one step. One instance per slot, so that the later slots
 * are known when it is compiled. */
template <int part>
[[gnu::noinline]] void dropSharedPartBlock(ThreadState &me, _velClient_datab **slots, _velClient_datab *db,
                                           bool underLimitKnown)
{
    std::int32_t refs = 1;
    for (int later = part + 1; later < _VELCLIENT_BUFINFO_NUM_PARTS; ++later) {
        if (slots[later] == db) {
            ++refs;
            slots[later] = nullptr;
        }
    }
    dropBlockRefsFrom(me, db, __atomic_load_n(&db->dbRefCount, __ATOMIC_ACQUIRE), refs, __FILE__, __LINE__,
                      underLimitKnown);
}

/* Drops the references of the block in slot part and of every later slot
 * that holds the same block, and empties those slots. A block holding one
 * reference is in no other slot: the usual case, inline. */
template <int part>
[[gnu::always_inline]] inline void dropPartBlock(ThreadState &me, _velClient_datab **slots, bool underLimitKnown)
{
    _velClient_datab *db = slots[part];
    slots[part] = nullptr;
    const std::int32_t before = __atomic_load_n(&db->dbRefCount, __ATOMIC_ACQUIRE);
    if (before == 1)
        dropBlockRefsFrom(me, db, before, 1, __FILE__, __LINE__, underLimitKnown);
    else
        dropSharedPartBlock<part>(me, slots, db, underLimitKnown);
}

/* Drops the block references of slots pair and pair + 1 and empties them;
 * most pairs are empty and cost one test. */
template <int pair>
[[gnu::always_inline]] inline void dropPair(ThreadState &me, _velClient_datab **slots, bool underLimitKnown)
{
    if ((reinterpret_cast<std::uintptr_t>(slots[pair]) | reinterpret_cast<std::uintptr_t>(slots[pair + 1])) == 0)
        return;
    if (slots[pair] != nullptr)
        dropPartBlock<pair>(me, slots, underLimitKnown);
    if (slots[pair + 1] != nullptr)
        dropPartBlock<pair + 1>(me, slots, underLimitKnown);
}

/* Drops every part's block reference and empties the slots: the pairs in a
 * row without a loop, for the free of every message. */
template <std::size_t... Pair>
[[gnu::always_inline]] inline void dropAllBlocks(ThreadState &me, _velClient_msg *msg, bool underLimitKnown,
                                                 std::index_sequence<Pair...>)
{
    (dropPair<static_cast<int>(2 * Pair)>(me, msg->bufDatab_p, underLimitKnown), ...);
}

[[gnu::always_inline]] inline void dropAllBlocks(ThreadState &me, _velClient_msg *msg, bool underLimitKnown)
{
    static_assert(_VELCLIENT_BUFINFO_NUM_PARTS % 2 == 0, "slots are tested two at a time");
    dropAllBlocks(me, msg, underLimitKnown, std::make_index_sequence<_VELCLIENT_BUFINFO_NUM_PARTS / 2>{});
}

/* Copies msg over copy, without list link or open containers. */
void cloneInto(const _velClient_msg *msg, _velClient_msg *copy)
{
    vel::pool::copyRecord(copy, msg);
    copy->userPropertyMap_p = nullptr;
    copy->hdrMap_p = nullptr;
    copy->binaryAttachContainer_p = nullptr;
}

/* A handle for a new record, or the out-of-memory failure of msg_alloc. */
velClient_opaqueMsg_pt issueHandle(_velClient_msg *msg)
{
    void *handle = vel::handles::issue(msg, _MSG_PTR_TYPE);
    if (handle == nullptr)
        VEL_STORE(VELCLIENT_SUBCODE_OUT_OF_MEMORY, VELCLIENT_LOG_CRITICAL,
                  "Could not allocate pointer for new velClient_msg in velClient_msg_alloc");
    return handle;
}

/* Zeroes a record taken from the pool. Only freeing pools a message record,
 * and freeing empties every block slot, so those are zero already. */
inline void clearPooled(_velClient_msg *msg) noexcept
{
    constexpr std::size_t parts = offsetof(_velClient_msg, bufInfo_a);
    constexpr std::size_t slots = offsetof(_velClient_msg, bufDatab_p);
    constexpr std::size_t rest = offsetof(_velClient_msg, userPropertyMap_p);
    static_assert(parts == sizeof(_velClient_lifoEntry) && slots + sizeof msg->bufDatab_p == rest,
                  "the block slots lie between the parts and the rest of the record");
    for ([[maybe_unused]] const _velClient_datab *db : msg->bufDatab_p)
        assert(db == nullptr);
    auto *bytes = reinterpret_cast<unsigned char *>(msg);
    zeroBytes<slots - parts>(bytes + parts);
    zeroBytes<sizeof(_velClient_msg) - rest>(bytes + rest);
    __atomic_store_n(&msg->entry.next_p, nullptr, __ATOMIC_RELAXED);
}

/* The record of _velClient_msg_alloc, inline in the export. */
[[gnu::always_inline]] inline velClient_returnCode_t allocRecord(_velClient_msg **msg_p)
{
    ThreadState &me = local();
    _velClient_msg *msg = take<_velClient_msg>(me.msgs, _velClient_msgPool_s.freeMsgList, me.counters.numFreeMsg);
    if (msg != nullptr) {
        clearPooled(msg);
    } else if ((msg = obtain<_velClient_msg>(sizeof(_velClient_msg))) != nullptr) {
        clearRecord(msg);
    } else {
        *msg_p = nullptr;
        return VEL_FAIL(VELCLIENT_SUBCODE_OUT_OF_MEMORY, VELCLIENT_LOG_ERROR,
                        "velClient_msg_alloc, unable to allocate memory for velClient_msg");
    }
    bump(me.counters.msgAllocs);
    bump(me.counters.numAllocMsg);
    *msg_p = msg;
    return VELCLIENT_OK;
}

/* The release of _velClient_msg_free, inline in the export. */
[[gnu::always_inline]] inline velClient_returnCode_t freeRecord(_velClient_msg *msg)
{
    vel::msg::closeContainers(msg, true);
    ThreadState &me = local();
    /* Pooling changes no memory count: a pool under its limit now stays under
     * it for every block and the record (else each is tested on its own). */
    const bool pooling = underLimit();
    dropAllBlocks(me, msg, pooling);
    release(me.msgs, kRecordCacheCap, _velClient_msgPool_s.freeMsgList, &msg->entry, me.counters.numFreeMsg,
            sizeof(_velClient_msg), pooling);
    bump(me.counters.msgFrees);
    drop(me.counters.numAllocMsg);
    return VELCLIENT_OK;
}

} // namespace

velClient_returnCode_t vel::msg::issueHandle(_velClient_msg *msg, const char *caller)
{
    msg->opaqueMsg_p = vel::handles::issue(msg, _MSG_PTR_TYPE);
    if (msg->opaqueMsg_p == nullptr)
        return VEL_FAIL(VELCLIENT_SUBCODE_OUT_OF_MEMORY, VELCLIENT_LOG_CRITICAL,
                        "Could not allocate pointer for new velClient_msg in %s", caller);
    return VELCLIENT_OK;
}

velClient_returnCode_t _velClient_msg_alloc(_velClient_msg **msg_p)
{
    return allocRecord(msg_p);
}

velClient_returnCode_t _velClient_msg_free(_velClient_msg *msg)
{
    return freeRecord(msg);
}

velClient_returnCode_t _velClient_msg_dup(_velClient_msg *msg, _velClient_msg **newMsg_p)
{
    if (_velClient_msg_alloc(newMsg_p) != VELCLIENT_OK)
        return VELCLIENT_FAIL;
    for (_velClient_container **slot : {&msg->binaryAttachContainer_p, &msg->hdrMap_p, &msg->userPropertyMap_p})
        if (*slot != nullptr)
            _velClient_container_closeMapStream(slot, false, false, true);
    _velClient_msg *copy = *newMsg_p;
    cloneInto(msg, copy);
    for (int part = 0; part < _VELCLIENT_BUFINFO_NUM_PARTS; ++part) {
        if (msg->bufDatab_p[part] == nullptr)
            continue;
        _velClient_datablock_incRef(msg->bufDatab_p[part]);
        if (std::uint32_t mark = readOnlyFlagOf(part); mark != 0) {
            msg->internalFlags |= mark;
            copy->internalFlags |= mark;
            VEL_LOG(VELCLIENT_LOG_DEBUG, "velClient_msg_dup(%p, %p), readonly(%d)", static_cast<void *>(msg),
                    static_cast<void *>(copy), part);
        }
    }
    bump(myCounters().msgDups);
    return VELCLIENT_OK;
}

velClient_returnCode_t _velClient_msg_dupMsgWithCopy(_velClient_msg *msg, _velClient_msg **newMsg_p)
{
    if (_velClient_msg_alloc(newMsg_p) != VELCLIENT_OK)
        return VELCLIENT_FAIL;
    _velClient_msg *copy = *newMsg_p;
    cloneInto(msg, copy);
    /* Take every shared reference first, so that releasing the copy on a
     * failed byte copy below stays balanced. */
    for (int part = 0; part < _VELCLIENT_BUFINFO_NUM_PARTS; ++part) {
        if (copy->bufDatab_p[part] == nullptr)
            continue;
        _velClient_datablock_incRef(copy->bufDatab_p[part]);
        if (part != VELCLIENT_BUFINFO_BINARY_ATTACHMENT_PART)
            msg->internalFlags |= readOnlyFlagOf(part);
    }
    for (int part = 0; part < _VELCLIENT_BUFINFO_NUM_PARTS; ++part) {
        const velClient_bufInfo_t info = copy->bufInfo_a[part];
        if (copy->bufDatab_p[part] != nullptr || info.buf_p == nullptr || info.bufSize == 0)
            continue;
        copy->bufInfo_a[part] = velClient_bufInfo_t{nullptr, 0};
        if (_velClient_msg_setBufinfo(copy, part, info.buf_p, info.bufSize, 0) != VELCLIENT_OK) {
            _velClient_msg_free(copy);
            *newMsg_p = nullptr;
            return VELCLIENT_FAIL;
        }
    }
    bump(myCounters().msgDups);
    return VELCLIENT_OK;
}

extern "C" VELCLIENT_API velClient_returnCode_t velClient_msg_alloc(velClient_opaqueMsg_pt *msg_p)
{
    if (msg_p == nullptr)
        return VEL_FAIL_NULL("Null reference to msg_p pointer in velClient_msg_alloc");
    _velClient_msg *msg = nullptr;
    if (allocRecord(&msg) != VELCLIENT_OK) {
        *msg_p = nullptr;
        return VELCLIENT_FAIL;
    }
    velClient_opaqueMsg_pt handle = issueHandle(msg);
    if (handle == nullptr) {
        drop(myCounters().numAllocMsg);
        giveToSystem(msg, sizeof(_velClient_msg));
        *msg_p = nullptr;
        return VELCLIENT_FAIL;
    }
    msg->opaqueMsg_p = handle;
    *msg_p = handle;
    return VELCLIENT_OK;
}

extern "C" VELCLIENT_API velClient_returnCode_t velClient_msg_free(velClient_opaqueMsg_pt *msg_p)
{
    _velClient_msg *msg = vel::takeHandle(msg_p, _MSG_PTR_TYPE, vel::msgOrFail,
                                          "Null reference to msg_p pointer in velClient_msg_free",
                                          "Bad msg_p pointer (%p) in velClient_msg_free");
    return msg == nullptr ? VELCLIENT_FAIL : freeRecord(msg);
}

extern "C" VELCLIENT_API velClient_returnCode_t velClient_msg_reset(velClient_opaqueMsg_pt msg_p)
{
    _velClient_msg *msg = vel::msgOrFail(msg_p, "Bad msg_p pointer (%p) in velClient_msg_reset");
    if (msg == nullptr)
        return VELCLIENT_FAIL;
    vel::msg::closeContainers(msg, true);
    dropAllBlocks(local(), msg, false);
    for (velClient_bufInfo_t &info : msg->bufInfo_a)
        info = velClient_bufInfo_t{nullptr, 0};
    msg->binAttachmentType = 0;
    msg->internalFlags = _VELCLIENT_MSG_FLAG_MODIFIED;
    msg->cacheRequestId = 0;
    msg->timeToLive = 0;
    msg->expirationTime = 0;
    msg->msgInfo = velClient_session_rxCallbackInfo{};
    /* topicSeqNo is kept: a reset leaves the topic sequence number alone. */
    return VELCLIENT_OK;
}

extern "C" VELCLIENT_API velClient_returnCode_t velClient_msg_dup(velClient_opaqueMsg_pt msg_p,
                                                                 velClient_opaqueMsg_pt *newMsg_p)
{
    _velClient_msg *msg = vel::msgWithOut(msg_p, newMsg_p, "Bad msg_p pointer (%p) in velClient_msg_dup",
                                          "Null reference to newMsg_p pointer in velClient_msg_dup");
    if (msg == nullptr)
        return VELCLIENT_FAIL;
    _velClient_msg *copy = nullptr;
    if (_velClient_msg_dup(msg, &copy) != VELCLIENT_OK) {
        *newMsg_p = nullptr;
        return VELCLIENT_FAIL;
    }
    /* The duplicate's record keeps its source's opaqueMsg_p; only the caller gets the new handle. */
    velClient_opaqueMsg_pt handle = issueHandle(copy);
    if (handle == nullptr) {
        _velClient_msg_free(copy);
        *newMsg_p = nullptr;
        return VELCLIENT_FAIL;
    }
    *newMsg_p = handle;
    return VELCLIENT_OK;
}
