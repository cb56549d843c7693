/*
 * binaryMeta.cpp - the binary metadata header in part 8: building it before a
 * message is encoded or sent, and taking a received one apart into the header
 * map (part 10) and the user property map (part 7).
 *
 * Nothing here opens the header map: the reader hands each header map entry to
 * the caller's opener, so the header map depends on this file and not back.
 *
 * The header as written (19 bytes, big-endian lengths; L = size of parts 10 + 7):
 *
 *     01 | 00 L+14(3 B) | 2F L+14(4 B) | 18 04 type flags | 2B L+5(4 B) | entries
 *
 * type is the attachment type (0x80 for plain bytes), flags bit 7 marks a
 * reply. Each entry is 1C 04 key 00 followed by a map; key 'h' is the header
 * map, 'p' the user property map. Readers also accept 18 03 type (no flags
 * byte), which puts the map one byte earlier.
 */
#include <cstring>

#include "velClientMsg/header/headerMaps.h"
#include "velClientMsg/container/tlvCodec.h"
#include "velClientMsg/message/recordApi.h"

namespace {

using vel::tlv::getBE;
using vel::tlv::putBE;

constexpr std::uint32_t kEntryHeader = kMapEntryKeySize + vel::tlv::kContainerHeaderSize;
/* A received header can be patched when it reaches its flags byte. */
constexpr std::uint32_t kPatchableSize = 14;

bool isReply(const _velClient_msg *msg)
{
    return (msg->msgInfo.flags & _VELCLIENT_RX_FLAG_REPLY_MSG) != 0;
}

bool partHasBytes(const _velClient_msg *msg, int part)
{
    return msg->bufInfo_a[part].buf_p != nullptr && msg->bufInfo_a[part].bufSize != 0;
}

std::uint8_t *partBytes(_velClient_msg *msg, int part)
{
    return static_cast<std::uint8_t *>(msg->bufInfo_a[part].buf_p);
}

/* Makes part 8 the message's own before it is patched in place. */
velClient_returnCode_t ownMetaPart(_velClient_msg *msg)
{
    if ((msg->internalFlags & _VELCLIENT_MSG_FLAG_META_READONLY) == 0)
        return VELCLIENT_OK;
    velClient_bufInfo_t info = msg->bufInfo_a[_VELCLIENT_BUFINFO_BINARY_META_PART];
    _velClient_datab *shared = msg->bufDatab_p[_VELCLIENT_BUFINFO_BINARY_META_PART];
    if (shared != nullptr)
        _velClient_datablock_incRef(shared); /* keep the bytes alive while they are copied */
    msg->bufDatab_p[_VELCLIENT_BUFINFO_BINARY_META_PART] = nullptr;
    msg->bufInfo_a[_VELCLIENT_BUFINFO_BINARY_META_PART] = velClient_bufInfo_t{nullptr, 0};
    velClient_returnCode_t rc =
        _velClient_msg_setBufinfo(msg, _VELCLIENT_BUFINFO_BINARY_META_PART, info.buf_p, info.bufSize, 0);
    if (shared != nullptr) {
        VEL_DATAB_RELEASE(shared);
        VEL_DATAB_RELEASE(shared);
    }
    if (rc == VELCLIENT_OK)
        msg->internalFlags &= ~_VELCLIENT_MSG_FLAG_META_READONLY;
    return rc;
}

/* Writes the entry key in front of a map part unless it is already there. */
void writeEntryKey(_velClient_msg *msg, int part, char key)
{
    if (msg->bufInfo_a[part].buf_p == nullptr || msg->bufInfo_a[part].bufSize < kMapEntryKeySize)
        return;
    const std::uint8_t entryKey[kMapEntryKeySize] = {vel::tlv::kTypeString, 0x04, static_cast<std::uint8_t>(key),
                                                           0x00};
    std::uint8_t *p = partBytes(msg, part);
    if (std::memcmp(p, entryKey, sizeof entryKey) != 0)
        std::memcpy(p, entryKey, sizeof entryKey);
}

std::uint8_t attachmentTypeByte(const _velClient_msg *msg)
{
    return msg->binAttachmentType != 0 ? msg->binAttachmentType : kBinaryMetaPlainType;
}

/* A received header, resent: only the type and the reply bit are patched. */
velClient_returnCode_t patchReceivedHeader(_velClient_msg *msg)
{
    if (ownMetaPart(msg) != VELCLIENT_OK)
        return VELCLIENT_FAIL;
    std::uint8_t *meta = partBytes(msg, _VELCLIENT_BUFINFO_BINARY_META_PART);
    if (msg->binAttachmentType != 0)
        meta[12] = msg->binAttachmentType;
    if (isReply(msg))
        meta[13] |= kBinaryMetaReplyBit;
    return VELCLIENT_OK;
}

/* An attachment type, the reply mark, a header map or user properties. */
bool needsMeta(const _velClient_msg *msg)
{
    return msg->binAttachmentType != 0 || isReply(msg) || partHasBytes(msg, _VELCLIENT_BUFINFO_HDR_MAP_PART) ||
           partHasBytes(msg, VELCLIENT_BUFINFO_USER_PROPERTY_PART);
}

/* Writes the 19 bytes of the header for map entries of entries bytes. */
void writeHeader(std::uint8_t *meta, std::uint32_t entries, const _velClient_msg *msg)
{
    meta[0] = 0x01;
    meta[1] = 0;
    putBE(meta + 2, entries + 14, 3);
    meta[5] = vel::tlv::kTypeStream;
    putBE(meta + 6, entries + 14, 4);
    meta[10] = vel::tlv::kTypeByteArray;
    meta[11] = 4;
    meta[12] = attachmentTypeByte(msg);
    meta[13] = isReply(msg) ? kBinaryMetaReplyBit : 0;
    meta[14] = vel::tlv::kTypeMap;
    putBE(meta + 15, entries + 5, 4);
}

/* Writes (or patches) the header into part 8 and the entry keys into parts 10 and 7. */
velClient_returnCode_t buildHeader(_velClient_msg *msg)
{
    bool hasHdr = partHasBytes(msg, _VELCLIENT_BUFINFO_HDR_MAP_PART);
    bool hasProps = partHasBytes(msg, VELCLIENT_BUFINFO_USER_PROPERTY_PART);
    if (!hasHdr && !hasProps && msg->bufInfo_a[_VELCLIENT_BUFINFO_BINARY_META_PART].buf_p != nullptr &&
        msg->bufInfo_a[_VELCLIENT_BUFINFO_BINARY_META_PART].bufSize >= kPatchableSize)
        return patchReceivedHeader(msg);
    std::uint32_t entries = (hasHdr ? msg->bufInfo_a[_VELCLIENT_BUFINFO_HDR_MAP_PART].bufSize : 0) +
                            (hasProps ? msg->bufInfo_a[VELCLIENT_BUFINFO_USER_PROPERTY_PART].bufSize : 0);
    std::uint8_t *inPlace = vel::msg::ownBytesInPlace(msg, _VELCLIENT_BUFINFO_BINARY_META_PART, kBinaryMetaSize);
    std::uint8_t local[kBinaryMetaSize];
    writeHeader(inPlace != nullptr ? inPlace : local, entries, msg);
    if (inPlace == nullptr &&
        vel::msg::copyIntoOwnPart(msg, _VELCLIENT_BUFINFO_BINARY_META_PART, local, sizeof local) != VELCLIENT_OK)
        return VELCLIENT_FAIL;
    if (hasHdr)
        writeEntryKey(msg, _VELCLIENT_BUFINFO_HDR_MAP_PART, 'h');
    if (hasProps)
        writeEntryKey(msg, VELCLIENT_BUFINFO_USER_PROPERTY_PART, 'p');
    return VELCLIENT_OK;
}

} // namespace

