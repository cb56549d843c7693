/*
 * containerAdd.cpp - appending fields to maps and streams: the shared
 * parameter check and space step, every scalar add from one table of
 * encoders, the variable-size adds (string, byte array, VWF, unknown field),
 * destinations, copies of whole containers, and sub-containers opened in
 * place for writing.
 */
#include <cstring>
#include <type_traits>

#include "velClientMsg/tlvCodec.h"
#include "velClientMsg/velClientMsgPrivate.h"

namespace {

using namespace vel::tlv;

/* The container behind the handle, checked against the name rule; nameLen
 * receives the name's length with its NUL (0 in a stream). */
_velClient_container *paramCheck(velClient_opaqueContainer_pt handle, const char *name, std::uint32_t &nameLen)
{
    _velClient_container *c =
        vel::containerOrFail(handle, "Bad container pointer (%p) in velClient_container_paramCheck");
    if (c == nullptr)
        return nullptr;
    if (c->type == VELCLIENT_CONTAINER_MAP) {
        if (name == nullptr || name[0] == '\0') {
            VEL_STORE(VELCLIENT_SUBCODE_PARAM_NULL_PTR, VELCLIENT_LOG_WARNING, "Attempt to add unnamed field to a map");
            return nullptr;
        }
        std::size_t len = std::strlen(name) + 1;
        if (len > 0xFFFF0000u) {
            VEL_STORE(VELCLIENT_SUBCODE_PARAM_OUT_OF_RANGE, VELCLIENT_LOG_WARNING,
                      "Field name too long in velClient_container_paramCheck");
            return nullptr;
        }
        nameLen = static_cast<std::uint32_t>(len);
    } else {
        if (name != nullptr) {
            VEL_STORE(VELCLIENT_SUBCODE_PARAM_OUT_OF_RANGE, VELCLIENT_LOG_WARNING,
                      "Attempt to add named field to a stream");
            return nullptr;
        }
        nameLen = 0;
    }
    return c;
}

std::uint64_t nameFieldSize(std::uint32_t nameLen)
{
    return nameLen == 0 ? 0 : varFieldSize(nameLen);
}

/* Makes room for needed bytes at the write position (growing by exactly the
 * excess); returns the write position, or nullptr after recording the failure. */
std::uint8_t *reserve(_velClient_container *c, std::uint64_t needed)
{
    std::int64_t excess = static_cast<std::int64_t>(c->curWrPtr - c->maxWrPtr) + static_cast<std::int64_t>(needed);
    if (excess > 0) {
        if (excess > 0x7FFFFFF0 || _velClient_container_growData(c, c->maxWrPtr, static_cast<std::int32_t>(excess),
                                                                 0) != VELCLIENT_OK) {
            if (excess > 0x7FFFFFF0)
                VEL_STORE(VELCLIENT_SUBCODE_INSUFFICIENT_SPACE, VELCLIENT_LOG_WARNING,
                          "Unable to add more structured data to container memory");
            return nullptr;
        }
    }
    return c->curWrPtr;
}

/* A change to a container in a message invalidates its cached wire image. */
inline void markModified(const _velClient_container *c)
{
    if (c->msg_b != nullptr)
        c->msg_b->internalFlags |= _VELCLIENT_MSG_FLAG_MODIFIED;
}

/* Writes the name field (map only) at p; returns where the value goes. */
std::uint8_t *writeName(std::uint8_t *p, const char *name, std::uint32_t nameLen)
{
    if (nameLen == 0)
        return p;
    std::uint8_t *v = writeVarHeader(p, TB_STRING, nameLen);
    std::memcpy(v, name, nameLen);
    return v + nameLen;
}

/* The common frame of every add: check, make room for the name field and
 * valueSize bytes, write the name, let write() fill the value, advance. */
template <typename Write>
velClient_returnCode_t addField(velClient_opaqueContainer_pt handle, const char *name, std::uint64_t valueSize,
                                Write write)
{
    std::uint32_t nameLen = 0;
    _velClient_container *c = paramCheck(handle, name, nameLen);
    if (c == nullptr)
        return VELCLIENT_FAIL;
    std::uint64_t needed = nameFieldSize(nameLen) + valueSize;
    std::uint8_t *p = reserve(c, needed);
    if (p == nullptr)
        return VELCLIENT_FAIL;
    write(writeName(p, name, nameLen));
    c->curWrPtr = p + needed;
    markModified(c);
    return VELCLIENT_OK;
}

/* A fixed-size field: type byte, length byte, value bytes big-endian. */
template <std::uint8_t TypeByte, unsigned Bytes>
velClient_returnCode_t addFixed(velClient_opaqueContainer_pt handle, const char *name, std::uint64_t bits)
{
    return addField(handle, name, 2 + Bytes, [bits](std::uint8_t *p) {
        p[0] = TypeByte;
        p[1] = 2 + Bytes;
        putBE(p + 2, bits, Bytes);
    });
}

/* A variable-size field of valueLength bytes from value_p. */
velClient_returnCode_t addVariable(velClient_opaqueContainer_pt handle, const char *name, std::uint8_t typeBase,
                                   const void *value_p, std::uint64_t valueLength)
{
    if (valueLength > 0xFFFF0000u)
        return VEL_FAIL(VELCLIENT_SUBCODE_INSUFFICIENT_SPACE, VELCLIENT_LOG_WARNING,
                        "Unable to add more structured data to container memory");
    auto len = static_cast<std::uint32_t>(valueLength);
    return addField(handle, name, varFieldSize(len), [&](std::uint8_t *p) {
        std::uint8_t *v = writeVarHeader(p, typeBase, len);
        if (len != 0)
            std::memcpy(v, value_p, len);
    });
}

template <typename T>
std::uint64_t bitsOf(T value)
{
    if constexpr (std::is_floating_point_v<T>) {
        std::conditional_t<sizeof(T) == 4, std::uint32_t, std::uint64_t> bits;
        std::memcpy(&bits, &value, sizeof bits);
        return bits;
    } else {
        return static_cast<std::uint64_t>(value);
    }
}

} // namespace

