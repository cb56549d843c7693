/*
 * fieldTypes.h - the structured-data field types in one table. Per type: its
 * code, the C type and member of the field's value union it is read through,
 * the type byte it is written with (width bits 0), its value size on the wire
 * (0 for the types whose size varies), the name the dump shows and the name a
 * failed conversion gives. The fixed-size decoder, the lengths the lookup
 * checks accept, the scalar adds, the stored integers the conversions read,
 * the conversion errors and the dump lines all come from it.
 */
#pragma once

#include <array>
#include <cstdint>
#include <cstring>
#include <type_traits>

#include "velClientMsg/container/tlvCodec.h"

/* X(code, C type, union member, type byte, value size, dump name, conversion
 * name) */
#define VEL_FIELD_TYPES(X)                                                                                             \
    X(VELCLIENT_BOOL, velClient_bool_t, boolean, kTypeBool, 1, "BOOL", "BOOLEAN")                                        \
    X(VELCLIENT_UINT8, velClient_uint8_t, uint8, kTypeUint, 1, "UINT8", "Unsigned Int (8 bit)")                          \
    X(VELCLIENT_INT8, velClient_int8_t, int8, kTypeInt, 1, "INT8", "Signed Int (8 bit)")                                 \
    X(VELCLIENT_UINT16, velClient_uint16_t, uint16, kTypeUint, 2, "UINT16", "Unsigned Int (16 bit)")                     \
    X(VELCLIENT_INT16, velClient_int16_t, int16, kTypeInt, 2, "INT16", "Signed Int (16 bit)")                            \
    X(VELCLIENT_UINT32, velClient_uint32_t, uint32, kTypeUint, 4, "UINT32", "Unsigned Int (32 bit)")                     \
    X(VELCLIENT_INT32, velClient_int32_t, int32, kTypeInt, 4, "INT32", "Signed Int (32 bit)")                            \
    X(VELCLIENT_UINT64, velClient_uint64_t, uint64, kTypeUint, 8, "UINT64", "Unsigned Int (64 bit)")                     \
    X(VELCLIENT_INT64, velClient_int64_t, int64, kTypeInt, 8, "INT64", "Signed Int (64 bit)")                            \
    X(VELCLIENT_WCHAR, velClient_wchar_t, wchar, kTypeChar, 2, "WCHAR", "Unicode Character")                             \
    X(VELCLIENT_STRING, const char *, string, kTypeString, 0, "STRING", "String")                                        \
    X(VELCLIENT_BYTEARRAY, velClient_uint8_t *, bytearray, kTypeByteArray, 0, "BYTE ARRAY", "Byte Array")                \
    X(VELCLIENT_FLOAT, float, float32, kTypeFloat, 4, "FLOAT", "Float")                                                  \
    X(VELCLIENT_DOUBLE, double, float64, kTypeFloat, 8, "DOUBLE", "Double")                                              \
    X(VELCLIENT_MAP, velClient_opaqueContainer_pt, map, kTypeMap, 0, "MAP", "Map")                                       \
    X(VELCLIENT_STREAM, velClient_opaqueContainer_pt, stream, kTypeStream, 0, "STREAM", "Stream")                        \
    X(VELCLIENT_NULL, velClient_uint64_t, uint64, kTypeNull, 0, "NULL", "Null")                                          \
    X(VELCLIENT_DESTINATION, velClient_destination_t, dest, kTypeDestination, 0, "DESTINATION", "Destination")           \
    X(VELCLIENT_VWF, velClient_uint8_t *, vwf, kTypeVwf, 0, "VWF", "VWF")

