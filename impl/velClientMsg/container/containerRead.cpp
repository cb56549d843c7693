/*
 * containerRead.cpp - the read side of a container: the cursor that walks a
 * map or stream field by field, lookup of a map entry by key, and the size
 * and byte accessors. Every length is checked against the end of the written
 * bytes, so malformed input is refused, never read past.
 */
#include <cstring>

#include "velClientMsg/container/tlvFastPath.h"
#include "velClientMsg/velClientMsgPrivate.h"

namespace {

using namespace vel::tlv;

velClient_returnCode_t malformed(const char *text)
{
    return VEL_FAIL(VELCLIENT_SUBCODE_COMMUNICATION_ERROR, VELCLIENT_LOG_ERROR, "%s", text);
}

constexpr const char *kBadEntry = "Invalid entry in structured data map";
constexpr const char *kBadTlv = "Invalid entry in structured data TLV";

/* A read's text for what is wrong with the entry. */
const char *readFaultText(Fault fault, std::uint32_t valueLength)
{
    switch (fault) {
    case Fault::keyNotString: return "Invalid type in TLV string in structured data container";
    case Fault::keyNotText: return "Invalid length in TLV string in structured data container";
    case Fault::keyShort:
    case Fault::valueCut:
    case Fault::valueBad: return kBadTlv;
    case Fault::valuePastEnd: return valueLength == 0xFFFFFFFFu ? kBadTlv : kBadEntry;
    default: return kBadEntry;
    }
}

/* The length of the key at pos, in room bytes, when it has the usual form:
 * a name with a 1-byte length, checked as the general path checks it; 0 for
 * any other key. */
[[gnu::always_inline]] inline std::uint32_t commonKeyLength(const std::uint8_t *pos, std::ptrdiff_t room)
{
    if (room < 5 || pos[0] != kTypeString)
        return 0;
    const std::uint32_t keyLength = pos[1];
    if (keyLength < 3 || keyLength >= room || !isCString(pos + 2, keyLength - 2))
        return 0;
    return keyLength;
}

/* A map entry in its usual form: a key that commonKeyLength takes, then a
 * value that decodeCommon takes. Decoded with the general path's checks;
 * false, with nothing recorded, for any other entry. */
[[gnu::always_inline]] inline bool readCommonEntry(_velClient_container *c, std::uint8_t *pos,
                                                   velClient_field_t *field_p, const char **name_p)
{
    const std::ptrdiff_t room = c->curWrPtr - pos;
    const std::uint32_t keyLength = commonKeyLength(pos, room);
    if (keyLength == 0)
        return false;
    const std::uint32_t valueLength = decodeCommon(pos + keyLength, room - keyLength, field_p);
    if (valueLength == 0)
        return false;
    c->curRdPtr = pos;
    c->curKeyLength = keyLength;
    c->curFieldLength = keyLength + valueLength;
    if (name_p != nullptr)
        *name_p = reinterpret_cast<const char *>(pos + 2);
    return true;
}

/* Reads the entry at pos in any form, recording what is malformed. A value
 * that runs past the end still adds its declared length to the cursor. */
[[gnu::noinline]] velClient_returnCode_t readAnyEntryAt(_velClient_container *c, std::uint8_t *pos,
                                                        velClient_field_t *field_p, const char **name_p)
{
    Entry e;
    const bool map = c->type == VELCLIENT_CONTAINER_MAP;
    const Fault fault = map ? decodeEntry(pos, c->curWrPtr, e) : decodeValue(pos, c->curWrPtr, e);
    if (name_p != nullptr)
        *name_p = e.name;
    c->curRdPtr = pos;
    c->curKeyLength = e.keyLength;
    c->curFieldLength = e.keyLength;
    if (fault == Fault::valuePastEnd && e.valueLength != 0xFFFFFFFFu)
        c->curFieldLength += e.valueLength;
    if (fault != Fault::none)
        return malformed(readFaultText(fault, e.valueLength));
    *field_p = e.value;
    c->curFieldLength += e.valueLength;
    return VELCLIENT_OK;
}

/* Reads the entry at pos (key and value in a map, value in a stream). */
inline velClient_returnCode_t readEntryAt(_velClient_container *c, std::uint8_t *pos, velClient_field_t *field_p,
                                          const char **name_p)
{
    if (c->type == VELCLIENT_CONTAINER_MAP && readCommonEntry(c, pos, field_p, name_p))
        return VELCLIENT_OK;
    return readAnyEntryAt(c, pos, field_p, name_p);
}

/* Remembers the map entry at pos (len bytes, found well formed) when it is
 * the first one not yet remembered and there is room for it. */
inline void noteChecked(_velClient_container *c, const std::uint8_t *pos, std::uint32_t len)
{
    const auto at = static_cast<std::uint32_t>(pos - c->firstFieldPtr);
    if (at == c->checkedEnd && c->checkedCount < kCheckedEntries) {
        c->checkedAt[c->checkedCount++] = at;
        c->checkedEnd = at + len;
    }
}

} // namespace