/* Every scalar add: name, C type, type byte, value bytes. */
#define VEL_SCALAR_ADDS(X)                                   \
    X(Uint8, velClient_uint8_t, TB_UINT, 1)                  \
    X(Int8, velClient_int8_t, TB_INT, 1)                     \
    X(Uint16, velClient_uint16_t, TB_UINT, 2)                \
    X(Int16, velClient_int16_t, TB_INT, 2)                   \
    X(Uint32, velClient_uint32_t, TB_UINT, 4)                \
    X(Int32, velClient_int32_t, TB_INT, 4)                   \
    X(Uint64, velClient_uint64_t, TB_UINT, 8)                \
    X(Int64, velClient_int64_t, TB_INT, 8)                   \
    X(Float, float, TB_FLOAT, 4)                             \
    X(Double, double, TB_FLOAT, 8)

#define VEL_DEFINE_SCALAR_ADD(Name, CType, TypeByte, Bytes)                                                          \
    extern "C" VELCLIENT_API velClient_returnCode_t velClient_container_add##Name(                                 \
        velClient_opaqueContainer_pt opaqueCont_p, CType value, const char *name)                                  \
    {                                                                                                                \
        return addFixed<TypeByte, Bytes>(opaqueCont_p, name, bitsOf(value));                                        \
    }
VEL_SCALAR_ADDS(VEL_DEFINE_SCALAR_ADD)

extern "C" VELCLIENT_API velClient_returnCode_t velClient_container_addBoolean(velClient_opaqueContainer_pt opaqueCont_p,
                                                                              velClient_bool_t value, const char *name)
{
    return addFixed<TB_BOOL, 1>(opaqueCont_p, name, value != 0 ? 1 : 0);
}

extern "C" VELCLIENT_API velClient_returnCode_t velClient_container_addWchar(velClient_opaqueContainer_pt opaqueCont_p,
                                                                            velClient_wchar_t value, const char *name)
{
    return addFixed<TB_CHAR, 2>(opaqueCont_p, name, value & 0xFFFFu);
}

extern "C" VELCLIENT_API velClient_returnCode_t velClient_container_addChar(velClient_opaqueContainer_pt opaqueCont_p,
                                                                           char value, const char *name)
{
    std::uint32_t nameLen = 0;
    if (paramCheck(opaqueCont_p, name, nameLen) == nullptr)
        return VELCLIENT_FAIL;
    if (static_cast<unsigned char>(value) > 127)
        return VEL_FAIL(VELCLIENT_SUBCODE_PARAM_OUT_OF_RANGE, VELCLIENT_LOG_WARNING,
                        "Non Ascii characters may not be sent in velClient_container_addChar");
    return addFixed<TB_CHAR, 2>(opaqueCont_p, name, static_cast<unsigned char>(value));
}

extern "C" VELCLIENT_API velClient_returnCode_t velClient_container_addNull(velClient_opaqueContainer_pt opaqueCont_p,
                                                                           const char *name)
{
    return addField(opaqueCont_p, name, 2, [](std::uint8_t *p) {
        p[0] = TB_NULL;
        p[1] = 2;
    });
}

