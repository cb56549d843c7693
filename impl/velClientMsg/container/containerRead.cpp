/*
 * containerRead.cpp - the read side of a container: the cursor that walks a
 * map or stream field by field, the reader of an entry in any form, and the
 * size and byte accessors (lookup by key: containerLookup.cpp). Every length
 * is checked against the end of the written bytes, so malformed input is
 * refused, never read past.
 */
#include "velClientMsg/container/mapEntryRead.h"

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

} // namespace

namespace vel::mapread {

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

} // namespace vel::mapread

using namespace vel::mapread;

namespace {

/* True when the value at start (the type byte of a map or stream) lies across
 * an open sub-container of c without being it: bytes read from a position
 * that a malformed entry's length gave, after c grew past it. Two open
 * records over the same bytes would each move them for itself. */
bool acrossOpenChild(const _velClient_container *c, const std::uint8_t *start)
{
    const std::uint8_t *end = start + getBE(start + 1, 4);
    for (const _velClient_container *k = c->child_p; k != nullptr; k = k->sib_p)
        if (k->startPtr != start && start < k->maxWrPtr && k->startPtr < end)
            return true;
    return false;
}

} // namespace

/* Turns a map or stream value into its sub-container handle. */
velClient_returnCode_t _velClient_container_attachSubContainer(_velClient_container *c, velClient_field_t *field_p)
{
    if (field_p->type != VELCLIENT_MAP && field_p->type != VELCLIENT_STREAM)
        return VELCLIENT_OK;
    _velClient_container *child = nullptr;
    std::uint8_t *start = c->curRdPtr + c->curKeyLength;
    if (c->child_p != nullptr && acrossOpenChild(c, start)) {
        field_p->value.map = nullptr;
        return malformed(kBadEntry);
    }
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
    if (c->type != VELCLIENT_CONTAINER_MAP)
        return readAnyEntryAt(c, pos, field_p, name_p);
    if (readNextCommonEntry(c, pos, field_p, name_p))
        return VELCLIENT_OK;
    velClient_returnCode_t rc = readAnyEntryAt(c, pos, field_p, name_p);
    if (rc == VELCLIENT_OK)
        noteCursor(c);
    return rc;
}

/* The next map entry, at pos, when it is not in the usual form: read as
 * _velClient_container_readNextField reads it. */
[[gnu::noinline]] velClient_returnCode_t readOtherMapField(_velClient_container *c, std::uint8_t *pos,
                                                           velClient_field_t *field_p, const char **name_p)
{
    velClient_returnCode_t rc = readAnyEntryAt(c, pos, field_p, name_p);
    if (rc != VELCLIENT_OK)
        return rc;
    noteCursor(c);
    return _velClient_container_attachSubContainer(c, field_p);
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

/* ---- Exports
 * --------------------------------------------------------------------- */

extern "C" VELCLIENT_API velClient_bool_t velClient_container_hasNextField(velClient_opaqueContainer_pt opaqueCont_p)
{
    _velClient_container *c =
        vel::containerOrFail(opaqueCont_p, "Bad container pointer (%p) in velClient_container_hasNextField");
    return c != nullptr && nextPosition(c) < c->curWrPtr ? 1 : 0;
}

namespace {

/* velClient_container_getNextField for the calls that are not the usual
 * one (isUsualCall): a refusal, or the next value of a stream. c is the
 * record behind the handle, or nullptr (the arguments keep their places, so
 * that the export hands them on as they came). */
[[gnu::noinline]] velClient_returnCode_t getNextFieldChecked(velClient_opaqueContainer_pt opaqueCont_p,
                                                            velClient_field_t *field_p, size_t fieldSize,
                                                            const char **name_p, _velClient_container *c)
{
    if (c == nullptr || field_p == nullptr) {
        c = vel::containerWithOut(opaqueCont_p, field_p, "Bad cont_p pointer (%p) in velClient_container_getNextField",
                                  "Null field_p in velClient_container_getNextField");
        if (c == nullptr)
            return VELCLIENT_FAIL;
    }
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

/* The next map entry, at pos, when it is not one the map remembers: read
 * with every check as getNextFieldChecked reads it. */
[[gnu::noinline]] velClient_returnCode_t readOtherNext(_velClient_container *c, std::uint8_t *pos,
                                                       velClient_field_t *field_p, const char **name_p)
{
    *name_p = nullptr;
    if (!readCommonEntry(c, pos, field_p, name_p))
        return readOtherMapField(c, pos, field_p, name_p);
    noteCursor(c);
    return VELCLIENT_OK;
}

/* A call with good arguments on a map. */
inline bool isUsualCall(const _velClient_container *c, const velClient_field_t *field_p, size_t fieldSize,
                        const char **name_p)
{
    return c != nullptr && field_p != nullptr && fieldSize == sizeof(velClient_field_t) && name_p != nullptr &&
           c->type == VELCLIENT_CONTAINER_MAP;
}

/* The usual call (isUsualCall) without the registers the full path saves:
 * an entry the map remembers is read as readKnownEntry reads it, the end of
 * the map gives EOS (the cursor then rests there, as readNext leaves it),
 * any other entry goes to readOtherNext. */
inline velClient_returnCode_t readMapNext(_velClient_container *c, velClient_field_t *field_p, const char **name_p)
{
    const bool first = c->curRdPtr == nullptr; /* the first entry is the first remembered one */
    std::uint8_t *pos = first ? c->firstFieldPtr : c->curRdPtr + c->curFieldLength;
    if (pos >= c->curWrPtr) {
        *name_p = nullptr;
        c->curRdPtr = pos;
        c->curFieldLength = 0;
        c->curKeyLength = 0;
        return VELCLIENT_EOS;
    }
    const std::uint32_t index = first ? 0 : c->checkedNext;
    if (index < c->checkedCount && c->checkedAt[index] == static_cast<std::uint32_t>(pos - c->firstFieldPtr) &&
        readKnownEntry(c, pos, index, field_p, name_p))
        return VELCLIENT_OK;
    return readOtherNext(c, pos, field_p, name_p);
}

} // namespace

extern "C" VELCLIENT_API velClient_returnCode_t velClient_container_getNextField(velClient_opaqueContainer_pt opaqueCont_p,
                                                                               velClient_field_t *field_p,
                                                                               size_t fieldSize, const char **name_p)
{
    _velClient_container *c = vel::containerOf(opaqueCont_p);
    if (isUsualCall(c, field_p, fieldSize, name_p))
        return readMapNext(c, field_p, name_p);
    return getNextFieldChecked(opaqueCont_p, field_p, fieldSize, name_p, c);
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