/* Turns a map or stream value into its sub-container handle. */
velClient_returnCode_t _velClient_container_attachSubContainer(_velClient_container *c, velClient_field_t *field_p)
{
    if (field_p->type != VELCLIENT_MAP && field_p->type != VELCLIENT_STREAM)
        return VELCLIENT_OK;
    _velClient_container *child = nullptr;
    std::uint8_t *start = c->curRdPtr + c->curKeyLength;
    velClient_returnCode_t rc = _velClient_container_getSubContainer(c, start, &child);
    field_p->value.map = rc == VELCLIENT_OK ? child->opaqueContainer_p : nullptr;
    return rc;
}

namespace {

std::uint8_t *nextPosition(const _velClient_container *c)
{
    return c->curRdPtr != nullptr ? c->curRdPtr + c->curFieldLength : c->firstFieldPtr;
}

velClient_returnCode_t readNext(_velClient_container *c, velClient_field_t *field_p, const char **name_p)
{
    std::uint8_t *pos = nextPosition(c);
    if (pos >= c->curWrPtr) {
        c->curRdPtr = pos;
        c->curFieldLength = 0;
        c->curKeyLength = 0;
        return VELCLIENT_EOS;
    }
    velClient_returnCode_t rc = readEntryAt(c, pos, field_p, name_p);
    if (rc == VELCLIENT_OK && c->type == VELCLIENT_CONTAINER_MAP)
        noteChecked(c, pos, c->curFieldLength);
    return rc;
}

} // namespace

velClient_returnCode_t _velClient_container_readNextValue(_velClient_container *c, velClient_field_t *field_p)
{
    return readNext(c, field_p, nullptr);
}

velClient_returnCode_t _velClient_container_readNextField(_velClient_container *c, velClient_field_t *field_p,
                                                          const char **name_p)
{
    velClient_returnCode_t rc = readNext(c, field_p, name_p);
    return rc == VELCLIENT_OK ? _velClient_container_attachSubContainer(c, field_p) : rc;
}