extern "C" VELCLIENT_API velClient_returnCode_t velClient_container_addString(velClient_opaqueContainer_pt opaqueCont_p,
                                                                             const char *value, const char *name)
{
    if (value == nullptr) {
        std::uint32_t nameLen = 0;
        if (paramCheck(opaqueCont_p, name, nameLen) == nullptr)
            return VELCLIENT_FAIL;
        return VEL_FAIL(VELCLIENT_SUBCODE_PARAM_NULL_PTR, VELCLIENT_LOG_WARNING,
                        "Null value pointer in velClient_container_addString");
    }
    return addVariable(opaqueCont_p, name, TB_STRING, value, std::strlen(value) + 1);
}

extern "C" VELCLIENT_API velClient_returnCode_t velClient_container_addByteArray(
    velClient_opaqueContainer_pt opaqueCont_p, const velClient_uint8_t *arr_p, velClient_uint32_t length,
    const char *name)
{
    if (arr_p == nullptr) {
        std::uint32_t nameLen = 0;
        if (paramCheck(opaqueCont_p, name, nameLen) == nullptr)
            return VELCLIENT_FAIL;
        return VEL_FAIL(VELCLIENT_SUBCODE_PARAM_NULL_PTR, VELCLIENT_LOG_WARNING,
                        "Null byte array pointer in velClient_container_addByteArray");
    }
    return addVariable(opaqueCont_p, name, TB_BYTEARRAY, arr_p, length);
}

extern "C" VELCLIENT_API velClient_returnCode_t velClient_container_addVwf(velClient_opaqueContainer_pt opaqueCont_p,
                                                                          const velClient_uint8_t *vwf_p,
                                                                          velClient_uint32_t length, const char *name)
{
    if (vwf_p == nullptr) {
        std::uint32_t nameLen = 0;
        if (paramCheck(opaqueCont_p, name, nameLen) == nullptr)
            return VELCLIENT_FAIL;
        return VEL_FAIL(VELCLIENT_SUBCODE_PARAM_NULL_PTR, VELCLIENT_LOG_WARNING,
                        "Null VWF pointer in velClient_container_addVwf");
    }
    return addVariable(opaqueCont_p, name, TB_VWF, vwf_p, length);
}

extern "C" VELCLIENT_API velClient_returnCode_t velClient_container_addDestination(
    velClient_opaqueContainer_pt opaqueCont_p, const velClient_destination_t *value, size_t destSize,
    const char *name)
{
    if (value == nullptr)
        return VEL_FAIL(VELCLIENT_SUBCODE_PARAM_NULL_PTR, VELCLIENT_LOG_WARNING,
                        "Null velClient_destination_t pointer in velClient_container_addDestination");
    if (destSize != sizeof(velClient_destination_t))
        return VEL_FAIL(VELCLIENT_SUBCODE_PARAM_OUT_OF_RANGE, VELCLIENT_LOG_WARNING,
                        "Unsupported destination structure size (received %d, expected %d) in "
                        "velClient_container_addDestination",
                        static_cast<int>(destSize), static_cast<int>(sizeof(velClient_destination_t)));
    std::int64_t type = vel::enumValue(value->destType);
    if (type < VELCLIENT_TOPIC_DESTINATION || type > VELCLIENT_QUEUE_TEMP_DESTINATION)
        return VEL_FAIL(VELCLIENT_SUBCODE_PARAM_OUT_OF_RANGE, VELCLIENT_LOG_WARNING,
                        "Bad destType value of %d in velClient_container_addDestination", static_cast<int>(type));
    if (value->dest == nullptr)
        return VEL_FAIL(VELCLIENT_SUBCODE_PARAM_NULL_PTR, VELCLIENT_LOG_WARNING,
                        "Null dest pointer in velClient_container_addDestination");
    std::uint32_t nameLen = 0;
    if (paramCheck(opaqueCont_p, name, nameLen) == nullptr)
        return VELCLIENT_FAIL;
    std::size_t destLen = std::strlen(value->dest) + 1;
    if (destLen > MAX_DEST_NAME_WITH_NUL)
        return VEL_FAIL(VELCLIENT_SUBCODE_PARAM_OUT_OF_RANGE, VELCLIENT_LOG_WARNING,
                        "Attempt to add destination field in excess of 65K bytes");
    std::uint8_t kind = (type == VELCLIENT_QUEUE_DESTINATION || type == VELCLIENT_QUEUE_TEMP_DESTINATION)
                            ? DEST_KIND_QUEUE
                            : DEST_KIND_TOPIC;
    return addField(opaqueCont_p, name, destLen + 3, [&](std::uint8_t *p) {
        p[0] = TB_DESTINATION;
        p[1] = static_cast<std::uint8_t>(destLen + 3);
        p[2] = kind;
        std::memcpy(p + 3, value->dest, destLen);
    });
}

