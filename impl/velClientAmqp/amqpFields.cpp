/*
 * amqpFields.cpp - structured data (maps and streams of typed fields) as AMQP
 * 1.0 values and back, and the structure checks the decoder runs on bytes
 * from the network before anything recurses into them.
 *
 * Field types and their AMQP counterparts:
 *
 *     BOOL ubyte-width ints   WCHAR  FLOAT  DOUBLE  STRING  BYTEARRAY  NULL  MAP          STREAM
 *     boolean (u)byte..(u)long char  float  double  string  binary     null  map (string) list
 *
 * A field goes over only in the form this library's writer gives it (the
 * smallest length width, a boolean 0 or 1), so that the receiver, writing it
 * again, gets the same bytes.
 */
#include "velClientAmqp/amqpFields.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string_view>

#include "velClientMsg/container/fieldTypes.h"

namespace {

using vel::tlv::Entry;
using vel::tlv::Fault;

/* true when the field at v (tlvLength n) is in the writer's own form. */
bool canonical(const std::uint8_t *v, std::uint32_t n, const velClient_field_t &f)
{
    switch (f.type) {
    case VELCLIENT_MAP:
    case VELCLIENT_STREAM: return true;
    case VELCLIENT_STRING:
    case VELCLIENT_BYTEARRAY: {
        unsigned width = (v[0] & 0x03) + 1u;
        return f.length > 0 || f.type == VELCLIENT_BYTEARRAY ? vel::tlv::widthFor(n - 1 - width) == width : false;
    }
    case VELCLIENT_NULL: return n == 2;
    case VELCLIENT_BOOL: return v[0] == vel::tlv::kTypeBool && n == 3 && v[2] <= 1;
    default: {
        const vel::field::Traits &t = vel::field::traits(f.type);
        return v[0] == t.typeByte && n == t.size + 2u;
    }
    }
}

bool putScalar(pn_data_t *data, const velClient_field_t &f)
{
    switch (f.type) {
    case VELCLIENT_BOOL: return pn_data_put_bool(data, f.value.boolean != 0) == 0;
    case VELCLIENT_UINT8: return pn_data_put_ubyte(data, f.value.uint8) == 0;
    case VELCLIENT_INT8: return pn_data_put_byte(data, f.value.int8) == 0;
    case VELCLIENT_UINT16: return pn_data_put_ushort(data, f.value.uint16) == 0;
    case VELCLIENT_INT16: return pn_data_put_short(data, f.value.int16) == 0;
    case VELCLIENT_UINT32: return pn_data_put_uint(data, f.value.uint32) == 0;
    case VELCLIENT_INT32: return pn_data_put_int(data, f.value.int32) == 0;
    case VELCLIENT_UINT64: return pn_data_put_ulong(data, f.value.uint64) == 0;
    case VELCLIENT_INT64: return pn_data_put_long(data, f.value.int64) == 0;
    case VELCLIENT_WCHAR: return pn_data_put_char(data, f.value.wchar) == 0;
    case VELCLIENT_FLOAT: return pn_data_put_float(data, f.value.float32) == 0;
    case VELCLIENT_DOUBLE: return pn_data_put_double(data, f.value.float64) == 0;
    case VELCLIENT_NULL: return pn_data_put_null(data) == 0;
    case VELCLIENT_STRING: return pn_data_put_string(data, pn_bytes(f.length - 1, f.value.string)) == 0;
    case VELCLIENT_BYTEARRAY:
        return pn_data_put_binary(data, pn_bytes(f.length, reinterpret_cast<const char *>(f.value.bytearray))) == 0;
    default: return false;
    }
}

/* The value field at v (decoded into e) into data. */
bool putValue(pn_data_t *data, const std::uint8_t *v, const Entry &e, int depth, bool scalarsOnly)
{
    if (!canonical(v, e.valueLength, e.value))
        return false;
    bool map = e.value.type == VELCLIENT_MAP;
    if (!map && e.value.type != VELCLIENT_STREAM)
        return putScalar(data, e.value);
    if (scalarsOnly || depth <= 1)
        return false;
    if ((map ? pn_data_put_map(data) : pn_data_put_list(data)) != 0 || !pn_data_enter(data))
        return false;
    const std::uint8_t *body = v + vel::tlv::kContainerHeaderSize;
    bool ok = vel::amqp::putFields(data, body, v + e.valueLength, map, depth - 1, false);
    return pn_data_exit(data) && ok;
}

/* true when no two names are equal (names: NUL-terminated texts). */
bool uniqueNames(std::vector<std::string_view> &names)
{
    std::sort(names.begin(), names.end());
    return std::adjacent_find(names.begin(), names.end()) == names.end();
}

} // namespace