velClient_returnCode_t vel::meta::prepareForWire(_velClient_msg *msg, bool closeAll)
{
    const bool needed = needsMeta(msg);
    if (needed || closeAll)
        vel::msg::closeContainers(msg, closeAll);
    return needed ? buildHeader(msg) : VELCLIENT_OK;
}

/* ---- Reading -------------------------------------------------------------- */
namespace {

/* Logs an unrecognised header with a hex listing, then drops it. */
velClient_returnCode_t dropUnrecognised(_velClient_msg *msg)
{
    const std::uint8_t *p = partBytes(msg, _VELCLIENT_BUFINFO_BINARY_META_PART);
    std::uint32_t size = msg->bufInfo_a[_VELCLIENT_BUFINFO_BINARY_META_PART].bufSize;
    VEL_LOG(VELCLIENT_LOG_NOTICE, "Unrecognized Binary Meta Data: ");
    for (std::uint32_t at = 0; at < size && vel::logAdmits(VELCLIENT_LOG_NOTICE); at += 8) {
        unsigned b[8] = {};
        for (std::uint32_t i = 0; i < 8 && at + i < size; ++i)
            b[i] = p[at + i];
        VEL_LOG(VELCLIENT_LOG_NOTICE, "%p: %x %x %x %x %x %x %x %x", static_cast<const void *>(p + at), b[0], b[1],
                b[2], b[3], b[4], b[5], b[6], b[7]);
    }
    return _velClient_msg_setBufinfo(msg, _VELCLIENT_BUFINFO_BINARY_META_PART, nullptr, 0, 0);
}

/* Points part (7 or 10) at one entry inside part 8, sharing part 8's block. */
void takeEntry(_velClient_msg *msg, int part, std::uint8_t *entry, std::uint32_t size, std::uint32_t readOnlyBit)
{
    _velClient_datab *metaBlock = msg->bufDatab_p[_VELCLIENT_BUFINFO_BINARY_META_PART];
    if (msg->bufDatab_p[part] != nullptr)
        VEL_DATAB_RELEASE(msg->bufDatab_p[part]);
    if (metaBlock != nullptr)
        _velClient_datablock_incRef(metaBlock);
    msg->bufDatab_p[part] = metaBlock;
    msg->bufInfo_a[part] = velClient_bufInfo_t{entry, size};
    if (msg->internalFlags & _VELCLIENT_MSG_FLAG_META_READONLY)
        msg->internalFlags |= readOnlyBit;
}

/* One entry at p (at most end - p bytes): its total size, or 0 when malformed. */
std::uint32_t entrySize(const std::uint8_t *p, const std::uint8_t *end)
{
    if (end - p < static_cast<std::ptrdiff_t>(kEntryHeader) || p[0] != vel::tlv::kTypeString)
        return 0;
    std::uint64_t mapLength = getBE(p + 5, 4);
    if (mapLength < vel::tlv::kContainerHeaderSize ||
        mapLength + kMapEntryKeySize > static_cast<std::uint64_t>(end - p))
        return 0;
    return static_cast<std::uint32_t>(mapLength + kMapEntryKeySize);
}

} // namespace

