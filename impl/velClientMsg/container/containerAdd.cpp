/*
 * containerAdd.cpp - appending fields to maps and streams: the shared
 * parameter check and space step, every scalar add from one table of
 * encoders, the variable-size adds (string, byte array, VWF, unknown field),
 * destinations, copies of whole containers, and sub-containers opened in
 * place for writing.
 */
#include <cassert>
#include <cstring>
#include <type_traits>

#include "velClientMsg/container/fieldTypes.h"
#include "velClientMsg/container/keptBytes.h"
#include "velClientMsg/message/recordApi.h"
#include "velClientMsg/container/tlvCodec.h"
#include "velClientMsg/velClientMsgPrivate.h"

namespace {

using namespace vel::tlv;
using vel::Borrowed;
using vel::KeptBytes;

constexpr const char *kNoRoom = "Unable to add more structured data to container memory";

/* The container behind an add's handle; nullptr after recording the failure. */
_velClient_container *addTarget(velClient_opaqueContainer_pt handle)
{
    return vel::containerOrFail(handle, "Bad container pointer (%p) in velClient_container_paramCheck");
}

/* The name rule of every add: a map needs a non-empty name, a stream takes
 * none, not even "". nameLen receives the name's length with its NUL (0 in a
 * stream). False after recording the failure. */
bool nameAccepted(const _velClient_container *c, const char *name, std::uint64_t &nameLen)
{
    if (c->type == VELCLIENT_CONTAINER_MAP) {
        if (name == nullptr || name[0] == '\0') {
            VEL_STORE(VELCLIENT_SUBCODE_PARAM_NULL_PTR, VELCLIENT_LOG_WARNING, "Attempt to add unnamed field to a map");
            return false;
        }
        nameLen = std::strlen(name) + 1;
    } else {
        if (name != nullptr) {
            VEL_STORE(VELCLIENT_SUBCODE_PARAM_OUT_OF_RANGE, VELCLIENT_LOG_WARNING,
                      "Attempt to add named field to a stream");
            return false;
        }
        nameLen = 0;
    }
    return true;
}

/* The shared parameter check of every add: the container behind the handle
 * and the name rule. Returns nullptr after recording the failure. */
_velClient_container *_velClient_container_paramCheck(velClient_opaqueContainer_pt handle, const char *name,
                                                      std::uint64_t &nameLen)
{
    _velClient_container *c = addTarget(handle);
    return c != nullptr && nameAccepted(c, name, nameLen) ? c : nullptr;
}

std::uint64_t nameFieldSize(std::uint64_t nameLen)
{
    return nameLen == 0 ? 0 : varFieldSize(nameLen);
}

/* Bytes missing at c's write position for needed more (0 or less: none). */
inline std::int64_t shortOf(const _velClient_container *c, std::uint64_t needed)
{
    return static_cast<std::int64_t>(c->curWrPtr - c->maxWrPtr) + static_cast<std::int64_t>(needed);
}

/* Grows c by exactly excess bytes at its end, after keeping what is
 * borrowed from the bytes that move; returns the write position, or nullptr
 * after recording the failure (nothing changed). */
[[gnu::noinline, gnu::cold]] std::uint8_t *growFor(_velClient_container *c, std::int64_t excess, KeptBytes &kept,
                                                  std::initializer_list<Borrowed> borrowed)
{
    if (excess > 0x7FFFFFF0 || !kept.keep(c, borrowed)) { /* no memory for the copy: no room either */
        VEL_STORE(VELCLIENT_SUBCODE_INSUFFICIENT_SPACE, VELCLIENT_LOG_WARNING, "%s", kNoRoom);
        return nullptr;
    }
    if (c->child_p != nullptr || c->parent_p != nullptr) {
        /* Room that open sub-containers of the tree hold unwritten comes back
         * first: each one opened at the end takes all the room there is, and
         * growing its parent or a sibling around it again and again would
         * multiply the block for nothing. */
        const std::int64_t needed = excess + (c->maxWrPtr - c->curWrPtr);
        _velClient_container_returnUnusedRoom(c);
        excess = shortOf(c, static_cast<std::uint64_t>(needed));
        if (excess <= 0)
            return c->curWrPtr;
    }
    if (_velClient_container_growData(c, c->maxWrPtr, static_cast<std::int32_t>(excess), 0) != VELCLIENT_OK)
        return nullptr;
    return c->curWrPtr; /* growth may have moved the bytes */
}

/* A change to a container in a message invalidates its cached wire image. */
inline void markModified(const _velClient_container *c)
{
    if (c->msg_b != nullptr)
        c->msg_b->internalFlags |= _VELCLIENT_MSG_FLAG_MODIFIED;
}

/* Writes the name field (map only) at p; returns where the value goes. */
[[gnu::always_inline]] inline std::uint8_t *writeName(std::uint8_t *p, const char *name, std::uint64_t nameLen)
{
    if (nameLen == 0)
        return p;
    auto len = static_cast<std::uint32_t>(nameLen); /* making room for it bounded it */
    std::uint8_t *v = writeVarHeader(p, kTypeString, len);
    copyBytes(v, name, len);
    return v + len;
}

/* The last steps of an add with room at p: the name field, write(where,
 * value) for the value field, and the advance of curWrPtr. */
template <typename Write>
[[gnu::always_inline]] inline velClient_returnCode_t finishAdd(_velClient_container *c, std::uint8_t *p,
                                                               const char *name, std::uint64_t nameLen,
                                                               std::uint64_t needed, const Write &write,
                                                               const void *value)
{
    write(writeName(p, name, nameLen), value);
    c->curWrPtr = p + needed;
    markModified(c);
    return VELCLIENT_OK;
}

/* An add that must grow c first: the name and value (valueLen bytes) are
 * what the add reads of the caller's; either may be copied out first. */
template <typename Write>
[[gnu::noinline, gnu::cold]] velClient_returnCode_t addGrowing(_velClient_container *c, const char *name,
                                                               std::uint64_t nameLen, std::uint64_t needed,
                                                               std::int64_t excess, const Write &write,
                                                               const void *value, std::size_t valueLen)
{
    const void *nameBytes = name;
    KeptBytes kept;
    std::uint8_t *p = growFor(c, excess, kept, {Borrowed{nameBytes, nameLen}, Borrowed{value, valueLen}});
    if (p == nullptr)
        return VELCLIENT_FAIL;
    return finishAdd(c, p, static_cast<const char *>(nameBytes), nameLen, needed, write, value);
}

/* The common frame of every add: the name rule, then the add's own
 * check (which records its failure), room for the name field and valueSize
 * bytes, the name field, write(where, value) for the value field, and the
 * advance of curWrPtr. A failure at any step leaves the container as it was.
 * value (valueLen bytes), when given, is the caller's bytes that write()
 * copies: they are passed to it, since growth may first copy them out.
 * Inline in every add, so that the usual add is one straight path. */
template <typename Check, typename Write>
[[gnu::always_inline]] inline velClient_returnCode_t addField(_velClient_container *c, const char *name,
                                                              std::uint64_t valueSize, Check check, Write write,
                                                              const void *value = nullptr, std::size_t valueLen = 0)
{
    std::uint64_t nameLen = 0;
    if (!nameAccepted(c, name, nameLen) || check() != VELCLIENT_OK)
        return VELCLIENT_FAIL;
    std::uint64_t needed = nameFieldSize(nameLen) + valueSize;
    std::int64_t excess = shortOf(c, needed);
    if (excess > 0) [[unlikely]]
        return addGrowing(c, name, nameLen, needed, excess, write, value, valueLen);
    return finishAdd(c, c->curWrPtr, name, nameLen, needed, write, value);
}

/* ---- Scalars: one traits row per add ------------------------------------------ */

/* Encoders: the value as the big-endian bits the field stores. */
template <typename T>
std::uint64_t asInteger(T value)
{
    return static_cast<std::uint64_t>(value); /* sign-extended; the low bytes are kept */
}
template <typename T>
std::uint64_t asIeee(T value)
{
    std::conditional_t<sizeof(T) == 4, std::uint32_t, std::uint64_t> bits;
    std::memcpy(&bits, &value, sizeof bits);
    return bits;
}
std::uint64_t asBoolean(velClient_bool_t value)
{
    return value != 0 ? 1 : 0;
}
std::uint64_t asChar(char value)
{
    return static_cast<unsigned char>(value);
}
std::uint64_t asWchar(velClient_wchar_t value)
{
    return value & 0xFFFFu; /* the field keeps 16 bits */
}

/* Value checks, run after the name check. anyValue refuses nothing; with no
 * argument it is the check of an add whose value needs none. */
template <typename... T>
velClient_returnCode_t anyValue(T...)
{
    return VELCLIENT_OK;
}
velClient_returnCode_t asciiOnly(char value)
{
    if (static_cast<unsigned char>(value) > 127)
        return VEL_FAIL_RANGE("Non Ascii characters may not be sent in velClient_container_addChar");
    return VELCLIENT_OK;
}

/* A fixed-size field: type byte, length byte (2 + Bytes), Bytes value bytes. */
template <std::uint8_t TypeByte, unsigned Bytes, auto Encode, auto Accept, typename T>
velClient_returnCode_t addScalar(_velClient_container *c, T value, const char *name)
{
    return addField(
        c, name, 2 + Bytes, [value] { return Accept(value); },
        [value](std::uint8_t *p, const void *) {
            p[0] = TypeByte;
            p[1] = 2 + Bytes;
            putBE(p + 2, Encode(value), Bytes);
        });
}

/* ---- Variable-size values ------------------------------------------------------ */

/* A variable-size field of valueLength bytes from value_p; a null value_p is
 * refused with nullText after the parameter check. */
velClient_returnCode_t addVariable(_velClient_container *c, const char *name, std::uint8_t typeBase,
                                   const void *value_p, std::uint64_t valueLength, const char *nullText)
{
    auto check = [value_p, valueLength, nullText] {
        if (value_p == nullptr)
            return VEL_FAIL_NULL("%s", nullText);
        if (valueLength > 0x7FFFFFF0u)
            return VEL_FAIL(VELCLIENT_SUBCODE_INSUFFICIENT_SPACE, VELCLIENT_LOG_WARNING, "%s", kNoRoom);
        return VELCLIENT_OK;
    };
    auto len = static_cast<std::uint32_t>(valueLength);
    return addField(
        c, name, varFieldSize(valueLength), check,
        [typeBase, len](std::uint8_t *p, const void *value) {
            std::uint8_t *v = writeVarHeader(p, typeBase, len);
            if (len != 0)
                copyBytes(v, value, len);
        },
        value_p, len);
}

/* True when a and b are the same container or one contains the other. */
bool related(const _velClient_container *a, const _velClient_container *b)
{
    for (const _velClient_container *k = a; k != nullptr; k = k->parent_p)
        if (k == b)
            return true;
    for (const _velClient_container *k = b; k != nullptr; k = k->parent_p)
        if (k == a)
            return true;
    return false;
}

/* Resolves and finalises the container to copy into c; nullptr after
 * recording the failure. */
_velClient_container *finalisedSource(const _velClient_container *c, velClient_opaqueContainer_pt opaqueSub_p)
{
    _velClient_container *sub =
        vel::containerOrFail(opaqueSub_p, "Bad subcontainer pointer (%p) in velClient_container_closeMapStream");
    if (sub == nullptr)
        return nullptr;
    if (related(c, sub)) {
        VEL_STORE(VELCLIENT_SUBCODE_PARAM_CONFLICT, VELCLIENT_LOG_WARNING,
                  "Cannot add a container to itself, its ancestor or its descendant in "
                  "velClient_container_addContainer");
        return nullptr;
    }
    _velClient_container *finalise = sub;
    if (_velClient_container_closeMapStream(&finalise, false, false, false) != VELCLIENT_OK)
        return nullptr;
    return sub;
}

/* The tlvLength in the header of the field at field (width from the low two
 * bits of its first byte), or -1 when length bytes cannot hold that header. */
std::int64_t encodedLength(const velClient_uint8_t *field, velClient_uint32_t length)
{
    unsigned width = (field[0] & 0x03) + 1u;
    if (length < 1 + width)
        return -1;
    return static_cast<std::int64_t>(getBE(field + 1, width));
}

} // namespace

