/*
 * headerMaps.h - internal contract of the binary metadata header and of the
 * two maps that travel in front of the binary attachment: the private header
 * map (part 10) and the user property map (part 7).
 */
#pragma once

#include "velClientMsg/container/keptBytes.h"
#include "velClientMsg/velClientMsgPrivate.h"

/* Size of the metadata header this library writes; a reader also accepts the
 * one byte shorter form without the flags byte. */
inline constexpr std::uint32_t kBinaryMetaSize = 19;
inline constexpr std::uint32_t kBinaryMetaShortSize = 18;
/* Bytes kept in front of each map for its entry key (1C 04 key 00). */
inline constexpr std::uint32_t kMapEntryKeySize = 4;
/* Value carried in the header's type byte when the attachment is plain bytes. */
inline constexpr std::uint8_t kBinaryMetaPlainType = 0x80;
inline constexpr std::uint8_t kBinaryMetaReplyBit = 0x80;
/* binAttachmentType of a structured attachment. */
inline constexpr std::uint8_t kAttachmentMap = 10;
inline constexpr std::uint8_t kAttachmentStream = 11;

/* Opens the header map as msg->hdrMap_p: from part 10, else from the
 * metadata header in part 8 (which also fills part 7), else - with create -
 * as a new empty map (internalFlags becomes exactly NEW_HDR_MAP).
 * VELCLIENT_NOT_FOUND when there is none and create is 0. */
velClient_returnCode_t _velClient_msg_getOrCreateHeaderMaps(_velClient_msg *msg, int create);

namespace vel::meta {

/* Takes the metadata header of part 8 apart into parts 10 and 7; each header
 * map entry taken (while no header map is open) goes to openHeaderMap, whose
 * VELCLIENT_FAIL stops the read. VELCLIENT_OK when a header was read,
 * VELCLIENT_NOT_FOUND when part 8 holds none (an unrecognised one is logged
 * and dropped), VELCLIENT_FAIL for a malformed entry. */
velClient_returnCode_t read(_velClient_msg *msg, velClient_returnCode_t (*openHeaderMap)(_velClient_msg *));

/* What _velClient_msg_getOrCreateHeaderMaps(msg, 0) does for a message with
 * no header map, open or in part 10: read() with the header map's opener.
 * Returns what read() returns. */
velClient_returnCode_t readOpeningHeaderMap(_velClient_msg *msg);

/* Readies the metadata for the wire. When the message needs a header (an
 * attachment type, the reply mark, a header map or user properties) its open
 * containers are finished - the header map closed, the attachment and the
 * user property map closed with closeAll, else only finalised - and the
 * header is written (or a received one patched) into part 8 with the entry
 * keys in parts 10 and 7. Without a header, containers are closed only with
 * closeAll. */
velClient_returnCode_t prepareForWire(_velClient_msg *msg, bool closeAll);

} // namespace vel::meta

/* Writes "sn" with value into the header map in its fixed 15-byte form and
 * points *seqNumPtr at the 8 big-endian value bytes, for patching at send. */
velClient_returnCode_t _velClient_msg_beginSetSequenceNumber(_velClient_msg *msg, std::uint64_t **seqNumPtr,
                                                             std::uint64_t seqNum);

/* The 8 value bytes of the header map's "sn" entry in its fixed form, found
 * afresh in the map's current bytes (an earlier address may be stale once the
 * map grew, moved or lost an entry before it); nullptr when there is none. */
std::uint8_t *_velClient_msg_sequenceNumberSlot(_velClient_msg *msg);

/* Writes the record's expirationTime into "ex" (send path). */
velClient_returnCode_t _velClient_msg_setMessageExpiration(_velClient_msg *msg);

/* Makes a message part (0 or 7) hold the finalised bytes of cont: copied at
 * offset, or referenced in place when byReference. *openSlot is the message's
 * open container on that part: when cont is that container it is only
 * finalised (the part keeps its bytes); otherwise the open one is closed. */
velClient_returnCode_t _velClient_msg_setPartFromContainer(_velClient_msg *msg, int part,
                                                           _velClient_container **openSlot,
                                                           _velClient_container *cont, std::uint32_t offset,
                                                           bool byReference);

/* The header map's string field key, its setter (addFlag: the flag bits the
 * key owns) and its deleter. */
extern "C" {
velClient_returnCode_t _velClient_msgHeaderMap_getString(velClient_opaqueMsg_pt msg_p, const char **string_p,
                                                         const char *mapKey);
velClient_returnCode_t _velClient_msgHeaderMap_setString(velClient_opaqueMsg_pt msg_p, const char *string,
                                                         const char *mapKey, std::uint32_t addFlag);
velClient_returnCode_t _velClient_msgHeaderMap_deleteString(velClient_opaqueMsg_pt msg_p, const char *mapKey,
                                                            std::uint32_t addFlag);
}

namespace vel::hdr {

/* The header map field key (read mode); NOT_FOUND / FAIL as the lookup says. */
velClient_returnCode_t lookup(_velClient_msg *msg, const char *key, velClient_field_t &field);
/* Adds a value under key, deleting an earlier one unless the map is new and
 * none of ownMask's bits is set; sets setBits on success. add(map) writes the
 * value into the open header map's record.
 * *lent, when given, is the text add reads: one read from the header map
 * itself is kept before the delete moves it. */
template <typename Add>
velClient_returnCode_t set(_velClient_msg *msg, const char *key, std::uint32_t ownMask, std::uint32_t setBits,
                           Add add, const char **lent = nullptr);
/* Points text at a copy when it lies in the open header map's bytes; false
 * after recording the failure when there is no memory for the copy. */
bool keepLent(_velClient_msg *msg, const char *&text, KeptBytes &kept);
/* Deletes key (read mode: no map is OK) and clears clearBits. */
velClient_returnCode_t remove(_velClient_msg *msg, const char *key, std::uint32_t clearBits);

/* Opens the header map for writing; FAIL when it cannot be made. */
velClient_returnCode_t openForWrite(_velClient_msg *msg);
/* Deletes key from the open header map unless the map is new and none of
 * ownMask's bits is set. */
void deleteUnlessNew(_velClient_msg *msg, const char *key, std::uint32_t ownMask);

template <typename Add>
velClient_returnCode_t set(_velClient_msg *msg, const char *key, std::uint32_t ownMask, std::uint32_t setBits,
                           Add add, const char **lent)
{
    if (openForWrite(msg) != VELCLIENT_OK)
        return VELCLIENT_FAIL;
    KeptBytes kept;
    if (lent != nullptr && !keepLent(msg, *lent, kept))
        return VELCLIENT_FAIL;
    deleteUnlessNew(msg, key, ownMask);
    velClient_returnCode_t rc = add(msg->hdrMap_p);
    if (rc == VELCLIENT_OK)
        msg->internalFlags |= setBits;
    return rc;
}

} // namespace vel::hdr
