/*
 * headerMap.cpp - finding or creating the private header map (part 10), the
 * shared get / set / delete steps every header-map property goes through, the
 * generic string properties, and the fixed-form sequence number that the send
 * path patches in place.
 */
#include "velClientMsg/header/headerMaps.h"
#include "velClientMsg/message/recordApi.h"
#include "velClientMsg/container/tlvCodec.h"

namespace {

constexpr std::uint32_t kNewMapSize = 256;

bool partHasBytes(const _velClient_msg *msg, int part)
{
    return msg->bufInfo_a[part].buf_p != nullptr && msg->bufInfo_a[part].bufSize != 0;
}

/* Read-only marks of parts shared with a duplicate: they must survive the
 * flag reset below, or a later change would write into the shared bytes. */
constexpr std::uint32_t kSharedPartMarks = _VELCLIENT_MSG_FLAG_ATTACHMENT_READONLY |
                                           _VELCLIENT_MSG_FLAG_USER_PROPS_READONLY |
                                           _VELCLIENT_MSG_FLAG_META_READONLY | _VELCLIENT_MSG_FLAG_HDR_MAP_READONLY;

/* A new empty header map; every other property flag is wiped. */
velClient_returnCode_t createEmptyHeaderMap(_velClient_msg *msg)
{
    msg->internalFlags = _VELCLIENT_MSG_FLAG_NEW_HDR_MAP | (msg->internalFlags & kSharedPartMarks);
    return _velClient_msg_createContainer(msg, _VELCLIENT_BUFINFO_HDR_MAP_PART, &msg->hdrMap_p, kNewMapSize,
                                          VELCLIENT_CONTAINER_MAP);
}

/* Opens the map held in part 10 as msg->hdrMap_p. VELCLIENT_NOT_FOUND (a
 * stream is refused and closed) when part 10 holds no map. */
velClient_returnCode_t openHeaderMapPart(_velClient_msg *msg)
{
    velClient_field_t field{};
    velClient_returnCode_t rc = _velClient_msg_getField(msg, _VELCLIENT_BUFINFO_HDR_MAP_PART, &field, sizeof field);
    if (rc != VELCLIENT_OK)
        return rc;
    _velClient_container *cont = vel::containerOf(field.value.map);
    if (field.type == VELCLIENT_MAP && cont != nullptr) {
        msg->hdrMap_p = cont;
        return VELCLIENT_OK;
    }
    VEL_STORE(VELCLIENT_SUBCODE_INTERNAL_ERROR, VELCLIENT_LOG_WARNING,
              "Binary Message Header in invalid format type = (%d)", static_cast<int>(field.type));
    if (cont != nullptr)
        _velClient_container_closeMapStream(&cont, true, true, false);
    return VELCLIENT_NOT_FOUND;
}

} // namespace

velClient_returnCode_t _velClient_msg_getOrCreateHeaderMaps(_velClient_msg *msg, int create)
{
    if (msg->hdrMap_p == nullptr && partHasBytes(msg, _VELCLIENT_BUFINFO_HDR_MAP_PART)) {
        velClient_returnCode_t rc = openHeaderMapPart(msg);
        if (rc != VELCLIENT_NOT_FOUND)
            return rc;
    }
    velClient_returnCode_t meta = vel::meta::read(msg, openHeaderMapPart);
    if (meta == VELCLIENT_FAIL)
        return VELCLIENT_FAIL;
    bool noHeader = meta == VELCLIENT_NOT_FOUND;
    if (create && msg->hdrMap_p == nullptr && (noHeader || !partHasBytes(msg, _VELCLIENT_BUFINFO_HDR_MAP_PART)))
        return createEmptyHeaderMap(msg);
    if (noHeader)
        return VELCLIENT_NOT_FOUND;
    return msg->hdrMap_p != nullptr ? VELCLIENT_OK : VELCLIENT_NOT_FOUND;
}

velClient_returnCode_t vel::meta::readOpeningHeaderMap(_velClient_msg *msg)
{
    return vel::meta::read(msg, openHeaderMapPart);
}

/* ---- The steps every property shares ---------------------------------------
 */

velClient_returnCode_t vel::hdr::lookup(_velClient_msg *msg, const char *key, velClient_field_t &field)
{
    if (msg->hdrMap_p == nullptr) {
        velClient_returnCode_t rc = _velClient_msg_getOrCreateHeaderMaps(msg, 0);
        if (rc != VELCLIENT_OK)
            return rc;
    }
    return _velClient_container_getFieldAndTypeByName(msg->hdrMap_p, key, &field);
}

