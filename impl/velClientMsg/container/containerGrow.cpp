/*
 * containerGrow.cpp - making room in (or taking bytes out of) a container and
 * keeping every open container of the same tree pointing at its bytes: in
 * place when the outermost container has room, otherwise by moving the whole
 * tree into a larger data block of the message.
 *
 * Every container of the tree is re-based from the old positions in one pass:
 * a position at or after the growth point moves by n, one before it keeps its
 * distance from the start of the bytes. Offsets of children are recomputed
 * from the new positions, so a re-base never moves a container twice.
 */
#include <algorithm>
#include <cassert>
#include <cstring>

#include "velClientMsg/memory/poolThreadState.h"
#include "velClientMsg/container/tlvCodec.h"
#include "velClientMsg/velClientMsgPrivate.h"

namespace {

/* Where old bytes of the tree now are: bytes before w keep their distance
 * from the (possibly new) base, bytes from w on are n further. */
struct Move {
    std::uint8_t *oldBase;
    std::uint8_t *newBase;
    std::uint8_t *w;
    std::int32_t n;

    std::uint8_t *map(std::uint8_t *p, bool shifted) const
    {
        if (p == nullptr)
            return nullptr;
        return newBase + (p - oldBase) + (shifted ? n : 0);
    }
};

_velClient_container *outermost(_velClient_container *c)
{
    while (c->parent_p != nullptr)
        c = c->parent_p;
    return c;
}

bool onPath(const _velClient_container *k, const _velClient_container *c)
{
    for (; c != nullptr; c = c->parent_p)
        if (c == k)
            return true;
    return false;
}

void writeLength(_velClient_container *k)
{
    vel::tlv::putBE(k->startPtr + 1, static_cast<std::uint64_t>(k->maxWrPtr - k->startPtr), 4);
}

/* A container on the path from the grown one to the outermost. */
void rebaseOnPath(_velClient_container *k, const Move &m, bool adj, bool isRoot, bool inPlace, std::uint8_t *newEnd)
{
    std::uint8_t *w = m.w;
    bool curShift = k->curWrPtr > w || (k->curWrPtr == w && adj) || (isRoot && inPlace);
    /* A cursor resting at the end of the written bytes stays there, so that
     * what is added next is read next, whether or not the add had to grow. */
    bool rdShift = k->curRdPtr == k->curWrPtr ? curShift : k->curRdPtr >= w;
    if (k->curRdPtr != nullptr && k->curRdPtr < w && adj && k->curRdPtr + k->curFieldLength >= w)
        k->curFieldLength = static_cast<std::uint32_t>(static_cast<std::int64_t>(k->curFieldLength) + m.n);
    k->curRdPtr = m.map(k->curRdPtr, k->curRdPtr != nullptr && rdShift);
    k->curWrPtr = m.map(k->curWrPtr, curShift);
    if (isRoot)
        k->maxWrPtr = inPlace ? m.map(k->maxWrPtr, false) : newEnd;
    else
        k->maxWrPtr = m.map(k->maxWrPtr, true);
    k->startPtr = m.map(k->startPtr, false);
    k->firstFieldPtr = k->startPtr + vel::tlv::kContainerHeaderSize;
    forgetCheckedEntries(k); /* bytes moved inside it */
}

/* Any other container of the tree: it moves whole, or not at all. */
void rebaseWhole(_velClient_container *k, const Move &m)
{
    bool shifted = m.w <= k->startPtr;
    k->curRdPtr = m.map(k->curRdPtr, shifted);
    k->curWrPtr = m.map(k->curWrPtr, shifted);
    k->maxWrPtr = m.map(k->maxWrPtr, shifted);
    k->startPtr = m.map(k->startPtr, shifted);
    k->firstFieldPtr = k->startPtr + vel::tlv::kContainerHeaderSize;
}

/* Re-bases k and its descendants (children first, since they compare their
 * own old positions). */
void rebaseTree(_velClient_container *k, _velClient_container *grown, const Move &m, int adjWrPtr, bool inPlace,
                std::uint8_t *newEnd)
{
    for (_velClient_container *child = k->child_p; child != nullptr; child = child->sib_p)
        rebaseTree(child, grown, m, adjWrPtr, inPlace, newEnd);
    if (onPath(k, grown))
        rebaseOnPath(k, m, k == grown ? adjWrPtr != 0 : true, k->parent_p == nullptr, inPlace, newEnd);
    else
        rebaseWhole(k, m);
    k->copyOnModify = false;
}

void fixOffsetsAndLengths(_velClient_container *k, _velClient_container *grown)
{
    for (_velClient_container *child = k->child_p; child != nullptr; child = child->sib_p) {
        child->offset = static_cast<std::uint32_t>(child->startPtr - k->startPtr);
        fixOffsetsAndLengths(child, grown);
    }
    if (k->parent_p != nullptr && onPath(k, grown))
        writeLength(k);
}

velClient_returnCode_t noRoom()
{
    return VEL_FAIL(VELCLIENT_SUBCODE_INSUFFICIENT_SPACE, VELCLIENT_LOG_WARNING,
                    "Unable to add more structured data to container memory");
}

/* Moves the whole tree of root into a new block of the message with n more
 * bytes at w. Returns the new start of root, or nullptr (nothing changed). */
std::uint8_t *reallocate(_velClient_container *root, std::uint8_t *w, std::int32_t n, std::uint8_t **newEnd)
{
    _velClient_msg *msg = root->msg_b;
    int part = root->bufInfoIndex;
    std::uint8_t *blockStart = root->startPtr - root->offset;
    std::uint64_t used = static_cast<std::uint64_t>(root->maxWrPtr - root->startPtr) + root->offset;
    std::uint64_t want = std::max<std::uint64_t>(used + static_cast<std::uint64_t>(n), 4 * used);
    if (used + static_cast<std::uint64_t>(n) > 0xFFFFFFF0u)
        return nullptr;
    want = std::min<std::uint64_t>(want, 0xFFFFFFF0u);
    _velClient_datab *fresh = nullptr;
    if (_velClient_datablock_alloc(&fresh, static_cast<std::uint32_t>(want)) != VELCLIENT_OK)
        return nullptr;
    std::memcpy(fresh->dbData_p, blockStart, static_cast<std::size_t>(w - blockStart));
    std::memcpy(fresh->dbData_p + (w - blockStart) + n, w, static_cast<std::size_t>(root->maxWrPtr - w));
    _velClient_datab *old = msg->bufDatab_p[part];
    msg->bufDatab_p[part] = fresh;
    msg->bufInfo_a[part] = velClient_bufInfo_t{fresh->dbData_p, static_cast<std::uint32_t>(used + n)};
    msg->internalFlags |= _VELCLIENT_MSG_FLAG_MODIFIED;
    vel::pool::bump(vel::pool::myCounters().msgReallocs);
    if (old != nullptr)
        VEL_DATAB_RELEASE(old);
    *newEnd = fresh->dbData_p + fresh->dbSize;
    return fresh->dbData_p + root->offset;
}

} // namespace