/* Every scalar add: exported name, C type, the field type it writes (whose
 * type byte and value size come from the field-type table), encoder, value
 * check. */
#define VEL_SCALAR_ADDS(X)                                                                   \
    X(Boolean, velClient_bool_t, VELCLIENT_BOOL, asBoolean, anyValue<velClient_bool_t>)       \
    X(Uint8, velClient_uint8_t, VELCLIENT_UINT8, asInteger, anyValue<velClient_uint8_t>)      \
    X(Int8, velClient_int8_t, VELCLIENT_INT8, asInteger, anyValue<velClient_int8_t>)          \
    X(Uint16, velClient_uint16_t, VELCLIENT_UINT16, asInteger, anyValue<velClient_uint16_t>)  \
    X(Int16, velClient_int16_t, VELCLIENT_INT16, asInteger, anyValue<velClient_int16_t>)      \
    X(Uint32, velClient_uint32_t, VELCLIENT_UINT32, asInteger, anyValue<velClient_uint32_t>)  \
    X(Int32, velClient_int32_t, VELCLIENT_INT32, asInteger, anyValue<velClient_int32_t>)      \
    X(Uint64, velClient_uint64_t, VELCLIENT_UINT64, asInteger, anyValue<velClient_uint64_t>)  \
    X(Int64, velClient_int64_t, VELCLIENT_INT64, asInteger, anyValue<velClient_int64_t>)      \
    X(Char, char, VELCLIENT_WCHAR, asChar, asciiOnly)                                         \
    X(Wchar, velClient_wchar_t, VELCLIENT_WCHAR, asWchar, anyValue<velClient_wchar_t>)        \
    X(Float, float, VELCLIENT_FLOAT, asIeee, anyValue<float>)                                 \
    X(Double, double, VELCLIENT_DOUBLE, asIeee, anyValue<double>)

