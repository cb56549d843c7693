/*
 * containerDelete.cpp - removing every entry of a given name from a map:
 * the bytes after an entry move down over it, open children behind it are
 * re-based, and a shared (read-only) container is first given bytes of its
 * own.
 */
#include <cstring>

#include "velClientMsg/tlvCodec.h"
#include "velClientMsg/velClientMsgPrivate.h"

namespace {

bool sharedBytes(const _velClient_container *c)
{
    for (; c != nullptr; c = c->parent_p)
        if (c->copyOnModify)
            return true;
    return false;
}

/* Removes size bytes at entry (an entry of c ending before curWrPtr or at it). */
void removeEntry(_velClient_container *c, std::uint8_t *entry, std::uint32_t size, std::uint8_t *value)
{
    std::uint8_t *after = entry + size;
    if (after < c->curWrPtr) {
        for (_velClient_container *k = c->child_p; k != nullptr; k = k->sib_p) {
            if (k->startPtr == value) {
                VEL_LOG(VELCLIENT_LOG_INFO, "subcontainer %d closed due to field deletion",
                        static_cast<int>(reinterpret_cast<std::uintptr_t>(k->opaqueContainer_p)));
                _velClient_container *self = k;
                _velClient_container_closeMapStream(&self, true, true, false);
                break;
            }
        }
        std::memmove(entry, after, static_cast<std::size_t>(c->curWrPtr - after));
        for (_velClient_container *k = c->child_p; k != nullptr; k = k->sib_p)
            if (k->startPtr >= after)
                _velClient_modContainerPtrs(k, c->startPtr, -static_cast<std::int32_t>(size));
    }
    c->curWrPtr -= size;
    if (c->curRdPtr != nullptr && c->curRdPtr > entry)
        c->curRdPtr -= size;
    if (c->msg_b != nullptr)
        c->msg_b->internalFlags |= _VELCLIENT_MSG_FLAG_MODIFIED; /* the cached wire image is stale */
}

} // namespace

extern "C" VELCLIENT_API velClient_returnCode_t velClient_container_deleteField(velClient_opaqueContainer_pt opaqueCont_p,
                                                                              const char *name_p)
{
    _velClient_container *c = vel::containerOrFail(opaqueCont_p, "Bad Container (%p) in velClient_container_deleteField");
    if (c == nullptr)
        return VELCLIENT_FAIL;
    if (name_p == nullptr || name_p[0] == '\0')
        return VEL_FAIL(VELCLIENT_SUBCODE_PARAM_NULL_PTR, VELCLIENT_LOG_WARNING,
                        "Null or Empty Name pointer in velClient_container_deleteField");
    if (c->type != VELCLIENT_CONTAINER_MAP)
        return VEL_FAIL(VELCLIENT_SUBCODE_PARAM_OUT_OF_RANGE, VELCLIENT_LOG_WARNING,
                        "velClient_container_deleteField called on a Stream");
    if (c->curRdPtr == nullptr)
        c->curRdPtr = c->firstFieldPtr;
    std::uint8_t *pos = c->firstFieldPtr;
    while (pos < c->curWrPtr) {
        velClient_field_t key{}, value{};
        std::int64_t keyLen = _velClient_tlv_decodeField(pos, c->curWrPtr, &key);
        if ((pos[0] & 0xFC) != vel::tlv::TB_STRING)
            return VEL_FAIL(VELCLIENT_SUBCODE_COMMUNICATION_ERROR, VELCLIENT_LOG_ERROR,
                            "Invalid type in TLV string in structured data container");
        if (keyLen < 0)
            return VEL_FAIL(VELCLIENT_SUBCODE_COMMUNICATION_ERROR, VELCLIENT_LOG_ERROR,
                            "Invalid length in TLV string in structured data container");
        std::uint8_t *valueAt = pos + keyLen;
        std::int64_t valueLen = _velClient_tlv_decodeField(valueAt, c->curWrPtr, &value);
        if (valueLen < 0)
            return VEL_FAIL(VELCLIENT_SUBCODE_COMMUNICATION_ERROR, VELCLIENT_LOG_ERROR,
                            "Invalid entry in structured data map in velClient_container_deleteField");
        auto size = static_cast<std::uint32_t>(keyLen + valueLen);
        if (key.value.string == nullptr || std::strcmp(key.value.string, name_p) != 0) {
            pos += size;
            continue;
        }
        if (sharedBytes(c)) {
            /* Give the map bytes of its own first; the extra byte goes with the entry. */
            std::ptrdiff_t at = pos - c->startPtr;
            if (_velClient_container_growData(c, pos + size, 1, 1) != VELCLIENT_OK)
                return VELCLIENT_FAIL;
            pos = c->startPtr + at;
            valueAt = pos + keyLen;
            ++size;
        }
        removeEntry(c, pos, size, valueAt);
    }
    return VELCLIENT_OK;
}
