/*
 * tlvCodec.h - the structured-data encoding: one field is
 *
 *     +-----------+------------------+--------------------------------+
 *     | type byte | length (1-4 B BE)| value (tlvLength - 1 - width)  |
 *     +-----------+------------------+--------------------------------+
 *     type byte = (wire type << 2) | (length width - 1)
 *     tlvLength counts the whole field, type byte and length included.
 *
 * Example: the map holding "a" = unsigned 8-bit 7 is
 *     2B 00 00 00 0C | 1C 04 61 00 | 0C 03 07
 *     map, tlvLength 12 | name "a\0" | uint8 7
 *
 * Maps and streams always have a 5-byte header (0x2B / 0x2F and a 4-byte
 * length). Variable-size values take the smallest width that holds
 * tlvLength: value length L (strings count their NUL) 0..253 -> 1 byte,
 * ..65532 -> 2, ..16777211 -> 3, else 4.
 *
 * This header holds the constants, the big-endian helpers and the width rule
 * (inline, used by the writer and the reader alike) and the reader's
 * decoders of one field and of one entry (tlvCodec.cpp).
 */
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "velclient/velClientMsg.h"

namespace vel::tlv {

/* Type bytes as the writer emits them (width bits 0 unless stated). */
inline constexpr std::uint8_t kTypeNull = 0x00;
inline constexpr std::uint8_t kTypeBool = 0x04;
inline constexpr std::uint8_t kTypeInt = 0x08;
inline constexpr std::uint8_t kTypeUint = 0x0C;
inline constexpr std::uint8_t kTypeFloat = 0x10;
inline constexpr std::uint8_t kTypeChar = 0x14;
inline constexpr std::uint8_t kTypeByteArray = 0x18; /* + width - 1 */
inline constexpr std::uint8_t kTypeString = 0x1C;    /* + width - 1 */
inline constexpr std::uint8_t kTypeDestination = 0x20;
inline constexpr std::uint8_t kTypeVwf = 0x24; /* + width - 1 */
inline constexpr std::uint8_t kTypeMap = 0x2B;
inline constexpr std::uint8_t kTypeStream = 0x2F;

inline constexpr std::uint32_t kContainerHeaderSize = 5;
/* Largest destination name, NUL included, that the writer accepts. */
inline constexpr std::uint32_t kMaxDestNameWithNul = 250;
/* Destination kind byte. */
inline constexpr std::uint8_t kDestKindTopic = 0;
inline constexpr std::uint8_t kDestKindQueue = 1;

inline void putBE(std::uint8_t *p, std::uint64_t value, unsigned width) noexcept
{
    switch (width) {
    case 1: p[0] = static_cast<std::uint8_t>(value); return;
    case 4: {
        std::uint32_t be = __builtin_bswap32(static_cast<std::uint32_t>(value));
        std::memcpy(p, &be, 4);
        return;
    }
    case 8: {
        std::uint64_t be = __builtin_bswap64(value);
        std::memcpy(p, &be, 8);
        return;
    }
    default:
        for (unsigned i = width; i-- > 0;) {
            p[i] = static_cast<std::uint8_t>(value);
            value >>= 8;
        }
    }
}

/* The widths a field uses most (1, 2, 4, 8) are single loads. */
inline std::uint64_t getBE(const std::uint8_t *p, unsigned width) noexcept
{
    switch (width) {
    case 1: return p[0];
    case 2: return static_cast<std::uint64_t>(p[0]) << 8 | p[1];
    case 4: {
        std::uint32_t v;
        std::memcpy(&v, p, 4);
        return __builtin_bswap32(v);
    }
    case 8: {
        std::uint64_t v;
        std::memcpy(&v, p, 8);
        return __builtin_bswap64(v);
    }
    default: {
        std::uint64_t value = 0;
        for (unsigned i = 0; i < width; ++i)
            value = (value << 8) | p[i];
        return value;
    }
    }
}

/* Equal n-byte keys; short ones (16 bytes or fewer) compared inline, as two
 * words that overlap in the middle (or, below 4 bytes, the first, middle
 * and last bytes, which are all of them). */
inline bool sameBytes(const void *a, const void *b, std::size_t n) noexcept
{
    const auto *x = static_cast<const std::uint8_t *>(a);
    const auto *y = static_cast<const std::uint8_t *>(b);
    auto twoWords = [&](auto word) {
        decltype(word) x0, x1, y0, y1;
        std::memcpy(&x0, x, sizeof word);
        std::memcpy(&y0, y, sizeof word);
        std::memcpy(&x1, x + n - sizeof word, sizeof word);
        std::memcpy(&y1, y + n - sizeof word, sizeof word);
        return ((x0 ^ y0) | (x1 ^ y1)) == 0;
    };
    if (n > 16)
        return std::memcmp(a, b, n) == 0;
    if (n >= 8)
        return twoWords(std::uint64_t{});
    if (n >= 4)
        return twoWords(std::uint32_t{});
    return n == 0 || (x[0] == y[0] && x[n / 2] == y[n / 2] && x[n - 1] == y[n - 1]);
}

/* memcpy for the short names and texts that fields mostly hold: 4 to 32
 * bytes in two overlapping moves of a fixed size, anything else by memcpy. */
inline void copyBytes(void *dst, const void *src, std::size_t n) noexcept
{
    auto *d = static_cast<std::uint8_t *>(dst);
    const auto *s = static_cast<const std::uint8_t *>(src);
    auto twoMoves = [&](auto word) {
        std::memcpy(&word, s, sizeof word);
        std::memcpy(d, &word, sizeof word);
        std::memcpy(&word, s + n - sizeof word, sizeof word);
        std::memcpy(d + n - sizeof word, &word, sizeof word);
    };
    struct Bytes16 {
        std::uint64_t lo, hi;
    };
    if (n > 32 || n < 4)
        std::memcpy(d, s, n);
    else if (n >= 16)
        twoMoves(Bytes16{});
    else if (n >= 8)
        twoMoves(std::uint64_t{});
    else
        twoMoves(std::uint32_t{});
}

/* true when the 8 bytes of w hold a zero byte. */
inline bool hasZeroByte(std::uint64_t w) noexcept
{
    return ((w - 0x0101010101010101ull) & ~w & 0x8080808080808080ull) != 0;
}

/* true when the n bytes at v end with their only NUL: a well-formed text.
 * Texts of 8 to 16 bytes (most keys) are checked as two overlapping words,
 * of 17 to 24 bytes as three, up to 65 bytes 8 at a time inline, the last word overlapping the one
 * before; longer ones by memchr. */
inline bool isCString(const void *v, std::size_t n) noexcept
{
    const auto *b = static_cast<const std::uint8_t *>(v);
    if (n == 0 || b[n - 1] != 0)
        return false;
    const std::size_t body = n - 1;
    constexpr std::uint64_t kNulByte = 0xFF00000000000000ull; /* masks the NUL once loaded */
    std::uint64_t w;
    if (n >= 8 && n <= 16) { /* most keys: the first and the last 8 bytes */
        std::uint64_t first;
        std::memcpy(&first, b, 8);
        std::memcpy(&w, b + n - 8, 8);
        return !hasZeroByte(first | (n == 8 ? kNulByte : 0)) && !hasZeroByte(w | kNulByte);
    }
    if (n > 16 && n <= 24) { /* short values: the first 16 bytes and the last 8 */
        std::uint64_t first, second;
        std::memcpy(&first, b, 8);
        std::memcpy(&second, b + 8, 8);
        std::memcpy(&w, b + n - 8, 8);
        return !hasZeroByte(first) && !hasZeroByte(second) && !hasZeroByte(w | kNulByte);
    }
    if (body > 64)
        return std::memchr(b, 0, body) == nullptr;
    if (n < 8) {
        for (std::size_t i = 0; i < body; ++i)
            if (b[i] == 0)
                return false;
        return true;
    }
    std::size_t i = 0;
    for (; i + 8 <= body; i += 8) {
        std::memcpy(&w, b + i, 8);
        if (hasZeroByte(w))
            return false;
    }
    if (i == body)
        return true;
    /* The last 8 bytes end with the NUL (the top byte once loaded): mask it. */
    std::memcpy(&w, b + n - 8, 8);
    return !hasZeroByte(w | kNulByte);
}

/* Length width (1..4) for a variable-size value of valueLength bytes. */
inline unsigned widthFor(std::uint64_t valueLength) noexcept
{
    if (valueLength <= 253)
        return 1;
    if (valueLength <= 65532)
        return 2;
    if (valueLength <= 16777211)
        return 3;
    return 4;
}

/* tlvLength of a variable-size field holding valueLength bytes. */
inline std::uint64_t varFieldSize(std::uint64_t valueLength) noexcept
{
    return valueLength + 1 + widthFor(valueLength);
}

/* Writes the type byte and length of a variable-size field whose type byte
 * base (width bits 0) is typeBase; returns where the value goes. */
inline std::uint8_t *writeVarHeader(std::uint8_t *p, std::uint8_t typeBase, std::uint32_t valueLength) noexcept
{
    unsigned width = widthFor(valueLength);
    p[0] = static_cast<std::uint8_t>(typeBase | (width - 1));
    putBE(p + 1, valueLength + 1 + width, width);
    return p + 1 + width;
}

/*
 * Decodes the field whose type byte is at p and which must end at or before
 * end. On success fills *field_p as the application sees it (pointers into
 * the bytes; a map or stream gets its type and length = tlvLength - 5 with
 * value.map / value.stream left nullptr for the caller to fill) and returns the
 * field's tlvLength. Returns -1 for a malformed field: a length that runs past
 * end or is shorter than the field's own header, a fixed-size type with a
 * length it does not accept, a string or destination name breaking the NUL
 * rule, a map or stream shorter than 5 bytes, tlvLength 0xFFFFFFFF.
 * Records nothing: the caller says what is wrong.
 */
std::int64_t decodeField(const std::uint8_t *p, const std::uint8_t *end, velClient_field_t *field_p);

/* What is wrong with a map entry (key, then value) or a stream value. */
enum class Fault : std::uint8_t {
    none,
    keyNotString, /* the key's type byte is not a string's */
    keyCut,       /* the key's own header does not fit before the end */
    keyShort,     /* the key's length is shorter than its own header */
    keyPastEnd,   /* the key's length runs past the end */
    keyNotText,   /* the key is not a text ending with its only NUL (or empty in the 1-byte form) */
    valueMissing, /* the key ends where the bytes do */
    valueCut,     /* the value's own header does not fit before the end */
    valuePastEnd, /* the value's length runs past the end (Entry::valueLength holds it) */
    valueBad,     /* decodeField refuses the value */
};

/* One decoded entry: in a map its key and value, in a stream its value. */
struct Entry {
    std::uint32_t keyLength = 0;   /* 0 in a stream */
    std::uint32_t valueLength = 0; /* also the declared length of a value that runs past the end */
    const char *name = nullptr;    /* nullptr for the empty key */
    velClient_field_t value{};
};

/* The value at p (p < end), into e.value and e.valueLength. */
Fault decodeValue(const std::uint8_t *p, const std::uint8_t *end, Entry &e);
/* The map entry at pos (pos < end): key, then value. */
Fault decodeEntry(const std::uint8_t *pos, const std::uint8_t *end, Entry &e);

} // namespace vel::tlv