#define VEL_DEFINE_SCALAR_ADD(Name, CType, code, Encode, Accept)                                        \
    extern "C" VELCLIENT_API velClient_returnCode_t velClient_container_add##Name(                    \
        velClient_opaqueContainer_pt opaqueCont_p, CType value, const char *name)                     \
    {                                                                                                   \
        constexpr const vel::field::Traits &type = vel::field::traits(code);                           \
        _velClient_container *c = addTarget(opaqueCont_p);                                              \
        return c == nullptr ? VELCLIENT_FAIL                                                            \
                            : addScalar<type.typeByte, type.size,                                       \
                                        static_cast<std::uint64_t (*)(CType)>(Encode), Accept>(c, value, name); \
    }
VEL_SCALAR_ADDS(VEL_DEFINE_SCALAR_ADD)
#undef VEL_DEFINE_SCALAR_ADD

/* The null field is the scalar with no value bytes: 00 02. */
extern "C" VELCLIENT_API velClient_returnCode_t velClient_container_addNull(velClient_opaqueContainer_pt opaqueCont_p,
                                                                           const char *name)
{
    _velClient_container *c = addTarget(opaqueCont_p);
    return c == nullptr ? VELCLIENT_FAIL : addScalar<kTypeNull, 0, asInteger<int>, anyValue<int>>(c, 0, name);
}