namespace {

/* True when the entry at p, in room (at least 1) bytes, is keyed name
 * (nameSize bytes with its NUL). Reads nothing past room. */
inline bool keyIs(const std::uint8_t *p, std::ptrdiff_t room, const char *name, std::size_t nameSize)
{
    if (p[0] == kTypeString && room >= 2) /* the usual 1-byte length */
        return p[1] == 2 + nameSize && p[1] <= room && sameBytes(p + 2, name, nameSize);
    if ((p[0] & 0xFC) != kTypeString)
        return false;
    const unsigned width = (p[0] & 0x03) + 1u;
    if (room < static_cast<std::ptrdiff_t>(1 + width))
        return false;
    const std::uint64_t keyLength = getBE(p + 1, width);
    return keyLength == 1 + width + nameSize && keyLength <= static_cast<std::uint64_t>(room) &&
           sameBytes(p + 1 + width, name, nameSize);
}

/* The entry keyed name among those c remembers as well formed, or nullptr:
 * their keys are compared, nothing else is checked again. */
std::uint8_t *findChecked(_velClient_container *c, const char *name, std::size_t nameSize)
{
    const std::ptrdiff_t size = c->curWrPtr - c->firstFieldPtr;
    for (std::uint32_t i = 0; i < c->checkedCount; ++i) {
        const std::uint32_t at = c->checkedAt[i];
        if (at < size && keyIs(c->firstFieldPtr + at, size - at, name, nameSize))
            return c->firstFieldPtr + at;
    }
    return nullptr;
}

/* Passes over the entries from pos that are well formed, in the usual form,
 * and not keyed name, checking them as a read would but decoding nothing,
 * and remembers them. Stops at the end, at the entry with that key and at
 * any entry it cannot vouch for: a read then decodes it (and records what
 * is malformed). */
std::uint8_t *skipOtherEntries(_velClient_container *c, std::uint8_t *pos, const char *name, std::size_t nameSize)
{
    const std::uint8_t *end = c->curWrPtr;
    while (pos < end) {
        const std::uint32_t keyLength = commonKeyLength(pos, end - pos);
        if (keyLength == 0)
            return pos;
        const std::uint32_t valueLength = checkCommon(pos + keyLength, end - pos - keyLength);
        if (valueLength == 0 || (keyLength - 2 == nameSize && sameBytes(pos + 2, name, nameSize)))
            return pos;
        noteChecked(c, pos, keyLength + valueLength);
        pos += keyLength + valueLength;
    }
    return pos;
}

/* Scans the entries not yet remembered for the first keyed name. Entries
 * decoded on the way go to a scratch field: the caller's field is written
 * only with the entry found (decoded straight into it: a copy from the
 * scratch field would wait on the stores that just filled it). A read that
 * fails writes no field. */
velClient_returnCode_t scanFor(_velClient_container *c, const char *name, std::size_t nameSize,
                               velClient_field_t *field_p)
{
    velClient_field_t scratch{};
    if (c->checkedEnd > static_cast<std::uint64_t>(c->curWrPtr - c->firstFieldPtr))
        forgetCheckedEntries(c);
    for (std::uint8_t *pos = c->firstFieldPtr + c->checkedEnd;; pos = c->curRdPtr + c->curFieldLength) {
        pos = skipOtherEntries(c, pos, name, nameSize);
        if (pos >= c->curWrPtr) {
            c->curRdPtr = pos;
            c->curFieldLength = 0;
            c->curKeyLength = 0;
            return VELCLIENT_NOT_FOUND;
        }
        const char *key = nullptr;
        const bool found = keyIs(pos, c->curWrPtr - pos, name, nameSize);
        if (readEntryAt(c, pos, found ? field_p : &scratch, &key) != VELCLIENT_OK)
            return VELCLIENT_FAIL;
        noteChecked(c, pos, c->curFieldLength);
        if (found)
            return VELCLIENT_OK;
    }
}

} // namespace

/* Entries earlier lookups and reads found well formed are passed over by
 * their keys alone; the rest are checked as they are read. Either way the
 * first entry with the key is decoded in full. */
velClient_returnCode_t _velClient_container_getFieldAndTypeByName(_velClient_container *c, const char *name_p,
                                                                  velClient_field_t *field_p)
{
    if (c == nullptr)
        return VEL_FAIL_NULL("Null Container in _velClient_container_getFieldAndTypeByName");
    if (field_p == nullptr)
        return VEL_FAIL_NULL("No field union in _velClient_container_getFieldAndTypeByName ");
    if (name_p == nullptr || name_p[0] == '\0')
        return VEL_FAIL_NULL("Null or Empty Name pointer in "
                             "_velClient_container_getFieldAndTypeByName");
    const std::size_t nameSize = std::strlen(name_p) + 1;
    if (std::uint8_t *pos = findChecked(c, name_p, nameSize)) {
        const char *key = nullptr;
        return readEntryAt(c, pos, field_p, &key);
    }
    return scanFor(c, name_p, nameSize, field_p);
}

/* ---- Exports
 * --------------------------------------------------------------------- */

extern "C" VELCLIENT_API velClient_bool_t velClient_container_hasNextField(velClient_opaqueContainer_pt opaqueCont_p)
{
    _velClient_container *c =
        vel::containerOrFail(opaqueCont_p, "Bad container pointer (%p) in velClient_container_hasNextField");
    return c != nullptr && nextPosition(c) < c->curWrPtr ? 1 : 0;
}