velClient_returnCode_t _velClient_container_growData(_velClient_container *c, std::uint8_t *w, std::int32_t n,
                                                     int adjWrPtr)
{
    if (n > 0 && c->msg_b == nullptr)
        return noRoom();
    _velClient_container *root = outermost(c);
    bool inPlace = w <= root->curWrPtr && root->maxWrPtr > root->curWrPtr + n;
    std::uint8_t *newStart = root->startPtr;
    std::uint8_t *newEnd = root->maxWrPtr;
    if (inPlace) {
        std::memmove(w + n, w, static_cast<std::size_t>(root->curWrPtr - w));
    } else if (root->msg_b == nullptr || (newStart = reallocate(root, w, n, &newEnd)) == nullptr) {
        return noRoom();
    }
    Move m{root->startPtr, newStart, w, n};
    rebaseTree(root, c, m, adjWrPtr, inPlace, newEnd);
    fixOffsetsAndLengths(root, c);
    assert(_velClient_container_treeIsSound(root));
    return VELCLIENT_OK;
}

velClient_returnCode_t _velClient_container_giveBackRoom(_velClient_container *k)
{
    if (k->curWrPtr >= k->maxWrPtr)
        return VELCLIENT_OK;
    return _velClient_container_growData(k, k->maxWrPtr, static_cast<std::int32_t>(k->curWrPtr - k->maxWrPtr), 1);
}

namespace {

void returnRoomUnder(_velClient_container *c)
{
    for (_velClient_container *k = c->child_p; k != nullptr; k = k->sib_p) {
        returnRoomUnder(k);
        _velClient_container_giveBackRoom(k); /* in place: taking bytes out cannot fail */
    }
}

} // namespace

void _velClient_container_returnUnusedRoom(_velClient_container *c)
{
    returnRoomUnder(outermost(c));
}

void _velClient_modContainerPtrs(_velClient_container *k, std::uint8_t *start_p, std::int32_t adjustment)
{
    std::uint8_t *oldStart = k->startPtr;
    k->offset = static_cast<std::uint32_t>(static_cast<std::int64_t>(k->offset) + adjustment);
    std::uint8_t *newStart = start_p + k->offset;
    Move m{oldStart, newStart, nullptr, 0};
    auto keep = [&](std::uint8_t *p) { return m.map(p, false); };
    /* Descendants keep their distance from k, so their own offsets stay. */
    for (_velClient_container *child = k->child_p; child != nullptr; child = child->sib_p)
        _velClient_modContainerPtrs(child, newStart, 0);
    k->curRdPtr = keep(k->curRdPtr);
    k->curWrPtr = keep(k->curWrPtr);
    k->maxWrPtr = keep(k->maxWrPtr);
    k->startPtr = newStart;
    k->firstFieldPtr = newStart + vel::tlv::kContainerHeaderSize;
    k->copyOnModify = false;
}
