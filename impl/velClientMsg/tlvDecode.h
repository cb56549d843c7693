/*
 * tlvDecode.h - decoding one structured-data field, inline so that the
 * readers that walk containers entry by entry compile it into their loops.
 * _velClient_tlv_decodeField (tlvCodec.cpp) is the same, out of line.
 */
#pragma once

#include <array>
#include <cstring>
#include <initializer_list>

#include "velClientMsg/tlvCodec.h"
#include "velClientMsg/velClientMsgPrivate.h"

namespace vel::tlv {

namespace decode_detail {


inline constexpr std::int64_t kBad = -1;

/* Fixed-size fields: decode a value of tlvLength bytes at p (length byte checked). */
inline std::int64_t decodeFixed(const std::uint8_t *p, std::uint32_t len, velClient_field_t *f)
{
    const std::uint8_t *v = p + 2;
    std::uint32_t n = len - 2; /* value bytes */
    auto be = [&] { return getBE(v, n); };
    switch (p[0]) {
    case TB_BOOL:
        if (n > 1)
            return kBad;
        f->type = VELCLIENT_BOOL;
        f->value.boolean = n == 1 && v[0] != 0;
        break;
    case TB_INT:
    case TB_UINT: {
        static constexpr velClient_fieldType_t kSigned[] = {VELCLIENT_INT8, VELCLIENT_INT8, VELCLIENT_INT16,
                                                            VELCLIENT_UNKNOWN, VELCLIENT_INT32, VELCLIENT_UNKNOWN,
                                                            VELCLIENT_UNKNOWN, VELCLIENT_UNKNOWN, VELCLIENT_INT64};
        static constexpr velClient_fieldType_t kUnsigned[] = {VELCLIENT_UINT8, VELCLIENT_UINT8, VELCLIENT_UINT16,
                                                              VELCLIENT_UNKNOWN, VELCLIENT_UINT32, VELCLIENT_UNKNOWN,
                                                              VELCLIENT_UNKNOWN, VELCLIENT_UNKNOWN, VELCLIENT_UINT64};
        if (n > 8 || kSigned[n] == VELCLIENT_UNKNOWN)
            return kBad;
        bool isSigned = p[0] == TB_INT;
        std::uint64_t raw = be();
        f->type = isSigned ? kSigned[n] : kUnsigned[n];
        f->value.uint64 = 0;
        switch (n) {
        case 0:
        case 1:
            if (isSigned) f->value.int8 = static_cast<std::int8_t>(raw); else f->value.uint8 = static_cast<std::uint8_t>(raw);
            break;
        case 2:
            if (isSigned) f->value.int16 = static_cast<std::int16_t>(raw); else f->value.uint16 = static_cast<std::uint16_t>(raw);
            break;
        case 4:
            if (isSigned) f->value.int32 = static_cast<std::int32_t>(raw); else f->value.uint32 = static_cast<std::uint32_t>(raw);
            break;
        default:
            f->value.uint64 = raw;
        }
        break;
    }
    case TB_FLOAT:
        if (n == 0 || n == 4) {
            auto bits = static_cast<std::uint32_t>(be());
            f->type = VELCLIENT_FLOAT;
            std::memcpy(&f->value.float32, &bits, 4);
        } else if (n == 8) {
            std::uint64_t bits = be();
            f->type = VELCLIENT_DOUBLE;
            std::memcpy(&f->value.float64, &bits, 8);
        } else {
            return kBad;
        }
        break;
    case TB_CHAR:
        if (n != 0 && n != 2)
            return kBad;
        f->type = VELCLIENT_WCHAR;
        f->value.wchar = static_cast<velClient_wchar_t>(be());
        break;
    default:
        return kBad;
    }
    f->length = n;
    return len;
}

/* True when value (n bytes) is a C string ending at its last byte. */
inline std::int64_t decodeDestination(const std::uint8_t *v, std::uint32_t n, std::uint32_t len, velClient_field_t *f)
{
    f->type = VELCLIENT_DESTINATION;
    f->length = n;
    if (n == 0) {
        f->value.dest = velClient_destination_t{VELCLIENT_NULL_DESTINATION, nullptr};
        return len;
    }
    if (!isCString(v + 1, n - 1))
        return kBad;
    const char *name = reinterpret_cast<const char *>(v + 1);
    std::int64_t type = std::strncmp(name, "#P2P/QTMP/", 10) == 0 ? std::int64_t{VELCLIENT_QUEUE_TEMP_DESTINATION} : std::int64_t{v[0]};
    f->value.dest.dest = name;
    /* The kind byte is taken as it stands, even when it names no known type. */
    vel::setEnumValue(f->value.dest.destType, type);
    return len;
}

/* Variable-size fields (byte array, string, VWF, destination, map, stream). */
inline std::int64_t decodeVariable(const std::uint8_t *p, std::uint32_t len, unsigned width, velClient_field_t *f)
{
    const std::uint8_t *v = p + 1 + width;
    std::uint32_t n = len - 1 - width;
    switch (p[0] & 0xFC) {
    case TB_BYTEARRAY:
    case TB_VWF:
    case TB_STRING: {
        /* An empty value is the null string / array: tlvLength 2 in the
         * 1-byte form, the bare header in the wider ones. */
        bool empty = n == 0;
        if ((p[0] & 0xFC) == TB_STRING && !empty && !isCString(v, n))
            return kBad;
        f->type = (p[0] & 0xFC) == TB_STRING ? VELCLIENT_STRING
                  : (p[0] & 0xFC) == TB_VWF  ? VELCLIENT_VWF
                                             : VELCLIENT_BYTEARRAY;
        f->length = empty ? 0 : n;
        f->value.bytearray = empty ? nullptr : const_cast<std::uint8_t *>(v);
        return len;
    }
    case TB_DESTINATION:
        return decodeDestination(v, n, len, f);
    default: /* map or stream */
        if (len < CONTAINER_HEADER_SIZE)
            return kBad;
        f->type = p[0] == TB_MAP ? VELCLIENT_MAP : VELCLIENT_STREAM;
        f->length = len - CONTAINER_HEADER_SIZE;
        f->value.map = nullptr;
        return len;
    }
}

/* Recognised type bytes and the length width each is recognised with. */
inline bool recognised(std::uint8_t tb)
{
    switch (tb & 0xFC) {
    case TB_NULL:
    case TB_BOOL:
    case TB_INT:
    case TB_UINT:
    case TB_FLOAT:
    case TB_CHAR: return (tb & 0x03) == 0;
    case TB_BYTEARRAY:
    case TB_STRING:
    case TB_VWF: return true;
    case TB_DESTINATION: return (tb & 0x03) <= 1;
    case 0x28: return tb == TB_MAP;
    case 0x2C: return tb == TB_STREAM;
    default: return false;
    }
}


} // namespace decode_detail

/* The commonest values - a string, boolean, integer or float with a 1-byte
 * length - decoded with decodeField's checks and results, in room bytes.
 * Returns the field's length, or 0 for any other field and for one that
 * decodeField would refuse: the caller then hands it to decodeField. */
inline std::uint32_t decodeCommon(const std::uint8_t *p, std::ptrdiff_t room, velClient_field_t *f)
{
    if (room < 2)
        return 0;
    const std::uint32_t len = p[1];
    if (len < 2 || len > room)
        return 0;
    switch (p[0]) {
    case TB_STRING: {
        const std::uint32_t n = len - 2;
        if (n == 0 || !isCString(p + 2, n))
            return 0;
        f->type = VELCLIENT_STRING;
        f->length = n;
        f->value.bytearray = const_cast<std::uint8_t *>(p + 2);
        return len;
    }
    case TB_BOOL:
    case TB_INT:
    case TB_UINT:
    case TB_FLOAT:
        return decode_detail::decodeFixed(p, len, f) < 0 ? 0 : len;
    default:
        return 0;
    }
}

namespace check_detail {

/* What a field with a 1-byte length (type byte's width bits 0) accepts as its
 * value length n, by type byte >> 2: bit n for a fixed-size type, kAnyLength
 * for a type that takes any length, kText for a string (n == 0, or a text
 * ending with its only NUL). 0 sends the field to decodeField (destinations,
 * whose value is a kind byte and a text). A test checks the table against
 * decodeField for every type byte, length and kind of content. */
inline constexpr std::uint16_t kAnyLength = 0x8000;
inline constexpr std::uint16_t kText = 0x4000;
inline constexpr std::uint16_t lengths(std::initializer_list<unsigned> ns)
{
    std::uint16_t m = 0;
    for (unsigned n : ns)
        m = static_cast<std::uint16_t>(m | 1u << n);
    return m;
}
inline constexpr auto kAccepts = [] {
    std::array<std::uint16_t, 64> t{};
    t.fill(kAnyLength); /* null, byte array, VWF and unrecognised types */
    t[TB_BOOL >> 2] = lengths({0, 1});
    t[TB_INT >> 2] = t[TB_UINT >> 2] = lengths({0, 1, 2, 4, 8});
    t[TB_FLOAT >> 2] = lengths({0, 4, 8});
    t[TB_CHAR >> 2] = lengths({0, 2});
    t[TB_STRING >> 2] = kText;
    t[TB_DESTINATION >> 2] = 0;
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

/* See _velClient_tlv_decodeField in tlvCodec.h. */
inline std::int64_t decodeField(const std::uint8_t *p, const std::uint8_t *end, velClient_field_t *f)
{
    using namespace decode_detail;

    if (end - p < 2)
        return kBad;
    std::uint8_t tb = p[0];
    unsigned width = (tb & 0x03) + 1u;
    if (end - p < static_cast<std::ptrdiff_t>(1 + width))
        return kBad;
    std::uint64_t len = getBE(p + 1, width);
    if (len == 0xFFFFFFFFu || len < 1 + width || len > static_cast<std::uint64_t>(end - p))
        return kBad;
    auto len32 = static_cast<std::uint32_t>(len);
    if (!recognised(tb)) {
        f->type = VELCLIENT_UNKNOWN;
        f->length = len32;
        f->value.unknownField = const_cast<std::uint8_t *>(p);
        return len32;
    }
    if (tb == TB_NULL) {
        /* A null field occupies its length byte's count; it must at least hold its header. */
        f->type = VELCLIENT_NULL;
        f->length = 0;
        f->value.uint64 = 0;
        return len32;
    }
    if ((tb & 0xFC) < TB_BYTEARRAY)
        return decodeFixed(p, len32, f);
    return decodeVariable(p, len32, width, f);
}

} // namespace vel::tlv