extern "C" VELCLIENT_API velClient_returnCode_t velClient_container_getNextField(velClient_opaqueContainer_pt opaqueCont_p,
                                                                               velClient_field_t *field_p,
                                                                               size_t fieldSize, const char **name_p)
{
    _velClient_container *c = vel::containerWithOut(opaqueCont_p, field_p,
                                                    "Bad cont_p pointer (%p) in velClient_container_getNextField",
                                                    "Null field_p in velClient_container_getNextField");
    if (c == nullptr)
        return VELCLIENT_FAIL;
    if (fieldSize != sizeof(velClient_field_t))
        return VEL_FAIL_RANGE("Unsupported field structure size (received %d, expected %d) in "
                              "velClient_container_getNextField",
                              static_cast<int>(fieldSize), static_cast<int>(sizeof(velClient_field_t)));
    if (c->type == VELCLIENT_CONTAINER_MAP && name_p == nullptr)
        return VEL_FAIL_NULL("Null name_p in velClient_container_getNextField");
    if (name_p != nullptr)
        *name_p = nullptr;
    return _velClient_container_readNextField(c, field_p, name_p);
}

extern "C" VELCLIENT_API velClient_returnCode_t velClient_container_getField(velClient_opaqueContainer_pt opaqueCont_p,
                                                                           velClient_field_t *value, size_t fieldSize,
                                                                           const char *name)
{
    if (fieldSize != sizeof(velClient_field_t))
        return VEL_FAIL_RANGE("Unsupported field structure size (received %d, expected "
                              "%d) in velClient_container_getField",
                              static_cast<int>(fieldSize), static_cast<int>(sizeof(velClient_field_t)));
    _velClient_container *c = vel::containerWithOut(opaqueCont_p, value,
                                                    "Bad Container (%p) in velClient_container_getField",
                                                    "Null value pointer in velClient_container_getField");
    if (c == nullptr)
        return VELCLIENT_FAIL;
    if (c->type == VELCLIENT_CONTAINER_MAP) {
        if (name == nullptr)
            return VEL_FAIL_NULL("No name pointer in velClient_container_getField");
        velClient_returnCode_t rc = _velClient_container_getFieldAndTypeByName(c, name, value);
        return rc == VELCLIENT_OK ? _velClient_container_attachSubContainer(c, value) : rc;
    }
    if (name != nullptr)
        return VEL_FAIL(VELCLIENT_SUBCODE_PARAM_CONFLICT, VELCLIENT_LOG_WARNING,
                        "Stream with non-NULL name pointer in velClient_container_getField");
    return _velClient_container_readNextField(c, value, nullptr);
}

extern "C" VELCLIENT_API velClient_returnCode_t velClient_container_getSize(velClient_opaqueContainer_pt opaqueCont_p,
                                                                          size_t *size_p)
{
    _velClient_container *c = vel::containerWithOut(opaqueCont_p, size_p,
                                                    "Bad Container (%p) in velClient_container_getSize",
                                                    "Null size pointer in velClient_container_getSize");
    if (c == nullptr)
        return VELCLIENT_FAIL;
    *size_p = static_cast<size_t>(c->curWrPtr - c->startPtr);
    return VELCLIENT_OK;
}

extern "C" VELCLIENT_API velClient_returnCode_t velClient_container_getContainerPtr(
    velClient_opaqueContainer_pt opaqueCont_p, velClient_opaquePointer_pt bufPtr_p, velClient_uint32_t *size_p)
{
    _velClient_container *c = vel::containerWithOut(opaqueCont_p, size_p,
                                                    "Bad Container (%p) in velClient_container_getContainerPtr",
                                                    "Null size pointer in velClient_container_getContainerPtr");
    if (c == nullptr)
        return VELCLIENT_FAIL;
    if (bufPtr_p == nullptr)
        return VEL_FAIL_NULL("Null bufPtr_p pointer in velClient_container_getContainerPtr");
    _velClient_container *finalise = c;
    _velClient_container_closeMapStream(&finalise, false, false, false);
    *bufPtr_p = c->startPtr;
    *size_p = static_cast<velClient_uint32_t>(c->curWrPtr - c->startPtr);
    return VELCLIENT_OK;
}
