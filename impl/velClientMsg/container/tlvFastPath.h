/*
 * tlvFastPath.h - the commonest fields (a string, boolean, integer or float
 * with a 1-byte length) decoded and checked inline, so that the readers that
 * walk containers entry by entry compile them into their loops. Anything
 * else goes to vel::tlv::decodeField (tlvCodec.cpp), whose checks and
 * results these agree with; a test holds them to it for every type byte,
 * length and kind of content.
 */
#pragma once

#include <array>
#include <bit>
#include <initializer_list>

#include "velClientMsg/container/fieldTypes.h"
#include "velClientMsg/container/tlvCodec.h"

namespace vel::tlv {

/* A fixed-size field of tlvLength len at p: its value decoded into f.
 * Returns len, or -1 when the type byte takes no value of that size. */
inline std::int64_t decodeFixed(const std::uint8_t *p, std::uint32_t len, velClient_field_t *f)
{
    const std::uint32_t n = len - 2; /* value bytes */
    const velClient_fieldType_t type = n <= 8 ? vel::field::kFixedBySize[p[0] >> 2][n] : VELCLIENT_UNKNOWN;
    if (type == VELCLIENT_UNKNOWN)
        return -1;
    f->type = type;
    const std::uint64_t raw = getBE(p + 2, n);
    if constexpr (std::endian::native == std::endian::little) {
        /* raw holds n bytes, the size of the type's member: the union reads
         * it through that member as storeFixed stores it, the rest zero. */
        f->value.uint64 = type == VELCLIENT_BOOL ? (raw != 0 ? 1 : 0) : raw;
    } else {
        vel::field::storeFixed(*f, type, raw);
    }
    f->length = n;
    return len;
}

/* A text of n bytes (n > 0) at v: with known (a field checked before whose
 * bytes may have changed since), only that it ends with a NUL, so that it
 * ends inside them; else that this NUL is its only one. */
template <bool known>
inline bool textEnds(const std::uint8_t *v, std::size_t n) noexcept
{
    return known ? v[n - 1] == 0 : isCString(v, n);
}

/* The field at p, in room bytes, decoded when it is one of the commonest:
 * returns its length, or 0 for any other field and for one that decodeField
 * would refuse (the caller then hands it to decodeField). With known, a
 * string is checked as textEnds<true> checks it. */
template <bool known = false>
inline std::uint32_t decodeCommon(const std::uint8_t *p, std::ptrdiff_t room, velClient_field_t *f)
{
    if (room < 2)
        return 0;
    const std::uint32_t len = p[1];
    if (len < 2 || len > room)
        return 0;
    switch (p[0]) {
    case kTypeString: {
        const std::uint32_t n = len - 2;
        if (n == 0 || !textEnds<known>(p + 2, n))
            return 0;
        f->type = VELCLIENT_STRING;
        f->length = n;
        f->value.bytearray = const_cast<std::uint8_t *>(p + 2);
        return len;
    }
    case kTypeBool:
    case kTypeInt:
    case kTypeUint:
    case kTypeFloat: return decodeFixed(p, len, f) < 0 ? 0 : len;
    default: return 0;
    }
}

namespace check_detail {

/* What a field with a 1-byte length accepts as its value length n, by type
 * byte >> 2: bit n for a fixed-size type (its sizes from the field-type
 * table, and 0), kAnyLength for a type that takes any length, kText for a
 * string (n == 0, or a text ending with its only NUL). 0 sends the field to
 * decodeField (destinations, whose value is a kind byte and a text). */
inline constexpr std::uint16_t kAnyLength = 0x8000;
inline constexpr std::uint16_t kText = 0x4000;
inline constexpr auto kAccepts = [] {
    std::array<std::uint16_t, 64> t{};
    t.fill(kAnyLength); /* null, byte array, VWF and unrecognised types */
    for (const vel::field::Traits &row : vel::field::kTypes)
        if (vel::field::isFixedSize(row))
            t[row.typeByte >> 2] = static_cast<std::uint16_t>(
                (t[row.typeByte >> 2] == kAnyLength ? 1u : t[row.typeByte >> 2]) | 1u << row.size);
    t[kTypeString >> 2] = kText;
    t[kTypeDestination >> 2] = 0;
    return t;
}();

} // namespace check_detail

/* Checks the field at p, in room bytes, as decodeField would, without
 * decoding it, when its length takes 1 byte: returns its length when
 * decodeField would accept it, 0 for any other field (which may or may not be
 * well formed: decodeField tells). */
inline std::uint32_t checkCommon(const std::uint8_t *p, std::ptrdiff_t room)
{
    using namespace check_detail;
    if (room < 2 || (p[0] & 0x03) != 0)
        return 0;
    const std::uint32_t len = p[1];
    if (len < 2 || len > room)
        return 0;
    const std::uint32_t n = len - 2;
    const std::uint16_t accepts = kAccepts[p[0] >> 2];
    if ((accepts & kAnyLength) != 0 || (n <= 8 && (accepts >> n & 1u) != 0))
        return len;
    if ((accepts & kText) != 0 && (n == 0 || isCString(p + 2, n)))
        return len;
    return 0;
}

} // namespace vel::tlv
