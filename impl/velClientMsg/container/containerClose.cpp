/*
 * containerClose.cpp - finalising and closing containers: children first,
 * handing a child's unused reserved space back to its parent, writing the
 * final length into the header and into the message part, making a
 * container read-only for sharing, and returning the record to the pool.
 */
#include <cassert>

#include "velClientMsg/container/tlvCodec.h"
#include "velClientMsg/velClientMsgPrivate.h"

namespace {

void unlinkFromParent(_velClient_container *c)
{
    _velClient_container **link = &c->parent_p->child_p;
    while (*link != nullptr && *link != c)
        link = &(*link)->sib_p;
    if (*link == c)
        *link = c->sib_p;
    c->sib_p = nullptr;
}

/* The message's pointer to this (outermost) container, if it has one. */
_velClient_container **messageSlot(_velClient_container *c)
{
    _velClient_msg *msg = c->msg_b;
    switch (c->bufInfoIndex) {
    case VELCLIENT_BUFINFO_BINARY_ATTACHMENT_PART: return &msg->binaryAttachContainer_p;
    case VELCLIENT_BUFINFO_USER_PROPERTY_PART: return &msg->userPropertyMap_p;
    default:
        return static_cast<int>(c->bufInfoIndex) == _VELCLIENT_BUFINFO_HDR_MAP_PART ? &msg->hdrMap_p : nullptr;
    }
}

void writeLength(_velClient_container *c, std::uint32_t len)
{
    vel::tlv::putBE(c->startPtr + 1, len, 4);
}

/* Closes or finalises every open child, in list order. */
bool closeChildren(_velClient_container *c, bool close, bool makeReadOnly)
{
    bool ok = true;
    _velClient_container *child = c->child_p;
    while (child != nullptr) {
        _velClient_container *next = child->sib_p;
        _velClient_container *self = child;
        /* A parent that really closes takes its children with it. */
        if (_velClient_container_closeMapStream(&self, close, close, makeReadOnly) != VELCLIENT_OK)
            ok = false;
        child = next;
    }
    return ok;
}

/* Hands back a child's unused reserved space and fixes its length. */
velClient_returnCode_t finaliseChild(_velClient_container *c, bool close)
{
    if (c->curWrPtr > c->maxWrPtr)
        return VEL_FAIL(VELCLIENT_SUBCODE_INTERNAL_ERROR, VELCLIENT_LOG_ERROR,
                        "Bad container size in velClient_container_closeMapStream");
    if (_velClient_container_giveBackRoom(c) != VELCLIENT_OK)
        return VELCLIENT_FAIL;
    if (close)
        unlinkFromParent(c);
    if (!close || c->msg_b != nullptr)
        writeLength(c, static_cast<std::uint32_t>(c->curWrPtr - c->startPtr));
    return VELCLIENT_OK;
}

void finaliseInMessage(_velClient_container *c, bool close)
{
    auto len = static_cast<std::uint32_t>(c->curWrPtr - c->startPtr);
    c->msg_b->bufInfo_a[c->bufInfoIndex].bufSize = c->offset + len;
    if (close) {
        _velClient_container **slot = messageSlot(c);
        if (slot != nullptr && *slot == c)
            *slot = nullptr;
    }
    writeLength(c, len);
}

/* Whatever failed, a really closed record leaves no pointer behind. */
void detach(_velClient_container *c)
{
    if (c->parent_p != nullptr && c->parent_p->child_p != nullptr)
        unlinkFromParent(c);
    if (c->parent_p == nullptr && c->msg_b != nullptr) {
        _velClient_container **slot = messageSlot(c);
        if (slot != nullptr && *slot == c)
            *slot = nullptr;
    }
}

/* A message's outermost container over bytes it shares (it copies them
 * before any change), with no open child, has nothing to write back when the
 * part's size and the length in its header are already what finalising
 * would write: closing it only forgets it. */
bool unchangedInMessage(const _velClient_container *c)
{
    if (!c->copyOnModify || c->child_p != nullptr || c->parent_p != nullptr || c->msg_b == nullptr)
        return false;
    auto len = static_cast<std::uint32_t>(c->curWrPtr - c->startPtr);
    return c->msg_b->bufInfo_a[c->bufInfoIndex].bufSize == c->offset + len &&
           vel::tlv::getBE(c->startPtr + 1, 4) == len;
}

} // namespace