namespace {

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

} // namespace

extern "C" VELCLIENT_API velClient_returnCode_t velClient_container_addContainer(
    velClient_opaqueContainer_pt opaqueCont_p, velClient_opaqueContainer_pt opaqueSub_p, const char *name)
{
    std::uint32_t nameLen = 0;
    _velClient_container *c = paramCheck(opaqueCont_p, name, nameLen);
    if (c == nullptr)
        return VELCLIENT_FAIL;
    _velClient_container *sub =
        vel::containerOrFail(opaqueSub_p, "Bad subcontainer pointer (%p) in velClient_container_closeMapStream");
    if (sub == nullptr)
        return VELCLIENT_FAIL;
    if (related(c, sub))
        return VEL_FAIL(VELCLIENT_SUBCODE_PARAM_CONFLICT, VELCLIENT_LOG_WARNING,
                        "Cannot add a container to itself, its ancestor or its descendant in "
                        "velClient_container_addContainer");
    _velClient_container *finalise = sub;
    if (_velClient_container_closeMapStream(&finalise, false, false, false) != VELCLIENT_OK)
        return VELCLIENT_FAIL;
    /* Both may live in one message part: growing c may move sub's bytes, so
     * copy by offset after the room is made. */
    auto len = static_cast<std::uint32_t>(sub->curWrPtr - sub->startPtr);
    return addField(opaqueCont_p, name, len, [sub, len](std::uint8_t *p) { std::memmove(p, sub->startPtr, len); });
}

extern "C" VELCLIENT_API velClient_returnCode_t velClient_container_addUnknownField(
    velClient_opaqueContainer_pt opaqueCont_p, const velClient_uint8_t *field, velClient_uint32_t length,
    const char *name)
{
    if (field == nullptr || length == 0)
        return VEL_FAIL(VELCLIENT_SUBCODE_PARAM_NULL_PTR, VELCLIENT_LOG_WARNING,
                        "Null or empty field pointer in velClient_container_addUnknownField");
    std::uint32_t nameLen = 0;
    if (paramCheck(opaqueCont_p, name, nameLen) == nullptr)
        return VELCLIENT_FAIL;
    unsigned width = (field[0] & 0x03) + 1u;
    std::uint64_t encoded = length >= 1 + width ? getBE(field + 1, width) : 0;
    if (length < 1 + width || encoded != length)
        return VEL_FAIL(VELCLIENT_SUBCODE_PARAM_OUT_OF_RANGE, VELCLIENT_LOG_WARNING,
                        "Bad Format field in velClient_container_addUnknownField, encoded length (%d) does not match "
                        "field length (%d)",
                        static_cast<int>(encoded), static_cast<int>(length));
    return addField(opaqueCont_p, name, length, [&](std::uint8_t *p) { std::memcpy(p, field, length); });
}

/* ---- Sub-containers opened in place ------------------------------------------ */
namespace {

velClient_returnCode_t openSub(velClient_opaqueContainer_pt parentHandle, velClient_opaqueContainer_pt *sub_p,
                               const char *name, _velClient_containerType type)
{
    std::uint32_t nameLen = 0;
    _velClient_container *parent = paramCheck(parentHandle, name, nameLen);
    if (parent == nullptr)
        return VELCLIENT_FAIL;
    if (sub_p == nullptr)
        return VEL_FAIL(VELCLIENT_SUBCODE_PARAM_NULL_PTR, VELCLIENT_LOG_WARNING,
                        "Null sub-container pointer in _velClient_container_openSubContainer");
    std::uint64_t room = nameFieldSize(nameLen) + CONTAINER_HEADER_SIZE;
    if (reserve(parent, room) == nullptr)
        return VELCLIENT_FAIL;
    _velClient_container *child = nullptr;
    if (_velClient_container_alloc(&child) != VELCLIENT_OK)
        return VEL_FAIL(VELCLIENT_SUBCODE_OUT_OF_MEMORY, VELCLIENT_LOG_WARNING,
                        "Unable to allocate container for map in _velClient_container_openSubContainer");
    std::uint8_t *start = writeName(parent->curWrPtr, name, nameLen);
    start[0] = type == VELCLIENT_CONTAINER_MAP ? TB_MAP : TB_STREAM;
    putBE(start + 1, static_cast<std::uint64_t>(parent->maxWrPtr - start), 4);
    child->type = type;
    child->startPtr = start;
    child->firstFieldPtr = child->curWrPtr = start + CONTAINER_HEADER_SIZE;
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