bool vel::amqp::putFields(pn_data_t *data, const std::uint8_t *p, const std::uint8_t *end, bool keyed, int depth,
                          bool scalarsOnly)
{
    std::vector<std::string_view> names;
    while (p < end) {
        Entry e;
        Fault fault = keyed ? vel::tlv::decodeEntry(p, end, e) : vel::tlv::decodeValue(p, end, e);
        if (fault != Fault::none || (keyed && e.name == nullptr))
            return false;
        if (keyed) {
            std::string_view name(e.name);
            if (vel::tlv::varFieldSize(name.size() + 1) != e.keyLength || p[0] != vel::tlv::kTypeString)
                return false;
            names.push_back(name);
            if (pn_data_put_string(data, pn_bytes(name.size(), e.name)) != 0)
                return false;
        }
        const std::uint8_t *v = p + e.keyLength;
        if (!putValue(data, v, e, depth, scalarsOnly))
            return false;
        p = v + e.valueLength;
    }
    return !keyed || uniqueNames(names);
}

/* ---- AMQP values to structured data ----------------------------------------- */
namespace {

void appendBE(std::vector<std::uint8_t> &out, std::uint64_t value, unsigned width)
{
    std::uint8_t bytes[8];
    vel::tlv::putBE(bytes, value, width);
    out.insert(out.end(), bytes, bytes + width);
}

void appendFixed(std::vector<std::uint8_t> &out, velClient_fieldType_t type, std::uint64_t value)
{
    const vel::field::Traits &t = vel::field::traits(type);
    out.push_back(t.typeByte);
    out.push_back(static_cast<std::uint8_t>(t.size + 2));
    appendBE(out, value, t.size);
}

void appendVariable(std::vector<std::uint8_t> &out, std::uint8_t typeBase, const char *p, std::size_t n, bool nul)
{
    std::uint64_t valueLength = n + (nul ? 1 : 0);
    unsigned width = vel::tlv::widthFor(valueLength);
    out.push_back(static_cast<std::uint8_t>(typeBase | (width - 1)));
    appendBE(out, valueLength + 1 + width, width);
    out.insert(out.end(), p, p + n);
    if (nul)
        out.push_back(0);
}

} // namespace

void vel::amqp::appendAttachmentString(std::vector<std::uint8_t> &out, const char *text, std::size_t n)
{
    out.push_back(kAttachmentStringType);
    appendBE(out, n + 6, 4);
    out.insert(out.end(), text, text + n);
    out.push_back(0);
}

namespace {

/* Text: string or symbol, without a NUL inside. */
bool appendText(std::vector<std::uint8_t> &out, pn_bytes_t text)
{
    if (text.size >= UINT32_MAX - 8 || (text.size > 0 && std::memchr(text.start, 0, text.size) != nullptr))
        return false;
    appendVariable(out, vel::tlv::kTypeString, text.start, text.size, true);
    return true;
}

template <typename Bits, typename Float>
std::uint64_t bitsOf(Float value)
{
    Bits bits;
    std::memcpy(&bits, &value, sizeof bits);
    return bits;
}

bool appendValue(pn_data_t *data, int depth, std::vector<std::uint8_t> &out)
{
    switch (pn_data_type(data)) {
    case PN_NULL: appendFixed(out, VELCLIENT_NULL, 0); return true;
    case PN_BOOL: appendFixed(out, VELCLIENT_BOOL, pn_data_get_bool(data) ? 1 : 0); return true;
    case PN_UBYTE: appendFixed(out, VELCLIENT_UINT8, pn_data_get_ubyte(data)); return true;
    case PN_BYTE: appendFixed(out, VELCLIENT_INT8, static_cast<std::uint8_t>(pn_data_get_byte(data))); return true;
    case PN_USHORT: appendFixed(out, VELCLIENT_UINT16, pn_data_get_ushort(data)); return true;
    case PN_SHORT: appendFixed(out, VELCLIENT_INT16, static_cast<std::uint16_t>(pn_data_get_short(data))); return true;
    case PN_UINT: appendFixed(out, VELCLIENT_UINT32, pn_data_get_uint(data)); return true;
    case PN_INT: appendFixed(out, VELCLIENT_INT32, static_cast<std::uint32_t>(pn_data_get_int(data))); return true;
    case PN_ULONG: appendFixed(out, VELCLIENT_UINT64, pn_data_get_ulong(data)); return true;
    case PN_LONG: appendFixed(out, VELCLIENT_INT64, static_cast<std::uint64_t>(pn_data_get_long(data))); return true;
    case PN_TIMESTAMP:
        appendFixed(out, VELCLIENT_INT64, static_cast<std::uint64_t>(pn_data_get_timestamp(data)));
        return true;
    case PN_CHAR:
        if (pn_data_get_char(data) > 0xFFFF)
            return false;
        appendFixed(out, VELCLIENT_WCHAR, pn_data_get_char(data));
        return true;
    case PN_FLOAT: appendFixed(out, VELCLIENT_FLOAT, bitsOf<std::uint32_t>(pn_data_get_float(data))); return true;
    case PN_DOUBLE: appendFixed(out, VELCLIENT_DOUBLE, bitsOf<std::uint64_t>(pn_data_get_double(data))); return true;
    case PN_STRING: return appendText(out, pn_data_get_string(data));
    case PN_SYMBOL: return appendText(out, pn_data_get_symbol(data));
    case PN_BINARY: {
        pn_bytes_t b = pn_data_get_binary(data);
        if (b.size >= UINT32_MAX - 8)
            return false;
        appendVariable(out, vel::tlv::kTypeByteArray, b.start, b.size, false);
        return true;
    }
    case PN_UUID: {
        pn_uuid_t u = pn_data_get_uuid(data);
        appendVariable(out, vel::tlv::kTypeByteArray, u.bytes, sizeof u.bytes, false);
        return true;
    }
    case PN_MAP: return vel::amqp::writeContainer(data, true, depth - 1, out);
    case PN_LIST: return vel::amqp::writeContainer(data, false, depth - 1, out);
    case PN_ARRAY: return !pn_data_is_array_described(data) && vel::amqp::writeContainer(data, false, depth - 1, out);
    default: return false;
    }
}

bool isText(pn_type_t type)
{
    return type == PN_STRING || type == PN_SYMBOL;
}

} // namespace

