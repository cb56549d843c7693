/* Decoding one structured-data field from hand-made bytes, each in a heap
 * buffer of exactly its size (a read past it is caught by the sanitizer). */
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <numeric>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "velClientMsg/container/tlvCodec.h"
#include "velClientMsg/container/tlvFastPath.h"

namespace {

using Bytes = std::vector<std::uint8_t>;

struct Decoded {
    std::int64_t size;
    velClient_field_t field;
    const std::uint8_t *at; /* where the copy started (for pointer checks) */
    std::unique_ptr<std::uint8_t[]> copy;
};

Decoded decode(const Bytes &bytes)
{
    Decoded d{};
    d.copy.reset(new std::uint8_t[bytes.size()]);
    std::copy(bytes.begin(), bytes.end(), d.copy.get());
    d.at = d.copy.get();
    std::memset(&d.field, 0xA5, sizeof d.field);
    d.size = vel::tlv::decodeField(d.at, d.at + bytes.size(), &d.field);
    return d;
}

struct FixedRow {
    std::uint8_t typeByte;
    unsigned tlvLength;
    velClient_fieldType_t type;
};

/* Every tlvLength each fixed-size type byte accepts, and the type it reads as. */
const FixedRow kAccepted[] = {
    {0x04, 2, VELCLIENT_BOOL},    {0x04, 3, VELCLIENT_BOOL},    {0x08, 2, VELCLIENT_INT8},    {0x08, 3, VELCLIENT_INT8},
    {0x08, 4, VELCLIENT_INT16},   {0x08, 6, VELCLIENT_INT32},   {0x08, 10, VELCLIENT_INT64},  {0x0C, 2, VELCLIENT_UINT8},
    {0x0C, 3, VELCLIENT_UINT8},   {0x0C, 4, VELCLIENT_UINT16},  {0x0C, 6, VELCLIENT_UINT32},  {0x0C, 10, VELCLIENT_UINT64},
    {0x10, 2, VELCLIENT_FLOAT},   {0x10, 6, VELCLIENT_FLOAT},   {0x10, 10, VELCLIENT_DOUBLE}, {0x14, 2, VELCLIENT_WCHAR},
    {0x14, 4, VELCLIENT_WCHAR},
};

} // namespace