velClient_returnCode_t vel::hdr::openForWrite(_velClient_msg *msg)
{
    if (msg->hdrMap_p != nullptr)
        return VELCLIENT_OK;
    return _velClient_msg_getOrCreateHeaderMaps(msg, 1) == VELCLIENT_OK && msg->hdrMap_p != nullptr
               ? VELCLIENT_OK
               : VELCLIENT_FAIL;
}

bool vel::hdr::keepLent(_velClient_msg *msg, const char *&text, KeptBytes &kept)
{
    if (text == nullptr)
        return true; /* the add refuses it */
    const void *bytes = text;
    if (!kept.keep(msg->hdrMap_p, {Borrowed{bytes, std::strlen(text) + 1}})) {
        VEL_STORE(VELCLIENT_SUBCODE_OUT_OF_MEMORY, VELCLIENT_LOG_ERROR,
                  "Unable to allocate memory for a header property's value");
        return false;
    }
    text = static_cast<const char *>(bytes);
    return true;
}

void vel::hdr::deleteUnlessNew(_velClient_msg *msg, const char *key, std::uint32_t ownMask)
{
    if ((msg->internalFlags & (ownMask | _VELCLIENT_MSG_FLAG_NEW_HDR_MAP)) != _VELCLIENT_MSG_FLAG_NEW_HDR_MAP)
        vel::container::deleteField(msg->hdrMap_p, key);
}

velClient_returnCode_t vel::hdr::remove(_velClient_msg *msg, const char *key, std::uint32_t clearBits)
{
    if (msg->hdrMap_p == nullptr) {
        velClient_returnCode_t rc = _velClient_msg_getOrCreateHeaderMaps(msg, 0);
        if (rc != VELCLIENT_OK)
            return rc == VELCLIENT_NOT_FOUND ? VELCLIENT_OK : VELCLIENT_FAIL;
    }
    msg->internalFlags &= ~clearBits;
    return vel::container::deleteField(msg->hdrMap_p, key);
}

/* ---- Generic string properties ----------------------------------------------
 */

extern "C" velClient_returnCode_t _velClient_msgHeaderMap_getString(velClient_opaqueMsg_pt msg_p,
                                                                   const char **string_p, const char *mapKey)
{
    _velClient_msg *msg = vel::msgWithOut(msg_p, string_p,
                                          "Bad msg_p pointer (%p) in _velClient_msgHeaderMap_getString",
                                          "Null string pointer in _velClient_msgHeaderMap_getString");
    if (msg == nullptr)
        return VELCLIENT_FAIL;
    if (mapKey == nullptr)
        return VEL_FAIL_NULL("Null key pointer in _velClient_msgHeaderMap_getString");
    return vel::msg::headerMapString(msg, mapKey, string_p);
}

velClient_returnCode_t vel::msg::headerMapString(_velClient_msg *msg, const char *key, const char **value_p)
{
    velClient_field_t field{};
    velClient_returnCode_t rc = vel::hdr::lookup(msg, key, field);
    if (rc != VELCLIENT_OK)
        return rc;
    if (field.type != VELCLIENT_STRING)
        return VEL_FAIL(VELCLIENT_SUBCODE_COMMUNICATION_ERROR, VELCLIENT_LOG_WARNING,
                        "Invalid string field '%s' in kestrel header map", key);
    *value_p = field.value.string;
    return VELCLIENT_OK;
}

extern "C" velClient_returnCode_t _velClient_msgHeaderMap_setString(velClient_opaqueMsg_pt msg_p,
                                                                   const char *string, const char *mapKey,
                                                                   std::uint32_t addFlag)
{
    _velClient_msg *msg = vel::msgWithOut(msg_p, mapKey, "Bad msg_p pointer (%p) in _velClient_msgHeaderMap_setString",
                                          "Null key pointer in _velClient_msgHeaderMap_setString");
    if (msg == nullptr)
        return VELCLIENT_FAIL;
    if (string == nullptr)
        return VEL_FAIL_NULL("Null string pointer in _velClient_msgHeaderMap_setString");
    return vel::hdr::set(
        msg, mapKey, addFlag, addFlag,
        [&](_velClient_container *map) { return vel::container::addString(map, string, mapKey); },
        &string);
}

