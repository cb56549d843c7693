/*
 * partCopy.h - copying bytes into a message part, inline in the setters that
 * do it on every message (a destination, the attachment, the metadata
 * header): a new block for a part that holds none, or the part's own block
 * written again in place. What is left goes to _velClient_msg_setBufinfo.
 */
#pragma once

#include <cstring>

#include "velClientMsg/memory/blockSteps.h"

namespace vel::msg {

/* Copies n bytes. Up to 128 bytes (a destination's name, a short
 * attachment) in overlapping fixed-size moves instead of a call to memcpy:
 * the first and last 8, 16, 32 or 64 bytes. */
inline void copyBytes(std::uint8_t *to, const void *from, std::size_t n)
{
    const auto *src = static_cast<const std::uint8_t *>(from);
    if (n > 128 || n < 8) {
        std::memcpy(to, src, n);
    } else if (n > 64) {
        std::memcpy(to, src, 64);
        std::memcpy(to + n - 64, src + n - 64, 64);
    } else if (n > 32) {
        std::memcpy(to, src, 32);
        std::memcpy(to + n - 32, src + n - 32, 32);
    } else if (n >= 16) {
        std::memcpy(to, src, 16);
        std::memcpy(to + n - 16, src + n - 16, 16);
    } else {
        std::memcpy(to, src, 8);
        std::memcpy(to + n - 8, src + n - 8, 8);
    }
}

/* The copy of _velClient_msg_setBufinfo once the part holds no block: size
 * bytes at start in a new block of start + size bytes (at most UINT32_MAX,
 * which the caller checked) from the calling thread's pool (which marks the
 * message modified), unless size is 0. Without one the part is left empty,
 * marked modified. */
[[gnu::always_inline]] inline velClient_returnCode_t copyIntoEmptyPart(_velClient_msg *msg, int index,
                                                                       const void *buf_p, std::uint32_t size,
                                                                       std::uint32_t start = 0)
{
    if (size != 0 && vel::pool::attachNewBlock(vel::pool::local(), msg, index, start + size) == VELCLIENT_OK) {
        velClient_bufInfo_t &part = msg->bufInfo_a[index];
        copyBytes(static_cast<std::uint8_t *>(part.buf_p) + start, buf_p, size);
        part.bufSize = start + size;
        return VELCLIENT_OK;
    }
    msg->bufInfo_a[index] = velClient_bufInfo_t{nullptr, 0};
    msg->internalFlags |= _VELCLIENT_MSG_FLAG_MODIFIED;
    return size == 0 ? VELCLIENT_OK : VELCLIENT_FAIL;
}

/* The part's block (db, not null) made to hold size bytes in place, to be
 * written by the caller, when it is the message's alone and larger than
 * size; nullptr, with nothing done, otherwise. */
inline std::uint8_t *bytesInPlace(_velClient_msg *msg, _velClient_datab *db, int part, std::uint32_t size)
{
    if (size == 0 || __atomic_load_n(&db->dbRefCount, __ATOMIC_ACQUIRE) != 1 || db->dbSize <= size)
        return nullptr;
    msg->bufInfo_a[part] = velClient_bufInfo_t{db->dbData_p, size};
    return static_cast<std::uint8_t *>(db->dbData_p);
}

/* The step in place of _velClient_msg_setBufinfo at offset 0, taken when
 * the part's block (db, not null) is the message's alone and larger than
 * size; false, with nothing done, otherwise. */
inline bool copyInPlace(_velClient_msg *msg, _velClient_datab *db, int part, const void *buf_p, std::uint32_t size)
{
    std::uint8_t *to = buf_p != nullptr ? bytesInPlace(msg, db, part, size) : nullptr;
    if (to == nullptr)
        return false;
    std::memmove(to, buf_p, size);
    return true;
}

/* The part's own bytes, size of them (not 0), to be written in place: what
 * bytesInPlace gives for the block the part holds; nullptr when the part
 * holds none or shares it, and the caller then copies the bytes in with
 * copyIntoOwnPart. Writing in place spares the copy's wide reads of bytes
 * the caller has just stored one by one (a stall while they are in flight). */
inline std::uint8_t *ownBytesInPlace(_velClient_msg *msg, int part, std::uint32_t size)
{
    _velClient_datab *db = msg->bufDatab_p[part];
    return db != nullptr ? bytesInPlace(msg, db, part, size) : nullptr;
}

/* part (a valid one) := a copy of size bytes, as _velClient_msg_setBufinfo
 * at offset 0 makes it. A part that holds no block goes straight to a new
 * one, and one whose block is its own is written again in place, both
 * inline in the caller. */
inline velClient_returnCode_t copyIntoOwnPart(_velClient_msg *msg, int part, const void *buf_p, std::uint32_t size)
{
    _velClient_datab *db = msg->bufDatab_p[part];
    if (db == nullptr && (buf_p != nullptr || size == 0))
        return copyIntoEmptyPart(msg, part, buf_p, size);
    if (db != nullptr && copyInPlace(msg, db, part, buf_p, size))
        return VELCLIENT_OK;
    return _velClient_msg_setBufinfo(msg, part, buf_p, size, 0);
}

} // namespace vel::msg