TEST(TlvDecode, VariableSizeFieldsTheirWidthsRefusalsAndTemporaryQueueNames)
{
    /* size -1: refused; value offset -1: no value pointer. */
    struct Row {
        Bytes bytes;
        std::int64_t size;
        velClient_fieldType_t type;
        std::uint32_t length;
        int valueAt;
    };
    const auto U = VELCLIENT_UNKNOWN, S = VELCLIENT_STRING, D = VELCLIENT_DESTINATION;
    const Row rows[] = {
        {{0x00, 0x02}, 2, VELCLIENT_NULL, 0, -1},
        {{0x00, 0x04, 0xAA, 0xBB}, 4, VELCLIENT_NULL, 0, -1}, /* a null occupies its length */
        {{0x00, 0x00}, -1, U, 0, 0}, {{0x00, 0x01}, -1, U, 0, 0}, {{0x00, 0x05, 0xAA, 0xBB}, -1, U, 0, 0},
        /* Known types with another length width, and types not known at all: the whole field. */
        {{0x05, 0x00, 0x04, 0x01}, 4, U, 4, 0}, {{0x09, 0x00, 0x04, 0x01}, 4, U, 4, 0},
        {{0x01, 0x00, 0x03}, 3, U, 3, 0}, {{0x22, 0x00, 0x00, 0x06, 0x00, 0x00}, 6, U, 6, 0},
        {{0x28, 0x02}, 2, U, 2, 0}, {{0x29, 0x00, 0x03}, 3, U, 3, 0}, {{0x2C, 0x03, 0x00}, 3, U, 3, 0},
        {{0x30, 0x02}, 2, U, 2, 0}, {{0xFF, 0x00, 0x00, 0x00, 0x06, 0x09}, 6, U, 6, 0},
        {{0x05, 0x00, 0x05, 0x01}, -1, U, 0, 0}, {{0x05, 0x00, 0x02}, -1, U, 0, 0},
        /* Texts: exactly one NUL, as the last value byte. */
        {{0x1C, 0x05, 'a', 'b', 0x00}, 5, S, 3, 2}, {{0x1D, 0x00, 0x05, 'z', 0x00}, 5, S, 2, 3},
        {{0x1C, 0x04, 'a', 'b'}, -1, S, 0, 0}, {{0x1C, 0x05, 'a', 0x00, 0x00}, -1, S, 0, 0},
        {{0x1C, 0x05, 0x00, 'b', 0x00}, -1, S, 0, 0}, {{0x1C, 0x03, 'a'}, -1, S, 0, 0},
        {{0x18, 0x05, 0x00, 0x01, 0x00}, 5, VELCLIENT_BYTEARRAY, 3, 2}, /* NULs are data in a byte array */
        {{0x27, 0x00, 0x00, 0x00, 0x06, 0x42}, 6, VELCLIENT_VWF, 1, 5},
        {{0x25, 0x00, 0x04, 0x09}, 4, VELCLIENT_VWF, 1, 3}, /* 2-byte length */
        {{0x1E, 0x00, 0x00, 0x06, 'a', 0x00}, 6, S, 2, 4}, /* 3- and 4-byte lengths */
        {{0x1B, 0x00, 0x00, 0x00, 0x07, 0x01, 0x02}, 7, VELCLIENT_BYTEARRAY, 2, 5},
        /* An empty value is null; a wider form is refused below its own header. */
        {{0x1C, 0x02}, 2, S, 0, -1}, {{0x18, 0x02}, 2, VELCLIENT_BYTEARRAY, 0, -1},
        {{0x24, 0x02}, 2, VELCLIENT_VWF, 0, -1}, {{0x1D, 0x00, 0x03}, 3, S, 0, -1}, {{0x1D, 0x00, 0x02}, -1, S, 0, 0},
        {{0x1F, 0x00, 0x00, 0x00, 0x04}, -1, S, 0, 0},
        /* Destinations: a kind byte, then a text; empty is the null destination. */
        {{0x20, 0x06, 0x01, 'q', '1', 0x00}, 6, D, 4, -1}, {{0x21, 0x00, 0x06, 0x01, 'q', 0x00}, 6, D, 3, -1},
        {{0x20, 0x02}, 2, D, 0, -1}, {{0x20, 0x03, 0x01}, -1, D, 0, 0}, {{0x20, 0x05, 0x01, 'q', 'x'}, -1, D, 0, 0},
        {{0x20, 0x06, 0x01, 'q', 0x00, 0x00}, -1, D, 0, 0},
        /* Maps and streams report the length of their fields. */
        {{0x2B, 0x00, 0x00, 0x00, 0x05}, 5, VELCLIENT_MAP, 0, -1},
        {{0x2F, 0x00, 0x00, 0x00, 0x07, 0x00, 0x02}, 7, VELCLIENT_STREAM, 2, -1},
        {{0x2B, 0x00, 0x00, 0x00, 0x04}, -1, U, 0, 0}, {{0x2B, 0x00, 0x00, 0x00, 0x00}, -1, U, 0, 0},
        {{0x2B, 0xFF, 0xFF, 0xFF, 0xFF}, -1, U, 0, 0}, {{0x2F, 0x00, 0x00, 0x00, 0x08, 0x00, 0x02}, -1, U, 0, 0},
    };
    for (const Row &r : rows) {
        SCOPED_TRACE(testing::Message() << "row " << (&r - rows) << ", type byte " << int(r.bytes[0]));
        Decoded d = decode(r.bytes);
        ASSERT_EQ(r.size, d.size);
        if (r.size < 0)
            continue;
        for (std::size_t k = 0; k < r.bytes.size(); ++k) /* every cut is refused without reading past its end */
            EXPECT_EQ(-1, decode(Bytes(r.bytes.begin(), r.bytes.begin() + static_cast<std::ptrdiff_t>(k))).size) << k;
        EXPECT_EQ(r.type, d.field.type);
        EXPECT_EQ(r.length, d.field.length);
        if (r.type == VELCLIENT_UNKNOWN || r.valueAt >= 0) {
            EXPECT_EQ(d.at + std::max(r.valueAt, 0), d.field.value.bytearray);
        } else if (r.type != VELCLIENT_DESTINATION && r.type != VELCLIENT_NULL && r.type < VELCLIENT_MAP) {
            EXPECT_EQ(nullptr, d.field.value.bytearray);
        }
    }
    /* A name starting "#P2P/QTMP/" is a temporary queue whatever the kind byte
     * says (a temporary topic reads back as a topic); without its slash it is not. */
    const std::string tmp("#P2P/QTMP/a\0", 12);
    const std::tuple<std::string, velClient_destinationType_t, const char *> tmpRows[] = {
        {std::string("\x20\x0F\x00", 3) + tmp, VELCLIENT_QUEUE_TEMP_DESTINATION, "#P2P/QTMP/a"},
        {"\x20\x0F\x01" + tmp, VELCLIENT_QUEUE_TEMP_DESTINATION, "#P2P/QTMP/a"},
        {std::string("\x20\x0D\x00#P2P/QTMP\0", 13), VELCLIENT_TOPIC_DESTINATION, "#P2P/QTMP"},
    };
    for (const auto &[bytes, type, name] : tmpRows) {
        Decoded d = decode(Bytes(bytes.begin(), bytes.end()));
        EXPECT_EQ(type, d.field.value.dest.destType) << name;
        EXPECT_STREQ(name, d.field.value.dest.dest);
    }
    EXPECT_EQ(nullptr, decode({0x20, 0x02}).field.value.dest.dest); /* the null destination */
}