velClient_returnCode_t _velClient_container_closeMapStream(_velClient_container **container_p, bool close, bool force,
                                                           bool makeReadOnly)
{
    _velClient_container *c = *container_p;
    if (c == nullptr)
        return VELCLIENT_OK;
    if (close) {
        if (force)
            c->refCount = 0;
        else if (--c->refCount >= 1)
            return VELCLIENT_OK;
        if (c->refCount < 0)
            VEL_LOG(VELCLIENT_LOG_ERROR, "Negative refCount in %s on index %d",
                    c->type == VELCLIENT_CONTAINER_MAP ? "Map" : "Stream", static_cast<int>(c->bufInfoIndex));
    }
    if (close && !makeReadOnly && unchangedInMessage(c)) {
        detach(c);
        _velClient_container_free(&c);
        *container_p = nullptr;
        return VELCLIENT_OK;
    }
    velClient_returnCode_t rc = closeChildren(c, close, makeReadOnly) ? VELCLIENT_OK : VELCLIENT_FAIL;
    if (rc == VELCLIENT_OK) {
        if (c->parent_p != nullptr)
            rc = finaliseChild(c, close);
        else if (c->msg_b != nullptr)
            finaliseInMessage(c, close);
        else if (!close)
            writeLength(c, static_cast<std::uint32_t>(c->curWrPtr - c->startPtr));
    }
    if (makeReadOnly) {
        c->copyOnModify = true;
        c->maxWrPtr = c->curWrPtr;
    }
    if (close) {
        /* container_p may be the message's own pointer, which detach clears. */
        [[maybe_unused]] _velClient_container *parent = c->parent_p;
        detach(c);
        _velClient_container_free(&c);
        *container_p = nullptr;
        assert(_velClient_container_treeIsSound(parent));
    } else {
        assert(_velClient_container_treeIsSound(c));
    }
    return rc;
}

/* A container over shared bytes that it left unchanged goes back at once,
 * out of the general close's frame; any other takes the general close. */
void _velClient_container_closeForGood(_velClient_container **slot)
{
    _velClient_container *c = *slot;
    if (!unchangedInMessage(c)) {
        _velClient_container_closeMapStream(slot, true, true, false);
        return;
    }
    /* An outermost container: *slot, the message's pointer to it, is all
     * there is to detach. */
    c->refCount = 0;
    *slot = nullptr;
    _velClient_container_free(&c);
}

extern "C" VELCLIENT_API velClient_returnCode_t velClient_container_closeMapStream(
    velClient_opaqueContainer_pt *opaqueCont_p)
{
    if (opaqueCont_p == nullptr)
        return VEL_FAIL_NULL("Null reference to container pointer in velClient_container_closeMapStream");
    _velClient_container *c =
        vel::containerOrFail(*opaqueCont_p, "Bad container pointer (%p) in velClient_container_closeMapStream");
    if (c == nullptr)
        return VELCLIENT_FAIL;
    *opaqueCont_p = nullptr;
    if (c->refCount == 1 && c->parent_p == nullptr && c->msg_b == nullptr && c->child_p == nullptr) {
        /* The usual map over the application's bytes, held once and with no
         * open child: nothing to finalise or detach, the record goes back. */
        c->refCount = 0;
        _velClient_container_free(&c);
        return VELCLIENT_OK;
    }
    return _velClient_container_closeMapStream(&c, true, false, false);
}
