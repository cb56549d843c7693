/*
 * tlvCodec.cpp - the reader's decoders of the structured-data encoding: one
 * field at a position, with every length checked against the end of the
 * enclosing bytes, and one map entry (key, then value) or stream value, with
 * what is wrong with it named for the caller to report. Container reads,
 * deletes and the header map's own lookups all read entries through these.
 */
#include <cstring>

#include "velClientMsg/container/tlvFastPath.h"
#include "velClientMsg/velClientMsgPrivate.h"

namespace vel::tlv {

namespace {

constexpr std::int64_t kBad = -1;

std::int64_t decodeDestination(const std::uint8_t *v, std::uint32_t n, std::uint32_t len, velClient_field_t *f)
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
    std::int64_t type =
        std::strncmp(name, "#P2P/QTMP/", 10) == 0 ? std::int64_t{VELCLIENT_QUEUE_TEMP_DESTINATION} : std::int64_t{v[0]};
    f->value.dest.dest = name;
    /* The kind byte is taken as it stands, even when it names no known type. */
    vel::setEnumValue(f->value.dest.destType, type);
    return len;
}

/* Variable-size fields (byte array, string, VWF, destination, map, stream). */
std::int64_t decodeVariable(const std::uint8_t *p, std::uint32_t len, unsigned width, velClient_field_t *f)
{
    const std::uint8_t *v = p + 1 + width;
    std::uint32_t n = len - 1 - width;
    switch (p[0] & 0xFC) {
    case kTypeByteArray:
    case kTypeVwf:
    case kTypeString: {
        /* An empty value is the null string / array: tlvLength 2 in the
         * 1-byte form, the bare header in the wider ones. */
        bool empty = n == 0;
        if ((p[0] & 0xFC) == kTypeString && !empty && !isCString(v, n))
            return kBad;
        f->type = (p[0] & 0xFC) == kTypeString ? VELCLIENT_STRING
                  : (p[0] & 0xFC) == kTypeVwf  ? VELCLIENT_VWF
                                             : VELCLIENT_BYTEARRAY;
        f->length = empty ? 0 : n;
        f->value.bytearray = empty ? nullptr : const_cast<std::uint8_t *>(v);
        return len;
    }
    case kTypeDestination: return decodeDestination(v, n, len, f);
    default: /* map or stream */
        if (len < kContainerHeaderSize)
            return kBad;
        f->type = p[0] == kTypeMap ? VELCLIENT_MAP : VELCLIENT_STREAM;
        f->length = len - kContainerHeaderSize;
        f->value.map = nullptr;
        return len;
    }
}

/* Recognised type bytes and the length width each is recognised with. */
bool recognised(std::uint8_t tb)
{
    switch (tb & 0xFC) {
    case kTypeNull:
    case kTypeBool:
    case kTypeInt:
    case kTypeUint:
    case kTypeFloat:
    case kTypeChar: return (tb & 0x03) == 0;
    case kTypeByteArray:
    case kTypeString:
    case kTypeVwf: return true;
    case kTypeDestination: return (tb & 0x03) <= 1;
    case 0x28: return tb == kTypeMap;
    case 0x2C: return tb == kTypeStream;
    default: return false;
    }
}

unsigned widthOf(const std::uint8_t *p)
{
    return (p[0] & 0x03) + 1u;
}

} // namespace

std::int64_t decodeField(const std::uint8_t *p, const std::uint8_t *end, velClient_field_t *f)
{
    if (end - p < 2)
        return kBad;
    std::uint8_t tb = p[0];
    unsigned width = widthOf(p);
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
    if (tb == kTypeNull) {
        /* A null field occupies its length byte's count; it must at least hold its
         * header. */
        f->type = VELCLIENT_NULL;
        f->length = 0;
        f->value.uint64 = 0;
        return len32;
    }
    if ((tb & 0xFC) < kTypeByteArray)
        return decodeFixed(p, len32, f);
    return decodeVariable(p, len32, width, f);
}

Fault decodeValue(const std::uint8_t *p, const std::uint8_t *end, Entry &e)
{
    if (p >= end)
        return Fault::valueMissing;
    const unsigned width = widthOf(p);
    if (end - p < static_cast<std::ptrdiff_t>(1 + width))
        return Fault::valueCut;
    const std::uint64_t declared = getBE(p + 1, width);
    if (declared > static_cast<std::uint64_t>(end - p)) {
        e.valueLength = static_cast<std::uint32_t>(declared);
        return Fault::valuePastEnd;
    }
    const std::int64_t len = decodeField(p, end, &e.value);
    if (len < 0)
        return Fault::valueBad;
    e.valueLength = static_cast<std::uint32_t>(len);
    return Fault::none;
}

Fault decodeEntry(const std::uint8_t *pos, const std::uint8_t *end, Entry &e)
{
    e.name = nullptr;
    if ((pos[0] & 0xFC) != kTypeString)
        return Fault::keyNotString;
    const unsigned width = widthOf(pos);
    if (end - pos < static_cast<std::ptrdiff_t>(1 + width))
        return Fault::keyCut;
    const std::uint64_t keyLength = getBE(pos + 1, width);
    if (keyLength < 1 + width)
        return Fault::keyShort;
    if (keyLength > static_cast<std::uint64_t>(end - pos))
        return Fault::keyPastEnd;
    const char *text = reinterpret_cast<const char *>(pos + 1 + width);
    if (keyLength != 2 && !isCString(text, keyLength - 1 - width))
        return Fault::keyNotText;
    e.keyLength = static_cast<std::uint32_t>(keyLength);
    e.name = keyLength == 2 ? nullptr : text;
    return decodeValue(pos + keyLength, end, e);
}

} // namespace vel::tlv
