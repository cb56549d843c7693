/*
 * containerDelete.cpp - removing every entry of a given name from a map.
 * The bytes after an entry move down over it and the open children behind it
 * are re-based; a child opened on the removed value is closed first (on the
 * map's last entry too: left open, it would write into room the map takes
 * back); a shared
 * (read-only) map is first given bytes of its own. The walk never reads at or
 * past the map's write position.
 */
#include <cassert>
#include <cstring>

#include "velClientMsg/container/keptBytes.h"
#include "velClientMsg/message/recordApi.h"
#include "velClientMsg/container/tlvCodec.h"
#include "velClientMsg/velClientMsgPrivate.h"

namespace {

using namespace vel::tlv;

constexpr const char *kPastEnd = "Invalid entry in structured data map in velClient_container_deleteField";

velClient_returnCode_t malformed(const char *text)
{
    return VEL_FAIL(VELCLIENT_SUBCODE_COMMUNICATION_ERROR, VELCLIENT_LOG_ERROR, "%s", text);
}

/* One decoded entry of the map: where it starts, its name and its size. */
struct Entry {
    std::uint8_t *at = nullptr;
    std::uint32_t keyLen = 0;
    std::uint32_t size = 0; /* name field + value field */
    const char *name = nullptr;
    std::uint8_t *value() const { return at + keyLen; }
};

/* A delete's text for what is wrong with the entry. */
const char *deleteFaultText(Fault fault)
{
    switch (fault) {
    case Fault::keyNotString: return "Invalid type in TLV string in structured data container";
    case Fault::keyShort:
    case Fault::keyNotText: return "Invalid length in TLV string in structured data container";
    case Fault::valueBad: return "Invalid entry in structured data TLV";
    default: return kPastEnd;
    }
}

/* Decodes the entry at pos (pos < end); records the failure and returns false
 * when it is malformed. */
bool readEntry(std::uint8_t *pos, const std::uint8_t *end, Entry &e)
{
    vel::tlv::Entry decoded;
    if (Fault fault = decodeEntry(pos, end, decoded); fault != Fault::none)
        return malformed(deleteFaultText(fault)), false;
    e.at = pos;
    e.keyLen = decoded.keyLength;
    e.size = decoded.keyLength + decoded.valueLength;
    e.name = decoded.name;
    return true;
}

/* The first open child of c that starts exactly at p, or nullptr. */
_velClient_container *childAt(const _velClient_container *c, const std::uint8_t *p)
{
    for (_velClient_container *k = c->child_p; k != nullptr; k = k->sib_p)
        if (k->startPtr == p)
            return k;
    return nullptr;
}

/* Closes the open child on a removed entry's value, the map's last entry
 * included: a child left open there would keep writing into room the map
 * takes back. Closing hands the child's unused room back, which shrinks the
 * entry and may move the map's bytes, so the entry is found again at its
 * offset and decoded again. */
bool closeChildOn(_velClient_container *c, Entry &e)
{
    _velClient_container *child = childAt(c, e.value());
    if (child == nullptr)
        return true;
    VEL_LOG(VELCLIENT_LOG_INFO, "subcontainer %d closed due to field deletion",
            static_cast<int>(reinterpret_cast<std::uintptr_t>(child->opaqueContainer_p)));
    const std::ptrdiff_t at = e.at - c->startPtr;
    /* Forced: whoever else holds it, its bytes are about to go. */
    if (_velClient_container_closeMapStream(&child, true, true, false) != VELCLIENT_OK)
        return false;
    return readEntry(c->startPtr + at, c->curWrPtr, e);
}

/* Removes entry e (which ends before or at curWrPtr) from c. */
bool removeEntry(_velClient_container *c, Entry &e)
{
    if (!closeChildOn(c, e))
        return false;
    if (e.at + e.size < c->curWrPtr) {
        std::uint8_t *after = e.at + e.size;
        std::memmove(e.at, after, static_cast<std::size_t>(c->curWrPtr - after));
        for (_velClient_container *k = c->child_p; k != nullptr; k = k->sib_p)
            if (k->startPtr >= after)
                _velClient_modContainerPtrs(k, c->startPtr, -static_cast<std::int32_t>(e.size));
    }
    c->curWrPtr -= e.size;
    forgetCheckedEntries(c);
    if (c->curRdPtr >= e.at + e.size) {
        c->curRdPtr -= e.size;
    } else if (c->curRdPtr >= e.at) {
        /* The entry last read is gone, or the cursor stood inside it (growth
         * at the cursor moves it with the bytes): the next read is the entry
         * now in its place. */
        c->curRdPtr = e.at;
        c->curFieldLength = 0;
        c->curKeyLength = 0;
    }
    if (c->msg_b != nullptr)
        c->msg_b->internalFlags |= _VELCLIENT_MSG_FLAG_MODIFIED; /* the cached wire image is stale */
    return true;
}

/* Gives a read-only map bytes of its own by growing it one byte at the end of
 * entry e; the extra byte then belongs to the entry and goes with it. */
bool makeWritable(_velClient_container *c, Entry &e)
{
    std::ptrdiff_t at = e.at - c->startPtr;
    if (_velClient_container_growData(c, e.at + e.size, 1, 1) != VELCLIENT_OK)
        return false;
    e.at = c->startPtr + at;
    ++e.size;
    return true;
}

/* True when c or an enclosing container shares its bytes with another
 * message (read-only until given bytes of its own). */
bool sharedBytes(const _velClient_container *c)
{
    for (; c != nullptr; c = c->parent_p)
        if (c->copyOnModify)
            return true;
    return false;
}

velClient_returnCode_t deleteByName(_velClient_container *c, const char *name_p)
{
    /* A name read from this map moves with the bytes it names: keep a copy. */
    const void *name = name_p;
    vel::KeptBytes kept;
    if (!kept.keep(c, {vel::Borrowed{name, std::strlen(name_p) + 1}}))
        return VEL_FAIL(VELCLIENT_SUBCODE_OUT_OF_MEMORY, VELCLIENT_LOG_ERROR,
                        "Unable to allocate memory for the name in "
                        "velClient_container_deleteField");
    name_p = static_cast<const char *>(name);
    if (c->curRdPtr == nullptr) {
        /* Reading has not started: the cursor stands before the first field. */
        c->curRdPtr = c->firstFieldPtr;
        c->curFieldLength = 0;
        c->curKeyLength = 0;
    }
    std::uint8_t *pos = c->firstFieldPtr;
    while (pos < c->curWrPtr) {
        Entry e;
        if (!readEntry(pos, c->curWrPtr, e))
            return VELCLIENT_FAIL;
        if (e.name == nullptr || std::strcmp(e.name, name_p) != 0) {
            pos += e.size;
            continue;
        }
        if (sharedBytes(c) && !makeWritable(c, e))
            return VELCLIENT_FAIL;
        if (!removeEntry(c, e))
            return VELCLIENT_FAIL;
        pos = e.at; /* the next entry now starts where this one did */
    }
    assert(_velClient_container_treeIsSound(c));
    return VELCLIENT_OK;
}

} // namespace

extern "C" VELCLIENT_API velClient_returnCode_t velClient_container_deleteField(velClient_opaqueContainer_pt opaqueCont_p,
                                                                              const char *name_p)
{
    _velClient_container *c = vel::containerOrFail(opaqueCont_p, "Bad Container (%p) in velClient_container_deleteField");
    return c == nullptr ? VELCLIENT_FAIL : vel::container::deleteField(c, name_p);
}

velClient_returnCode_t vel::container::deleteField(_velClient_container *c, const char *name_p)
{
    if (name_p == nullptr || name_p[0] == '\0')
        return VEL_FAIL_NULL("Null or Empty Name pointer in velClient_container_deleteField");
    if (c->type != VELCLIENT_CONTAINER_MAP)
        return VEL_FAIL_RANGE("velClient_container_deleteField called on a Stream");
    return deleteByName(c, name_p);
}