velClient_returnCode_t vel::container::addInt64(_velClient_container *c, velClient_int64_t value, const char *name)
{
    return addScalar<kTypeInt, 8, asInteger<velClient_int64_t>, anyValue<velClient_int64_t>>(c, value, name);
}

velClient_returnCode_t vel::container::addString(_velClient_container *c, const char *value, const char *name)
{
    return addVariable(c, name, kTypeString, value, value != nullptr ? std::strlen(value) + 1 : 0,
                       "Null value pointer in velClient_container_addString");
}

extern "C" VELCLIENT_API velClient_returnCode_t velClient_container_addString(velClient_opaqueContainer_pt opaqueCont_p,
                                                                             const char *value, const char *name)
{
    _velClient_container *c = addTarget(opaqueCont_p);
    return c == nullptr ? VELCLIENT_FAIL : vel::container::addString(c, value, name);
}

extern "C" VELCLIENT_API velClient_returnCode_t velClient_container_addByteArray(
    velClient_opaqueContainer_pt opaqueCont_p, const velClient_uint8_t *arr_p, velClient_uint32_t length,
    const char *name)
{
    _velClient_container *c = addTarget(opaqueCont_p);
    return c == nullptr ? VELCLIENT_FAIL
                        : addVariable(c, name, kTypeByteArray, arr_p, length,
                                      "Null byte array pointer in velClient_container_addByteArray");
}

extern "C" VELCLIENT_API velClient_returnCode_t velClient_container_addVwf(velClient_opaqueContainer_pt opaqueCont_p,
                                                                          const velClient_uint8_t *vwf_p,
                                                                          velClient_uint32_t length, const char *name)
{
    _velClient_container *c = addTarget(opaqueCont_p);
    return c == nullptr ? VELCLIENT_FAIL
                        : addVariable(c, name, kTypeVwf, vwf_p, length, "Null VWF pointer in velClient_container_addVwf");
}