velClient_returnCode_t vel::meta::read(_velClient_msg *msg, velClient_returnCode_t (*openHeaderMap)(_velClient_msg *))
{
    std::uint8_t *meta = partBytes(msg, _VELCLIENT_BUFINFO_BINARY_META_PART);
    if (meta == nullptr)
        return VELCLIENT_NOT_FOUND;
    std::uint32_t size = msg->bufInfo_a[_VELCLIENT_BUFINFO_BINARY_META_PART].bufSize;
    if (size < 2 || meta[0] != 0x01 || meta[1] != 0x00)
        return dropUnrecognised(msg) == VELCLIENT_OK ? VELCLIENT_NOT_FOUND : VELCLIENT_FAIL;
    if (size < kBinaryMetaShortSize || (meta[11] == 4 && size < kBinaryMetaSize))
        return VELCLIENT_FAIL;
    msg->binAttachmentType = meta[12];
    msg->msgInfo.flags &= ~_VELCLIENT_RX_FLAG_REPLY_MSG;
    std::uint8_t *p = meta + kBinaryMetaShortSize;
    if (meta[11] == 4) {
        if (meta[13] & kBinaryMetaReplyBit)
            msg->msgInfo.flags |= _VELCLIENT_RX_FLAG_REPLY_MSG;
        p = meta + kBinaryMetaSize;
    }
    const std::uint8_t *end = meta + size;
    while (p < end) {
        std::uint32_t entry = entrySize(p, end);
        if (entry == 0)
            return VELCLIENT_FAIL;
        if (p[2] == 'p') {
            /* An open user property map keeps the bytes it already writes. */
            if (msg->userPropertyMap_p == nullptr)
                takeEntry(msg, VELCLIENT_BUFINFO_USER_PROPERTY_PART, p, entry,
                          _VELCLIENT_MSG_FLAG_USER_PROPS_READONLY);
        } else if (p[2] == 'h') {
            if (msg->hdrMap_p == nullptr) {
                takeEntry(msg, _VELCLIENT_BUFINFO_HDR_MAP_PART, p, entry, _VELCLIENT_MSG_FLAG_HDR_MAP_READONLY);
                if (velClient_returnCode_t rc = openHeaderMap(msg); rc == VELCLIENT_FAIL)
                    return rc;
            }
        } else {
            return VEL_FAIL(VELCLIENT_SUBCODE_INTERNAL_ERROR, VELCLIENT_LOG_WARNING,
                            "Binary Message Header with invalid map name (%02x)", static_cast<unsigned>(p[2]));
        }
        p += entry;
    }
    return VELCLIENT_OK;
}