bool vel::amqp::writeContainer(pn_data_t *data, bool keyed, int depth, std::vector<std::uint8_t> &out)
{
    if (depth <= 0 || !pn_data_enter(data))
        return false;
    std::size_t start = out.size();
    out.push_back(keyed ? vel::tlv::kTypeMap : vel::tlv::kTypeStream);
    appendBE(out, 0, 4);
    bool ok = true;
    while (ok && pn_data_next(data)) {
        if (keyed) {
            ok = isText(pn_data_type(data)) && appendText(out, pn_data_get_bytes(data)) && pn_data_next(data);
            if (!ok)
                break;
        }
        ok = appendValue(data, depth, out);
    }
    pn_data_exit(data);
    std::size_t length = out.size() - start;
    if (!ok || length > UINT32_MAX - 1)
        return false;
    vel::tlv::putBE(out.data() + start + 1, length, 4);
    return true;
}

bool vel::amqp::wellFormedFields(const std::uint8_t *p, const std::uint8_t *end, bool keyed, int depth)
{
    if (depth <= 0)
        return false;
    while (p < end) {
        Entry e;
        Fault fault = keyed ? vel::tlv::decodeEntry(p, end, e) : vel::tlv::decodeValue(p, end, e);
        if (fault != Fault::none)
            return false;
        const std::uint8_t *v = p + e.keyLength;
        bool map = e.value.type == VELCLIENT_MAP;
        if ((map || e.value.type == VELCLIENT_STREAM) &&
            !wellFormedFields(v + vel::tlv::kContainerHeaderSize, v + e.valueLength, map, depth - 1))
            return false;
        p = v + e.valueLength;
    }
    return true;
}

/* ---- Structure of received AMQP bytes -------------------------------------- */
namespace {

/* Bytes of the value after a constructor of a fixed-width category, or -1. */
int fixedWidth(std::uint8_t code)
{
    switch (code >> 4) {
    case 0x4: return 0;
    case 0x5: return 1;
    case 0x6: return 2;
    case 0x7: return 4;
    case 0x8: return 8;
    case 0x9: return 16;
    default: return -1;
    }
}

bool nestedConstructor(std::uint8_t code)
{
    return code == 0x00 || code >= 0xC0;
}

std::uint64_t sizeAt(const std::uint8_t *p, unsigned width)
{
    return vel::tlv::getBE(p, width);
}

} // namespace