/* ---- Destinations ---------------------------------------------------------------- */
namespace {

/* The destination record, its size, its type and its name pointer. */
velClient_returnCode_t checkDestination(const velClient_destination_t *value, size_t destSize)
{
    if (value == nullptr)
        return VEL_FAIL_NULL("Null velClient_destination_t pointer in velClient_container_addDestination");
    if (destSize != sizeof(velClient_destination_t))
        return VEL_FAIL_RANGE("Unsupported destination structure size (received %d, expected %d) in "
                              "velClient_container_addDestination",
                              static_cast<int>(destSize), static_cast<int>(sizeof(velClient_destination_t)));
    std::int64_t type = vel::enumValue(value->destType);
    if (type < VELCLIENT_TOPIC_DESTINATION || type > VELCLIENT_QUEUE_TEMP_DESTINATION)
        return VEL_FAIL_RANGE("Bad destType value of %d in velClient_container_addDestination", static_cast<int>(type));
    if (value->dest == nullptr)
        return VEL_FAIL_NULL("Null dest pointer in velClient_container_addDestination");
    return VELCLIENT_OK;
}

/* A checked destination: the name rule, the name's length; then 20 len kind name\0. */
velClient_returnCode_t addCheckedDestination(_velClient_container *c, const velClient_destination_t *value,
                                             const char *name)
{
    std::int64_t type = vel::enumValue(value->destType);
    std::size_t destLen = std::strlen(value->dest) + 1;
    auto check = [destLen] {
        if (destLen > kMaxDestNameWithNul)
            return VEL_FAIL_RANGE("Attempt to add destination field in excess of 65K bytes");
        return VELCLIENT_OK;
    };
    std::uint8_t kind = (type == VELCLIENT_QUEUE_DESTINATION || type == VELCLIENT_QUEUE_TEMP_DESTINATION)
                            ? kDestKindQueue
                            : kDestKindTopic;
    return addField(
        c, name, destLen + 3, check,
        [kind, destLen](std::uint8_t *p, const void *dest) {
            p[0] = kTypeDestination;
            p[1] = static_cast<std::uint8_t>(destLen + 3);
            p[2] = kind;
            std::memcpy(p + 3, dest, destLen);
        },
        value->dest, destLen);
}

} // namespace

velClient_returnCode_t vel::container::addDestination(_velClient_container *c, const velClient_destination_t *value,
                                                      size_t destSize, const char *name)
{
    return checkDestination(value, destSize) == VELCLIENT_OK ? addCheckedDestination(c, value, name)
                                                              : VELCLIENT_FAIL;
}

/* Checks in order: the destination record, its size, its type, its name
 * pointer, the handle, the name rule, the name's length. */
extern "C" VELCLIENT_API velClient_returnCode_t velClient_container_addDestination(
    velClient_opaqueContainer_pt opaqueCont_p, const velClient_destination_t *value, size_t destSize,
    const char *name)
{
    if (checkDestination(value, destSize) != VELCLIENT_OK)
        return VELCLIENT_FAIL;
    _velClient_container *c = addTarget(opaqueCont_p);
    return c == nullptr ? VELCLIENT_FAIL : addCheckedDestination(c, value, name);
}

/* Copies the finalised bytes of another container (header included) as one
 * value field; the source stays open and independent of the copy. */
extern "C" VELCLIENT_API velClient_returnCode_t velClient_container_addContainer(
    velClient_opaqueContainer_pt opaqueCont_p, velClient_opaqueContainer_pt opaqueSub_p, const char *name)
{
    std::uint64_t nameLen = 0;
    _velClient_container *c = _velClient_container_paramCheck(opaqueCont_p, name, nameLen);
    if (c == nullptr)
        return VELCLIENT_FAIL;
    _velClient_container *sub = finalisedSource(c, opaqueSub_p);
    if (sub == nullptr)
        return VELCLIENT_FAIL;
    /* Both may live in one message part: growing c may move sub's bytes, so
     * its start is read only after the room is made. */
    auto len = static_cast<std::uint64_t>(sub->curWrPtr - sub->startPtr);
    return addField(c, name, len, anyValue<>,
                    [sub, len](std::uint8_t *p, const void *) {
                        std::memmove(p, sub->startPtr, static_cast<std::size_t>(len));
                    });
}