TEST(TlvShortPaths, AgreeWithTheFullDecoderOnEveryTypeLengthAndContent)
{
    /* Every 1-byte-length field up to 40 bytes, whole and cut short: what the
     * short paths accept, the full decoder accepts the same way; and the
     * lengths the full decoder takes for each fixed-size type. */
    const auto contents = [](unsigned n, int kind) { /* plain, a text, all NULs, a stray NUL */
        Bytes v(n, kind == 2 ? 0 : 'x');
        if ((kind == 1 || kind == 3) && n > 0)
            v[n - 1] = 0;
        if (kind == 3 && n > 1)
            v[n / 2] = 0;
        return v;
    };
    for (unsigned tb = 0; tb < 256; ++tb) {
        for (unsigned len = 0; len <= 40; ++len) {
            for (int kind = 0; kind < 4; ++kind) {
                Bytes field{static_cast<std::uint8_t>(tb), static_cast<std::uint8_t>(len)};
                Bytes value = contents(len > 2 ? len - 2 : 0, kind);
                field.insert(field.end(), value.begin(), value.end());
                for (std::size_t room : {field.size(), field.size() - 1}) {
                    SCOPED_TRACE(testing::Message() << "type " << tb << " length " << len << " content " << kind
                                                    << " room " << room);
                    Decoded full = decode(Bytes(field.begin(), field.begin() + static_cast<std::ptrdiff_t>(room)));
                    const auto r = static_cast<std::ptrdiff_t>(room);
                    const std::uint32_t checked = vel::tlv::checkCommon(full.at, r);
                    velClient_field_t quick;
                    std::memset(&quick, 0xA5, sizeof quick); /* as decode() leaves its field */
                    const std::uint32_t decoded = vel::tlv::decodeCommon(full.at, r, &quick);
                    if (checked != 0) {
                        EXPECT_EQ(full.size, checked);
                    }
                    if (decoded != 0) {
                        EXPECT_EQ(full.size, decoded);
                        EXPECT_EQ(full.field.type, quick.type);
                        EXPECT_EQ(full.field.length, quick.length);
                        EXPECT_EQ(0, std::memcmp(&full.field.value, &quick.value, sizeof quick.value));
                    }
                    if (full.size > 0 && (tb & 0x03) == 0 && tb != vel::tlv::kTypeDestination) {
                        EXPECT_NE(0u, checked);
                    }
                    if (tb % 4 != 0 || tb < 0x04 || tb > 0x14 || kind != 0 || room != field.size())
                        continue;
                    /* A fixed-size type takes exactly its lengths; empty is zero, a boolean true from any byte. */
                    const FixedRow *end = std::end(kAccepted);
                    const FixedRow *row = std::find_if(std::begin(kAccepted), end, [&](const FixedRow &a) {
                        return a.typeByte == tb && a.tlvLength == len;
                    });
                    EXPECT_EQ(row == end ? -1 : std::int64_t{len}, full.size);
                    if (row == end)
                        continue;
                    for (std::ptrdiff_t k = 0; k < std::ssize(field); ++k)
                        EXPECT_EQ(-1, decode(Bytes(field.begin(), field.begin() + k)).size) << "cut to " << k;
                    EXPECT_EQ(row->type, full.field.type);
                    EXPECT_EQ(len - 2, full.field.length);
                    const bool isBool = row->type == VELCLIENT_BOOL;
                    if (len == 2 || isBool) {
                        EXPECT_EQ(len - 2, isBool ? full.field.value.boolean : full.field.value.uint8);
                    }
                }
            }
        }
    }
}

TEST(TlvText, CStringsAndKeyCompares)
{
    /* Around the word boundaries: a NUL only as the last byte, a stray NUL anywhere else, none at all. (Copies
     * of texts and names are read back whole by the container tests.) */
    for (std::size_t n = 1; n <= 80; ++n) {
        std::vector<std::uint8_t> text(n, 'x');
        text[n - 1] = 0;
        EXPECT_TRUE(vel::tlv::isCString(text.data(), n)) << n;
        for (std::size_t at = 0; at + 1 < n; ++at) {
            auto stray = text;
            stray[at] = 0;
            EXPECT_FALSE(vel::tlv::isCString(stray.data(), n)) << n << " " << at;
        }
        text[n - 1] = 'y';
        EXPECT_FALSE(vel::tlv::isCString(text.data(), n)) << n;
    }
    EXPECT_FALSE(vel::tlv::isCString("", 0));
    const std::uint8_t high[] = {0x80, 0xFF, 0x81, 0x01, 0x80, 0x80, 0xFE, 0x7F, 0x80, 0x00}; /* not mistaken for NULs */
    EXPECT_TRUE(vel::tlv::isCString(high, sizeof high));
    /* Keys compare equal only when every byte does, whichever byte differs
     * and whatever the length (the inline compares change at 4, 8 and 16). */
    for (std::size_t n = 0; n <= 24; ++n) {
        Bytes key(n);
        std::iota(key.begin(), key.end(), 1);
        EXPECT_TRUE(vel::tlv::sameBytes(key.data(), Bytes(key).data(), n)) << n;
        for (std::size_t at = 0; at < n; ++at) {
            Bytes other = key;
            other[at] ^= 0x40;
            EXPECT_FALSE(vel::tlv::sameBytes(key.data(), other.data(), n)) << n << " " << at;
        }
    }
}
