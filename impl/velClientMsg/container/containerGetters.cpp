/*
 * containerGetters.cpp - the typed getters: one frame (argument checks, the
 * field by key in a map or the next one in a stream) and one conversion per
 * getter. Integer getters come from one template over the conversion rows.
 */
#include <cstring>
#include <type_traits>

#include "velClientMsg/container/fieldConvert.h"
#include "velClientMsg/message/recordApi.h"

namespace {

/* The texts of one getter. */
struct GetterTexts {
    vel::HandleFormat badHandle;          /* "Bad Container (%p) in ..." */
    vel::Format<> nullValue;              /* "Null value pointer in ..." */
    vel::Format<> noName;                 /* "No name pointer in ..." */
    vel::Format<> streamName;             /* "Stream with non-NULL name pointer in ..." */
    vel::Format<const char *> conversion; /* "Field Type %s could not be ..." */
};

#define VEL_GETTER_TEXTS(Name, words)                                                                               \
    GetterTexts{"Bad Container (%p) in velClient_container_" #Name, "Null value pointer in velClient_container_" #Name, \
                "No name pointer in velClient_container_" #Name,                                                      \
                "Stream with non-NULL name pointer in velClient_container_" #Name, "Field Type %s could not be " words}

/* Steps shared by every getter once the container is known: check the output
 * and the name, read the field (by key in a map, the next one in a stream). */
velClient_returnCode_t readFieldOf(const GetterTexts &t, _velClient_container *c, const void *out, const char *name,
                                   velClient_field_t &field, _velClient_container **cont_p = nullptr)
{
    if (out == nullptr)
        return VEL_FAIL_F(VELCLIENT_SUBCODE_PARAM_NULL_PTR, VELCLIENT_LOG_WARNING, t.nullValue);
    if (cont_p != nullptr)
        *cont_p = c;
    if (c->type == VELCLIENT_CONTAINER_MAP) {
        if (name == nullptr)
            return VEL_FAIL_F(VELCLIENT_SUBCODE_PARAM_NULL_PTR, VELCLIENT_LOG_WARNING, t.noName);
        return _velClient_container_getFieldAndTypeByName(c, name, &field);
    }
    if (name != nullptr)
        return VEL_FAIL_F(VELCLIENT_SUBCODE_PARAM_CONFLICT, VELCLIENT_LOG_WARNING, t.streamName);
    return _velClient_container_readNextValue(c, &field);
}

/* readFieldOf after resolving the handle. */
velClient_returnCode_t readField(const GetterTexts &t, velClient_opaqueContainer_pt handle, const void *out,
                                 const char *name, velClient_field_t &field, _velClient_container **cont_p = nullptr)
{
    _velClient_container *c = vel::containerOrFail(handle, t.badHandle);
    return c == nullptr ? VELCLIENT_FAIL : readFieldOf(t, c, out, name, field, cont_p);
}

velClient_returnCode_t conversionFailed(const GetterTexts &t, const velClient_field_t &field)
{
    return VEL_FAIL_F(VELCLIENT_SUBCODE_INVALID_DATA_CONVERSION, VELCLIENT_LOG_WARNING, t.conversion,
                      vel::convert::typeName(field.type));
}

/* A getter whose conversion is convert(field, *out) -> bool, on a container
 * (Target: the record) or behind its handle. */
template <typename Target, typename Out, typename Convert>
velClient_returnCode_t typedGet(const GetterTexts &t, Target target, Out *out, const char *name, Convert convert)
{
    velClient_field_t field{};
    velClient_returnCode_t rc = VELCLIENT_OK;
    if constexpr (std::is_same_v<Target, _velClient_container *>)
        rc = readFieldOf(t, target, out, name, field);
    else
        rc = readField(t, target, out, name, field);
    if (rc != VELCLIENT_OK)
        return rc;
    return convert(field, *out) ? VELCLIENT_OK : conversionFailed(t, field);
}

/* The field type whose every value a getter of T hands out as stored. */
template <typename T>
constexpr velClient_fieldType_t exactType()
{
    constexpr velClient_fieldType_t types[] = {VELCLIENT_UINT8,  VELCLIENT_INT8,  VELCLIENT_UINT16, VELCLIENT_INT16,
                                               VELCLIENT_UINT32, VELCLIENT_INT32, VELCLIENT_UINT64, VELCLIENT_INT64};
    constexpr bool sameSize[] = {sizeof(T) == 1, sizeof(T) == 2, sizeof(T) == 4, sizeof(T) == 8};
    for (unsigned i = 0; i < 4; ++i)
        if (sameSize[i])
            return types[2 * i + (std::is_signed_v<T> ? 1 : 0)];
    return VELCLIENT_UNKNOWN;
}

template <typename Target, typename T>
velClient_returnCode_t integerGet(const GetterTexts &t, const vel::convert::IntRule &rule, Target target, T *out,
                                  const char *name)
{
    return typedGet(t, target, out, name, [&rule](const velClient_field_t &f, T &o) {
        if (f.type == exactType<T>()) { /* the union's members all begin at its start */
            std::memcpy(&o, &f.value, sizeof o);
            return true;
        }
        vel::convert::wide_t v = 0;
        if (!vel::convert::toInteger(f, rule, v))
            return false;
        o = static_cast<T>(v);
        return true;
    });
}

} // namespace

#define VEL_INTEGER_GETTERS(X)                                                                                 \
    X(Uint8, velClient_uint8_t, kUint8, "converted to 8 bit unsigned integer")                                \
    X(Int8, velClient_int8_t, kInt8, "converted to 8 bit signed integer")                                     \
    X(Uint16, velClient_uint16_t, kUint16, "converted to 16 bit unsigned integer")                            \
    X(Int16, velClient_int16_t, kInt16, "converted to 16 bit signed integer")                                 \
    X(Uint32, velClient_uint32_t, kUint32, "converted to 32 bit unsigned integer")                            \
    X(Int32, velClient_int32_t, kInt32, "converted to 32 bit signed integer")                                 \
    X(Uint64, velClient_uint64_t, kUint64, "converted to 64 bit unsigned integer")                            \
    X(Int64, velClient_int64_t, kInt64, "converted to 64 bit signed integer")

#define VEL_DEFINE_INTEGER_GETTER(Name, CType, rule, words)                                                    \
    extern "C" VELCLIENT_API velClient_returnCode_t velClient_container_get##Name(                           \
        velClient_opaqueContainer_pt opaqueCont_p, CType *value, const char *name)                           \
    {                                                                                                          \
        static const GetterTexts texts = VEL_GETTER_TEXTS(get##Name, words);                                   \
        return integerGet(texts, vel::convert::rule, opaqueCont_p, value, name);                               \
    }
VEL_INTEGER_GETTERS(VEL_DEFINE_INTEGER_GETTER)

velClient_returnCode_t vel::container::getUint64(_velClient_container *c, velClient_uint64_t *value, const char *name)
{
    static const GetterTexts texts = VEL_GETTER_TEXTS(getUint64, "converted to 64 bit unsigned integer");
    return integerGet(texts, vel::convert::kUint64, c, value, name);
}

#define VEL_DEFINE_SIMPLE_GETTER(Name, CType, convertFn, words)                                                \
    extern "C" VELCLIENT_API velClient_returnCode_t velClient_container_get##Name(                           \
        velClient_opaqueContainer_pt opaqueCont_p, CType *value, const char *name)                           \
    {                                                                                                          \
        static const GetterTexts texts = VEL_GETTER_TEXTS(get##Name, words);                                   \
        return typedGet(texts, opaqueCont_p, value, name, vel::convert::convertFn);                            \
    }
VEL_DEFINE_SIMPLE_GETTER(Boolean, velClient_bool_t, toBoolean, "converted to boolean")
VEL_DEFINE_SIMPLE_GETTER(Char, char, toChar, "converted to char")
VEL_DEFINE_SIMPLE_GETTER(Wchar, velClient_wchar_t, toWchar, "converted to unicode character")
VEL_DEFINE_SIMPLE_GETTER(Float, float, toFloat, "converted to Float")
VEL_DEFINE_SIMPLE_GETTER(Double, double, toDouble, "converted to double")

extern "C" VELCLIENT_API velClient_returnCode_t velClient_container_getNull(velClient_opaqueContainer_pt opaqueCont_p,
                                                                           const char *name)
{
    static const GetterTexts texts = VEL_GETTER_TEXTS(getNull, "converted to Null");
    velClient_field_t field{};
    static const char present = 1;
    return readField(texts, opaqueCont_p, &present, name, field);
}

/* ---- Pointers into the container and copies ------------------------------------ */
namespace {

/* Byte-like data of a field: STRING, BYTEARRAY (and VWF when vwf); NULL gives none. */
bool bytesOf(const velClient_field_t &f, bool vwf, const velClient_uint8_t *&p, velClient_uint32_t &len)
{
    if (f.type == VELCLIENT_NULL) {
        p = nullptr;
        len = 0;
        return true;
    }
    bool accepted = vwf ? f.type == VELCLIENT_VWF : (f.type == VELCLIENT_STRING || f.type == VELCLIENT_BYTEARRAY);
    if (!accepted)
        return false;
    p = f.value.bytearray;
    len = f.length;
    return true;
}

/* Reads the field and takes its bytes; the conversion error when it has none. */
velClient_returnCode_t readBytes(const GetterTexts &t, bool vwf, velClient_opaqueContainer_pt handle,
                                 const void *out, const char *name, velClient_field_t &field,
                                 const velClient_uint8_t *&p, velClient_uint32_t &len)
{
    velClient_returnCode_t rc = readField(t, handle, out, name, field);
    if (rc != VELCLIENT_OK)
        return rc;
    return bytesOf(field, vwf, p, len) ? VELCLIENT_OK : conversionFailed(t, field);
}

velClient_returnCode_t bytesPtr(const GetterTexts &t, bool vwf, velClient_opaqueContainer_pt handle,
                                const velClient_uint8_t **out_p, velClient_uint32_t *len_p, const char *name)
{
    velClient_field_t field{};
    const velClient_uint8_t *p = nullptr;
    velClient_uint32_t len = 0;
    velClient_returnCode_t rc = readBytes(t, vwf, handle, out_p, name, field, p, len);
    if (rc == VELCLIENT_OK) {
        *out_p = p;
        *len_p = len;
    }
    return rc;
}

/* Copies into the caller's buffer of *len_p bytes. A byte array may fill it
 * exactly; a VWF must leave room. */
velClient_returnCode_t bytesCopy(const GetterTexts &t, bool vwf, velClient_opaqueContainer_pt handle,
                                 velClient_uint8_t *out, velClient_uint32_t *len_p, const char *name)
{
    velClient_field_t field{};
    const velClient_uint8_t *p = nullptr;
    velClient_uint32_t len = 0;
    velClient_returnCode_t rc = readBytes(t, vwf, handle, out, name, field, p, len);
    if (rc != VELCLIENT_OK)
        return rc;
    velClient_uint32_t capacity = *len_p;
    bool fits = field.type == VELCLIENT_NULL || (vwf ? len < capacity : len <= capacity);
    if (!fits) {
        std::memcpy(out, p, capacity);
        return conversionFailed(t, field);
    }
    if (len != 0)
        std::memcpy(out, p, len);
    *len_p = len;
    return VELCLIENT_OK;
}

} // namespace

/* Byte getters: name, output type, length argument, pointer or copy, VWF or not, error words. */
#define VEL_BYTES_GETTER(Name, OutType, lenName, kind, vwf, words)                                                  \
    extern "C" VELCLIENT_API velClient_returnCode_t velClient_container_get##Name(                                \
        velClient_opaqueContainer_pt opaqueCont_p, OutType out_p, velClient_uint32_t *lenName, const char *name) \
    {                                                                                                               \
        if (lenName == nullptr)                                                                                     \
            return VEL_FAIL(VELCLIENT_SUBCODE_PARAM_NULL_PTR, VELCLIENT_LOG_WARNING,                                \
                            "Null " #lenName " in velClient_container_get" #Name);                                  \
        static const GetterTexts texts = VEL_GETTER_TEXTS(get##Name, words);                                        \
        return kind(texts, vwf, opaqueCont_p, out_p, lenName, name);                                                \
    }

VEL_BYTES_GETTER(ByteArrayPtr, const velClient_uint8_t **, arrayLength_p, bytesPtr, false, "converted to byte array")
VEL_BYTES_GETTER(ByteArray, velClient_uint8_t *, arrayLength_p, bytesCopy, false, "copied to byte array")
VEL_BYTES_GETTER(VwfPtr, const velClient_uint8_t **, vwfLength_p, bytesPtr, true, "converted to byte vwf")
VEL_BYTES_GETTER(Vwf, velClient_uint8_t *, vwfLength_p, bytesCopy, true, "copied to byte vwf")

extern "C" VELCLIENT_API velClient_returnCode_t velClient_container_getStringPtr(
    velClient_opaqueContainer_pt opaqueCont_p, const char **string, const char *name)
{
    static const GetterTexts texts = VEL_GETTER_TEXTS(getStringPtr, "converted to string");
    return typedGet(texts, opaqueCont_p, string, name, [](const velClient_field_t &f, const char *&out) {
        if (f.type != VELCLIENT_STRING && f.type != VELCLIENT_NULL)
            return false;
        out = f.type == VELCLIENT_STRING ? f.value.string : nullptr;
        return true;
    });
}

extern "C" VELCLIENT_API velClient_returnCode_t velClient_container_getString(velClient_opaqueContainer_pt opaqueCont_p,
                                                                            char *string, size_t stringLength,
                                                                            const char *name)
{
    if (stringLength == 0)
        return VEL_FAIL_RANGE(
                              "Bad string length of %d in velClient_container_getString",
                              static_cast<int>(stringLength));
    static const GetterTexts texts = VEL_GETTER_TEXTS(getString, "converted to string");
    return typedGet(texts, opaqueCont_p, string, name, [stringLength](const velClient_field_t &f, char &out) {
        if (f.type != VELCLIENT_STRING)
            return false;
        char *buffer = &out;
        const char *text = f.value.string != nullptr ? f.value.string : "";
        std::strncpy(buffer, text, stringLength);
        buffer[stringLength - 1] = '\0';
        return true;
    });
}

namespace {
const GetterTexts kDestinationTexts = VEL_GETTER_TEXTS(getDestination, "converted to Destination");
} // namespace

extern "C" VELCLIENT_API velClient_returnCode_t velClient_container_getDestination(
    velClient_opaqueContainer_pt opaqueCont_p, velClient_destination_t *value, size_t destSize, const char *name)
{
    if (destSize != sizeof(velClient_destination_t))
        return VEL_FAIL_RANGE("Unsupported destination structure size (received %d, expected %d) in "
                              "velClient_container_getDestination",
                              static_cast<int>(destSize), static_cast<int>(sizeof(velClient_destination_t)));
    _velClient_container *c = vel::containerOrFail(opaqueCont_p, kDestinationTexts.badHandle);
    return c == nullptr ? VELCLIENT_FAIL : vel::container::getDestination(c, value, name);
}

velClient_returnCode_t vel::container::getDestination(_velClient_container *c, velClient_destination_t *value,
                                                      const char *name)
{
    return typedGet(kDestinationTexts, c, value, name, [](const velClient_field_t &f, velClient_destination_t &out) {
        if (f.type != VELCLIENT_DESTINATION)
            return false;
        out = f.value.dest;
        return true;
    });
}

/* ---- Nested maps and streams ---------------------------------------------------- */
namespace {

velClient_returnCode_t subContainer(const GetterTexts &t, velClient_fieldType_t kind,
                                    velClient_opaqueContainer_pt handle, velClient_opaqueContainer_pt *out,
                                    const char *name)
{
    velClient_field_t field{};
    _velClient_container *c = nullptr;
    velClient_returnCode_t rc = readField(t, handle, out, name, field, &c);
    if (rc != VELCLIENT_OK) {
        if (out != nullptr && c != nullptr)
            *out = nullptr;
        return rc;
    }
    if (field.type != kind)
        return conversionFailed(t, field);
    rc = _velClient_container_attachSubContainer(c, &field);
    *out = rc == VELCLIENT_OK ? field.value.map : nullptr;
    if (rc == VELCLIENT_FAIL)
        conversionFailed(t, field);
    return rc;
}

} // namespace

extern "C" VELCLIENT_API velClient_returnCode_t velClient_container_getSubMap(velClient_opaqueContainer_pt opaqueCont_p,
                                                                             velClient_opaqueContainer_pt *value,
                                                                             const char *name)
{
    static const GetterTexts texts = VEL_GETTER_TEXTS(getSubMap, "converted to Map");
    return subContainer(texts, VELCLIENT_MAP, opaqueCont_p, value, name);
}

extern "C" VELCLIENT_API velClient_returnCode_t velClient_container_getSubStream(
    velClient_opaqueContainer_pt opaqueCont_p, velClient_opaqueContainer_pt *value, const char *name)
{
    static const GetterTexts texts = VEL_GETTER_TEXTS(getSubStream, "converted to Stream");
    return subContainer(texts, VELCLIENT_STREAM, opaqueCont_p, value, name);
}