extern "C" velClient_returnCode_t _velClient_msgHeaderMap_deleteString(velClient_opaqueMsg_pt msg_p,
                                                                      const char *mapKey, std::uint32_t addFlag)
{
    _velClient_msg *msg = vel::msgOrFail(msg_p, "Bad msg_p pointer (%p) in velClient_msgHeaderMap_deleteString");
    if (msg == nullptr)
        return VELCLIENT_FAIL;
    return vel::hdr::remove(msg, mapKey, addFlag);
}

/* ---- Sequence number in its fixed form ------------------------------------
 */

velClient_returnCode_t _velClient_msg_beginSetSequenceNumber(_velClient_msg *msg, std::uint64_t **seqNumPtr,
                                                             std::uint64_t seqNum)
{
    static constexpr std::uint8_t kField[7] = {vel::tlv::kTypeString, 0x05, 's', 'n', 0x00, vel::tlv::kTypeInt, 0x0A};
    static constexpr std::uint32_t kFieldSize = sizeof kField + 8;
    VEL_LOG(VELCLIENT_LOG_DEBUG, "_velClient_msg_beginSetSequenceNumber(%p,%p)", static_cast<void *>(msg),
            static_cast<void *>(seqNumPtr));
    if (vel::hdr::openForWrite(msg) != VELCLIENT_OK)
        return VELCLIENT_FAIL;
    vel::hdr::deleteUnlessNew(msg, "sn", _VELCLIENT_MSG_FLAG_SEQUENCE_NUMBER | _VELCLIENT_MSG_FLAG_SEQUENCE_NUMBER_AUTO);
    _velClient_container *map = msg->hdrMap_p;
    /* A read-only (shared) map has no room left, so growing also copies it. */
    auto room = static_cast<std::uint32_t>(map->maxWrPtr - map->curWrPtr);
    if (room < kFieldSize &&
        _velClient_container_growData(map, map->maxWrPtr, static_cast<std::int32_t>(kFieldSize - room), 0) !=
            VELCLIENT_OK)
        return VELCLIENT_FAIL;
    std::uint8_t *p = map->curWrPtr;
    std::memcpy(p, kField, sizeof kField);
    vel::tlv::putBE(p + sizeof kField, seqNum, 8);
    *seqNumPtr = reinterpret_cast<std::uint64_t *>(p + sizeof kField);
    map->curWrPtr += kFieldSize;
    msg->internalFlags = (msg->internalFlags & ~_VELCLIENT_MSG_FLAG_SEQUENCE_NUMBER) |
                         _VELCLIENT_MSG_FLAG_SEQUENCE_NUMBER_AUTO;
    return VELCLIENT_OK;
}

namespace {

/* The written bytes of the header map: the open container's entries, else
 * those of the map held in part 10 behind its entry key. */
bool headerMapEntries(const _velClient_msg *msg, const std::uint8_t *&first, const std::uint8_t *&end)
{
    if (const _velClient_container *map = msg->hdrMap_p) {
        first = map->firstFieldPtr;
        end = map->curWrPtr;
        return true;
    }
    const velClient_bufInfo_t &part = msg->bufInfo_a[_VELCLIENT_BUFINFO_HDR_MAP_PART];
    const auto *bytes = static_cast<const std::uint8_t *>(part.buf_p);
    constexpr std::uint32_t kHeader = kMapEntryKeySize + vel::tlv::kContainerHeaderSize;
    if (bytes == nullptr || part.bufSize < kHeader || bytes[kMapEntryKeySize] != vel::tlv::kTypeMap)
        return false;
    first = bytes + kHeader;
    end = bytes + part.bufSize;
    return true;
}

} // namespace

std::uint8_t *_velClient_msg_sequenceNumberSlot(_velClient_msg *msg)
{
    const std::uint8_t *pos = nullptr, *end = nullptr;
    if (!headerMapEntries(msg, pos, end))
        return nullptr;
    while (pos < end) {
        vel::tlv::Entry e;
        if (vel::tlv::decodeEntry(pos, end, e) != vel::tlv::Fault::none)
            return nullptr;
        const std::uint8_t *v = pos + e.keyLength;
        if (e.name != nullptr && std::strcmp(e.name, "sn") == 0)
            return v[0] == vel::tlv::kTypeInt && e.valueLength == 10 ? const_cast<std::uint8_t *>(v) + 2 : nullptr;
        pos = v + e.valueLength;
    }
    return nullptr;
}