namespace vel::field {

/* One row of the table, as data. */
struct Traits {
    velClient_fieldType_t code;
    std::uint8_t typeByte;
    std::uint8_t size; /* value bytes on the wire; 0 when the size varies */
    const char *dumpName;
    const char *conversionName;
};

inline constexpr Traits kUnknown{VELCLIENT_UNKNOWN, 0xFF, 0, "UNKNOWN", "Unknown"};

#define VEL_FIELD_TRAITS_ROW(code, CType, member, typeByte, size, dumpName, conversionName)                            \
    Traits{code, vel::tlv::typeByte, size, dumpName, conversionName},
inline constexpr Traits kTypes[] = {VEL_FIELD_TYPES(VEL_FIELD_TRAITS_ROW)};
#undef VEL_FIELD_TRAITS_ROW

/* The row of type code (in table order, which is code order), kUnknown for any
 * other. */
constexpr const Traits &traits(std::int64_t code)
{
    return code >= 0 && code < static_cast<std::int64_t>(std::size(kTypes)) ? kTypes[code] : kUnknown;
}
static_assert([] {
    for (std::size_t i = 0; i < std::size(kTypes); ++i)
        if (kTypes[i].code != static_cast<std::int64_t>(i))
            return false;
    return true;
}());

constexpr bool isFixedSize(const Traits &t)
{
    return t.size > 0;
}
constexpr bool isInteger(std::int64_t code)
{
    return code >= VELCLIENT_BOOL && code <= VELCLIENT_INT64;
}

/* The fixed-size type that a type byte with n value bytes (0..8) reads as:
 * the row of that byte and size, and for n == 0 the first (smallest) row of
 * that byte (its zero value); VELCLIENT_UNKNOWN when the byte takes no such
 * length. Indexed by type byte >> 2. */
inline constexpr auto kFixedBySize = [] {
    std::array<std::array<velClient_fieldType_t, 9>, 64> t{};
    for (auto &byLength : t)
        byLength.fill(VELCLIENT_UNKNOWN);
    for (const Traits &row : kTypes) {
        if (!isFixedSize(row))
            continue;
        auto &byLength = t[row.typeByte >> 2];
        byLength[row.size] = row.code;
        if (byLength[0] == VELCLIENT_UNKNOWN)
            byLength[0] = row.code;
    }
    return t;
}();

/* Calls fn(code, value) with the field's type code as a compile-time
 * constant and its value read through the table's union member. */
template <typename Fn> decltype(auto) visit(const velClient_field_t &f, Fn &&fn)
{
    switch (static_cast<std::int64_t>(f.type)) {
#define VEL_FIELD_VISIT_CASE(code, CType, member, typeByte, size, dumpName, conversionName)                            \
    case code: return fn(std::integral_constant<std::int64_t, code>{}, f.value.member);
        VEL_FIELD_TYPES(VEL_FIELD_VISIT_CASE)
#undef VEL_FIELD_VISIT_CASE
    default: return fn(std::integral_constant<std::int64_t, VELCLIENT_UNKNOWN>{}, f.value.unknownField);
    }
}

/* Stores raw, the value bytes of a fixed-size field of type code read
 * big-endian, into the field's union member for that type (a boolean reads
 * as 1 for any non-zero byte). */
inline void storeFixed(velClient_field_t &f, velClient_fieldType_t code, std::uint64_t raw)
{
    auto store = [raw](auto &member) {
        using T = std::remove_reference_t<decltype(member)>;
        if constexpr (std::is_same_v<T, float>) {
            const auto bits = static_cast<std::uint32_t>(raw);
            std::memcpy(&member, &bits, sizeof bits);
        } else if constexpr (std::is_same_v<T, double>) {
            std::memcpy(&member, &raw, sizeof raw);
        } else if constexpr (std::is_integral_v<T>) {
            member = static_cast<T>(raw);
        }
    };
    f.value.uint64 = 0;
    if (code == VELCLIENT_BOOL) {
        f.value.boolean = raw != 0;
        return;
    }
    switch (code) {
#define VEL_FIELD_STORE_CASE(code, CType, member, typeByte, size, dumpName, conversionName)                            \
    case code: store(f.value.member); return;
        VEL_FIELD_TYPES(VEL_FIELD_STORE_CASE)
#undef VEL_FIELD_STORE_CASE
    default: return;
    }
}

} // namespace vel::field