bool vel::amqp::shallowAmqp(const std::uint8_t *p, std::size_t size)
{
    std::size_t ends[kMaxDepth];
    int depth = 0;
    std::size_t at = 0;
    for (;;) {
        while (depth > 0 && at == ends[depth - 1])
            --depth;
        std::size_t limit = depth > 0 ? ends[depth - 1] : size;
        if (at == limit)
            return depth == 0;
        std::uint8_t code = p[at++];
        if (code == 0x00) /* a described value: its descriptor and value follow */
            continue;
        int fixed = fixedWidth(code);
        if (fixed >= 0) {
            if (limit - at < static_cast<std::size_t>(fixed))
                return false;
            at += static_cast<std::size_t>(fixed);
            continue;
        }
        unsigned width = (code >> 4) == 0xA || (code >> 4) == 0xC || (code >> 4) == 0xE ? 1u : 4u;
        if ((code >> 4) < 0xA || limit - at < width)
            return false;
        std::uint64_t length = sizeAt(p + at, width);
        at += width;
        if (length > limit - at)
            return false;
        bool compound = (code >> 4) == 0xC || (code >> 4) == 0xD;
        bool array = (code >> 4) == 0xE || (code >> 4) == 0xF;
        if (compound || array) {
            /* The count, then (arrays) the element constructor. */
            if (length < width + (array ? 1u : 0u))
                return false;
            if (array && nestedConstructor(p[at + width]))
                return false;
        }
        if (!compound) {
            at += static_cast<std::size_t>(length);
            continue;
        }
        if (depth == kMaxDepth)
            return false;
        ends[depth++] = at + static_cast<std::size_t>(length);
        at += width;
    }
}

/* ---- The header section, read in place --------------------------------------- */
namespace {

constexpr std::size_t kNoValue = SIZE_MAX;
constexpr std::uint64_t kHeaderCode = 0x70;
constexpr std::string_view kHeaderName = "amqp:header:list";
constexpr int kDescribedDepth = 4;

/* The end of the value whose constructor is at at, or kNoValue when it does
 * not fit before limit. */
std::size_t valueEnd(const std::uint8_t *p, std::size_t at, std::size_t limit, int depth = kDescribedDepth)
{
    if (at >= limit)
        return kNoValue;
    std::uint8_t code = p[at++];
    if (code == 0x00) {
        std::size_t descriptor = depth > 0 ? valueEnd(p, at, limit, depth - 1) : kNoValue;
        return descriptor == kNoValue ? kNoValue : valueEnd(p, descriptor, limit, depth - 1);
    }
    int fixed = fixedWidth(code);
    if (fixed >= 0)
        return limit - at >= static_cast<std::size_t>(fixed) ? at + static_cast<std::size_t>(fixed) : kNoValue;
    if ((code >> 4) < 0xA)
        return kNoValue;
    unsigned width = (code >> 4) % 2 == 0 ? 1u : 4u;
    if (limit - at < width)
        return kNoValue;
    std::uint64_t length = sizeAt(p + at, width);
    at += width;
    return length <= limit - at ? at + static_cast<std::size_t>(length) : kNoValue;
}

/* true when the descriptor at at names the header section; *next is set past it. */
bool isHeaderDescriptor(const std::uint8_t *p, std::size_t at, std::size_t size, std::size_t *next)
{
    *next = valueEnd(p, at, size);
    if (*next == kNoValue)
        return false;
    switch (p[at]) {
    case 0x53: return p[at + 1] == kHeaderCode;
    case 0x80: return sizeAt(p + at + 1, 8) == kHeaderCode;
    case 0xA3:
    case 0xB3: {
        std::size_t width = p[at] == 0xA3 ? 1 : 4;
        return std::string_view(reinterpret_cast<const char *>(p + at + 1 + width), *next - at - 1 - width) ==
               kHeaderName;
    }
    default: return false;
    }
}

/* The unsigned integer field at at; 0 for uint0, null or another type. */
std::uint64_t uintField(const std::uint8_t *p, std::size_t at)
{
    switch (p[at]) {
    case 0x52: return p[at + 1]; /* smalluint */
    case 0x70: return sizeAt(p + at + 1, 4);
    default: return 0;
    }
}

/* true for a boolean field holding false. */
bool isFalse(const std::uint8_t *p, std::size_t at)
{
    return p[at] == 0x42 || (p[at] == 0x56 && p[at + 1] == 0);
}

} // namespace

bool vel::amqp::headerSaysRedelivered(const std::uint8_t *p, std::size_t size)
{
    std::size_t at = 0;
    if (size < 2 || p[0] != 0x00 || !isHeaderDescriptor(p, 1, size, &at) || at >= size)
        return false;
    std::size_t end = valueEnd(p, at, size);
    std::uint8_t list = p[at];
    if (end == kNoValue || (list != 0xC0 && list != 0xD0))
        return false; /* list0 (0x45): every field left at its default */
    std::size_t width = list == 0xC0 ? 1 : 4;
    if (end - at < 1 + 2 * width)
        return false;
    std::uint64_t count = sizeAt(p + at + 1 + width, width);
    at += 1 + 2 * width;
    for (std::uint64_t field = 0; field < count && field < 5; ++field) {
        std::size_t next = valueEnd(p, at, end);
        if (next == kNoValue)
            return false;
        if ((field == 3 && isFalse(p, at)) || (field == 4 && uintField(p, at) > 0))
            return true; /* first-acquirer false, delivery-count above 0 */
        at = next;
    }
    return false;
}