/* Adds a whole field verbatim after checking only that the tlvLength in its
 * own header equals length; the header is never read beyond length bytes. */
extern "C" VELCLIENT_API velClient_returnCode_t velClient_container_addUnknownField(
    velClient_opaqueContainer_pt opaqueCont_p, const velClient_uint8_t *field, velClient_uint32_t length,
    const char *name)
{
    if (field == nullptr || length == 0)
        return VEL_FAIL_NULL("Null or empty field pointer in velClient_container_addUnknownField");
    auto check = [field, length] {
        std::int64_t encoded = encodedLength(field, length);
        if (encoded != static_cast<std::int64_t>(length))
            return VEL_FAIL_RANGE(
                    "Bad Format field in velClient_container_addUnknownField, encoded length (%d) does not "
                    "match field length (%d)",
                    static_cast<int>(encoded), static_cast<int>(length));
        return VELCLIENT_OK;
    };
    _velClient_container *c = addTarget(opaqueCont_p);
    if (c == nullptr)
        return VELCLIENT_FAIL;
    return addField(
        c, name, length, check, [length](std::uint8_t *p, const void *bytes) { std::memcpy(p, bytes, length); },
        field, length);
}

/* ---- Sub-containers opened in place ------------------------------------------ */
namespace {

velClient_returnCode_t openSub(velClient_opaqueContainer_pt parentHandle, velClient_opaqueContainer_pt *sub_p,
                               const char *name, _velClient_containerType type)
{
    std::uint64_t nameLen = 0;
    _velClient_container *parent = _velClient_container_paramCheck(parentHandle, name, nameLen);
    if (parent == nullptr)
        return VELCLIENT_FAIL;
    if (sub_p == nullptr)
        return VEL_FAIL_NULL("Null sub-container pointer in _velClient_container_openSubContainer");
    std::uint64_t room = nameFieldSize(nameLen) + kContainerHeaderSize;
    const void *nameBytes = name;
    KeptBytes kept;
    const std::int64_t excess = shortOf(parent, room);
    if (excess > 0 && growFor(parent, excess, kept, {Borrowed{nameBytes, nameLen}}) == nullptr)
        return VELCLIENT_FAIL;
    name = static_cast<const char *>(nameBytes);
    _velClient_container *child = nullptr;
    if (_velClient_container_alloc(&child) != VELCLIENT_OK)
        return VEL_FAIL(VELCLIENT_SUBCODE_OUT_OF_MEMORY, VELCLIENT_LOG_WARNING,
                        "Unable to allocate container for map in _velClient_container_openSubContainer");
    std::uint8_t *start = writeName(parent->curWrPtr, name, nameLen);
    start[0] = type == VELCLIENT_CONTAINER_MAP ? kTypeMap : kTypeStream;
    putBE(start + 1, static_cast<std::uint64_t>(parent->maxWrPtr - start), 4);
    child->type = type;
    child->startPtr = start;
    child->firstFieldPtr = child->curWrPtr = start + kContainerHeaderSize;
    child->maxWrPtr = parent->maxWrPtr;
    child->offset = static_cast<std::uint32_t>(start - parent->startPtr);
    child->msg_b = parent->msg_b;
    child->bufInfoIndex = parent->bufInfoIndex;
    child->parent_p = parent;
    child->sib_p = parent->child_p;
    parent->child_p = child;
    parent->curWrPtr = parent->maxWrPtr;
    markModified(parent);
    *sub_p = child->opaqueContainer_p;
    assert(_velClient_container_treeIsSound(child));
    return VELCLIENT_OK;
}

} // namespace

extern "C" VELCLIENT_API velClient_returnCode_t velClient_container_openSubMap(
    velClient_opaqueContainer_pt container_p, velClient_opaqueContainer_pt *subContainer_p, const char *name)
{
    return openSub(container_p, subContainer_p, name, VELCLIENT_CONTAINER_MAP);
}

extern "C" VELCLIENT_API velClient_returnCode_t velClient_container_openSubStream(
    velClient_opaqueContainer_pt container_p, velClient_opaqueContainer_pt *subContainer_p, const char *name)
{
    return openSub(container_p, subContainer_p, name, VELCLIENT_CONTAINER_STREAM);
}
