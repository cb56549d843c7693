/*
 * containerRead.cpp - the read side of a container: the cursor that walks a
 * map or stream field by field, lookup of a map entry by key, and the size
 * and byte accessors. Every length is checked against the end of the written
 * bytes, so malformed input is refused, never read past.
 */
#include <bit>
#include <cstring>

#include "velClientMsg/container/tlvFastPath.h"
#include "velClientMsg/velClientMsgPrivate.h"

namespace {

using namespace vel::tlv;

velClient_returnCode_t malformed(const char *text)
{
    return VEL_FAIL(VELCLIENT_SUBCODE_COMMUNICATION_ERROR, VELCLIENT_LOG_ERROR, "%s", text);
}

constexpr const char *kBadEntry = "Invalid entry in structured data map";
constexpr const char *kBadTlv = "Invalid entry in structured data TLV";

/* A read's text for what is wrong with the entry. */
const char *readFaultText(Fault fault, std::uint32_t valueLength)
{
    switch (fault) {
    case Fault::keyNotString: return "Invalid type in TLV string in structured data container";
    case Fault::keyNotText: return "Invalid length in TLV string in structured data container";
    case Fault::keyShort:
    case Fault::valueCut:
    case Fault::valueBad: return kBadTlv;
    case Fault::valuePastEnd: return valueLength == 0xFFFFFFFFu ? kBadTlv : kBadEntry;
    default: return kBadEntry;
    }
}

/* The length of the key at pos, in room bytes, when it has the usual form:
 * a name with a 1-byte length, checked as the general path checks it; 0 for
 * any other key. */
[[gnu::always_inline]] inline std::uint32_t commonKeyLength(const std::uint8_t *pos, std::ptrdiff_t room)
{
    if (room < 5 || pos[0] != kTypeString)
        return 0;
    const std::uint32_t keyLength = pos[1];
    if (keyLength < 3 || keyLength >= room || !isCString(pos + 2, keyLength - 2))
        return 0;
    return keyLength;
}

/* A map entry in its usual form: a key that commonKeyLength takes, then a
 * value that decodeCommon takes. Decoded with the general path's checks;
 * false, with nothing recorded, for any other entry. */
[[gnu::always_inline]] inline bool readCommonEntry(_velClient_container *c, std::uint8_t *pos,
                                                   velClient_field_t *field_p, const char **name_p)
{
    const std::ptrdiff_t room = c->curWrPtr - pos;
    const std::uint32_t keyLength = commonKeyLength(pos, room);
    if (keyLength == 0)
        return false;
    const std::uint32_t valueLength = decodeCommon(pos + keyLength, room - keyLength, field_p);
    if (valueLength == 0)
        return false;
    c->curRdPtr = pos;
    c->curKeyLength = keyLength;
    c->curFieldLength = keyLength + valueLength;
    if (name_p != nullptr)
        *name_p = reinterpret_cast<const char *>(pos + 2);
    return true;
}

/* Reads the entry at pos in any form, recording what is malformed. A value
 * that runs past the end still adds its declared length to the cursor. */
[[gnu::noinline]] velClient_returnCode_t readAnyEntryAt(_velClient_container *c, std::uint8_t *pos,
                                                        velClient_field_t *field_p, const char **name_p)
{
    Entry e;
    const bool map = c->type == VELCLIENT_CONTAINER_MAP;
    const Fault fault = map ? decodeEntry(pos, c->curWrPtr, e) : decodeValue(pos, c->curWrPtr, e);
    if (name_p != nullptr)
        *name_p = e.name;
    c->curRdPtr = pos;
    c->curKeyLength = e.keyLength;
    c->curFieldLength = e.keyLength;
    if (fault == Fault::valuePastEnd && e.valueLength != 0xFFFFFFFFu)
        c->curFieldLength += e.valueLength;
    if (fault != Fault::none)
        return malformed(readFaultText(fault, e.valueLength));
    *field_p = e.value;
    c->curFieldLength += e.valueLength;
    return VELCLIENT_OK;
}

/* Reads the entry at pos (key and value in a map, value in a stream). */
inline velClient_returnCode_t readEntryAt(_velClient_container *c, std::uint8_t *pos, velClient_field_t *field_p,
                                          const char **name_p)
{
    if (c->type == VELCLIENT_CONTAINER_MAP && readCommonEntry(c, pos, field_p, name_p))
        return VELCLIENT_OK;
    return readAnyEntryAt(c, pos, field_p, name_p);
}

/* The bit of checkedKeys that stands for a name: one of 64 picked by the
 * name's last 8 bytes (its NUL included; all of it when shorter) read as a
 * little-endian number. */
inline std::uint64_t keyBit(std::uint64_t lastBytes)
{
    return std::uint64_t{1} << ((lastBytes * 0x9E3779B97F4A7C15ull) >> 58);
}

/* The Word-sized little-endian number at p. */
template <typename Word>
inline std::uint64_t loadLE(const std::uint8_t *p)
{
    Word w;
    std::memcpy(&w, p, sizeof w);
    if constexpr (std::endian::native == std::endian::big) {
        if constexpr (sizeof w == 8)
            w = __builtin_bswap64(w);
        else if constexpr (sizeof w == 4)
            w = __builtin_bswap32(w);
        else
            w = __builtin_bswap16(w);
    }
    return w;
}

/* The n bytes at p (Word-sized <= n <= twice that) as a little-endian
 * number: two loads that overlap in the middle, whose common bytes agree. */
template <typename Word>
inline std::uint64_t loadTwoLE(const std::uint8_t *p, std::size_t n)
{
    return loadLE<Word>(p) | loadLE<Word>(p + n - sizeof(Word)) << (8 * (n - sizeof(Word)));
}

/* The last 8 of the nameSize bytes at name (all of them when fewer) as a
 * little-endian number; nothing outside those bytes is read. */
inline std::uint64_t lastBytesOf(const std::uint8_t *name, std::size_t nameSize)
{
    if (nameSize >= 8)
        return loadLE<std::uint64_t>(name + nameSize - 8);
    if (nameSize >= 4)
        return loadTwoLE<std::uint32_t>(name, nameSize);
    if (nameSize >= 2)
        return loadTwoLE<std::uint16_t>(name, nameSize);
    return nameSize == 1 ? name[0] : 0;
}

/* The bit of the key of the well-formed entry at pos, whose key takes
 * keyLength bytes (type, length, name); every bit for a key not in the
 * usual form. */
inline std::uint64_t entryKeyBit(const std::uint8_t *pos, std::uint32_t keyLength)
{
    if (pos[0] != kTypeString || keyLength < 2)
        return ~std::uint64_t{0};
    return keyBit(lastBytesOf(pos + 2, keyLength - 2));
}

/* Remembers the map entry at pos (len bytes, its key keyLength of them,
 * found well formed) when it is the first one not yet remembered and there
 * is room for it. */
inline void noteChecked(_velClient_container *c, const std::uint8_t *pos, std::uint32_t keyLength,
                        std::uint32_t len)
{
    const auto at = static_cast<std::uint32_t>(pos - c->firstFieldPtr);
    if (at == c->checkedEnd && c->checkedCount < kCheckedEntries) {
        c->checkedAt[c->checkedCount++] = at;
        c->checkedEnd = at + len;
        c->checkedKeys |= entryKeyBit(pos, keyLength);
    }
}

/* noteChecked for the entry at the cursor. */
inline void noteCursor(_velClient_container *c)
{
    noteChecked(c, c->curRdPtr, c->curKeyLength, c->curFieldLength);
}

} // namespace

/* Turns a map or stream value into its sub-container handle. */
velClient_returnCode_t _velClient_container_attachSubContainer(_velClient_container *c, velClient_field_t *field_p)
{
    if (field_p->type != VELCLIENT_MAP && field_p->type != VELCLIENT_STREAM)
        return VELCLIENT_OK;
    _velClient_container *child = nullptr;
    std::uint8_t *start = c->curRdPtr + c->curKeyLength;
    velClient_returnCode_t rc = _velClient_container_getSubContainer(c, start, &child);
    field_p->value.map = rc == VELCLIENT_OK ? child->opaqueContainer_p : nullptr;
    return rc;
}

namespace {

std::uint8_t *nextPosition(const _velClient_container *c)
{
    return c->curRdPtr != nullptr ? c->curRdPtr + c->curFieldLength : c->firstFieldPtr;
}

velClient_returnCode_t readNext(_velClient_container *c, velClient_field_t *field_p, const char **name_p)
{
    std::uint8_t *pos = nextPosition(c);
    if (pos >= c->curWrPtr) {
        c->curRdPtr = pos;
        c->curFieldLength = 0;
        c->curKeyLength = 0;
        return VELCLIENT_EOS;
    }
    velClient_returnCode_t rc = readEntryAt(c, pos, field_p, name_p);
    if (rc == VELCLIENT_OK && c->type == VELCLIENT_CONTAINER_MAP)
        noteCursor(c);
    return rc;
}

/* The next map entry, at pos, when it is not in the usual form: read as
 * _velClient_container_readNextField reads it. */
[[gnu::noinline]] velClient_returnCode_t readOtherMapField(_velClient_container *c, std::uint8_t *pos,
                                                           velClient_field_t *field_p, const char **name_p)
{
    velClient_returnCode_t rc = readAnyEntryAt(c, pos, field_p, name_p);
    if (rc != VELCLIENT_OK)
        return rc;
    noteCursor(c);
    return _velClient_container_attachSubContainer(c, field_p);
}

} // namespace

velClient_returnCode_t _velClient_container_readNextValue(_velClient_container *c, velClient_field_t *field_p)
{
    return readNext(c, field_p, nullptr);
}

velClient_returnCode_t _velClient_container_readNextField(_velClient_container *c, velClient_field_t *field_p,
                                                          const char **name_p)
{
    velClient_returnCode_t rc = readNext(c, field_p, name_p);
    return rc == VELCLIENT_OK ? _velClient_container_attachSubContainer(c, field_p) : rc;
}

namespace {

/* True when the entry at p, in room (at least 1) bytes, is keyed name
 * (nameSize bytes with its NUL). Reads nothing past room. */
inline bool keyIs(const std::uint8_t *p, std::ptrdiff_t room, const char *name, std::size_t nameSize)
{
    if (p[0] == kTypeString && room >= 2) /* the usual 1-byte length */
        return p[1] == 2 + nameSize && p[1] <= room && sameBytes(p + 2, name, nameSize);
    if ((p[0] & 0xFC) != kTypeString)
        return false;
    const unsigned width = (p[0] & 0x03) + 1u;
    if (room < static_cast<std::ptrdiff_t>(1 + width))
        return false;
    const std::uint64_t keyLength = getBE(p + 1, width);
    return keyLength == 1 + width + nameSize && keyLength <= static_cast<std::uint64_t>(room) &&
           sameBytes(p + 1 + width, name, nameSize);
}

/* The key a lookup looks for, prepared once: the two bytes that begin its
 * entry in the usual form (type byte, 1-byte length) and, for a name of 8 to
 * 16 bytes with its NUL, its first and last 8 bytes, so that comparing an
 * entry's key is two loads of each. */
class KeyProbe {
public:
    KeyProbe(const char *name, std::size_t nameSize) : name_(name), size_(nameSize)
    {
        const std::uint8_t head[2] = {kTypeString, static_cast<std::uint8_t>(2 + nameSize)};
        std::memcpy(&head_, head, 2);
        shortForm_ = nameSize <= 253;
        words_ = nameSize >= 8 && nameSize <= 16;
        if (words_) {
            std::memcpy(&first_, name, 8);
            std::memcpy(&last_, name + nameSize - 8, 8);
        }
    }

    /* The bit of checkedKeys that stands for this name. */
    std::uint64_t bit() const { return keyBit(lastBytesOf(reinterpret_cast<const std::uint8_t *>(name_), size_)); }

    std::size_t size() const { return size_; }

    /* The nameSize bytes at k are the name. */
    bool sameName(const std::uint8_t *k) const
    {
        if (!words_)
            return sameBytes(k, name_, size_);
        std::uint64_t a, b;
        std::memcpy(&a, k, 8);
        std::memcpy(&b, k + size_ - 8, 8);
        return ((a ^ first_) | (b ^ last_)) == 0;
    }

    /* keyIs(p, room, name, nameSize). */
    bool keys(const std::uint8_t *p, std::ptrdiff_t room) const
    {
        if (shortForm_ && room >= 2) {
            std::uint16_t head;
            std::memcpy(&head, p, 2);
            if (head == head_)
                return room >= static_cast<std::ptrdiff_t>(2 + size_) && sameName(p + 2);
            if (p[0] == kTypeString)
                return false; /* the usual form with another length */
        }
        return keyIs(p, room, name_, size_);
    }

private:
    const char *name_;
    std::size_t size_;
    std::uint16_t head_ = 0;
    bool shortForm_ = false;
    bool words_ = false;
    std::uint64_t first_ = 0, last_ = 0;
};

/* The entry keyed name among those c remembers as well formed, or nullptr:
 * their keys are compared (none when the name's bit is clear), nothing else
 * is checked again. */
std::uint8_t *findChecked(_velClient_container *c, const KeyProbe &key)
{
    if (c->checkedKeys == 0 || (c->checkedKeys & key.bit()) == 0)
        return nullptr;
    const std::ptrdiff_t size = c->curWrPtr - c->firstFieldPtr;
    for (std::uint32_t i = 0; i < c->checkedCount; ++i) {
        const std::uint32_t at = c->checkedAt[i];
        if (at < size && key.keys(c->firstFieldPtr + at, size - at))
            return c->firstFieldPtr + at;
    }
    return nullptr;
}

/* Passes over the entries from pos that are well formed, in the usual form,
 * and not keyed name, checking them as a read would but decoding nothing,
 * and remembers them. Stops at the end, at the entry with that key (keyed
 * is then set when it is in the usual form, with a value checkCommon takes)
 * and at any entry it cannot vouch for: a read then decodes it (and records
 * what is malformed). */
std::uint8_t *skipOtherEntries(_velClient_container *c, std::uint8_t *pos, const KeyProbe &key, bool &keyed)
{
    const std::uint8_t *end = c->curWrPtr;
    while (pos < end) {
        const std::uint32_t keyLength = commonKeyLength(pos, end - pos);
        if (keyLength == 0)
            return pos;
        const std::uint32_t valueLength = checkCommon(pos + keyLength, end - pos - keyLength);
        if (valueLength == 0)
            return pos;
        if (keyLength - 2 == key.size() && key.sameName(pos + 2)) {
            keyed = true;
            return pos;
        }
        noteChecked(c, pos, keyLength, keyLength + valueLength);
        pos += keyLength + valueLength;
    }
    return pos;
}

/* Decodes the value of the entry at pos, whose key in the usual form
 * skipOtherEntries found to be the name, into *field_p when decodeCommon
 * takes it, and makes it the cursor's entry; false, with nothing written,
 * for any other value. */
bool readKeyedValue(_velClient_container *c, std::uint8_t *pos, velClient_field_t *field_p)
{
    const std::uint32_t keyLength = pos[1];
    const std::uint32_t valueLength = decodeCommon(pos + keyLength, c->curWrPtr - pos - keyLength, field_p);
    if (valueLength == 0)
        return false;
    c->curRdPtr = pos;
    c->curKeyLength = keyLength;
    c->curFieldLength = keyLength + valueLength;
    noteChecked(c, pos, keyLength, keyLength + valueLength);
    return true;
}

/* Scans the entries not yet remembered for the first keyed name. Entries
 * decoded on the way go to a scratch field: the caller's field is written
 * only with the entry found (decoded straight into it: a copy from the
 * scratch field would wait on the stores that just filled it). A read that
 * fails writes no field. */
velClient_returnCode_t scanFor(_velClient_container *c, const KeyProbe &key, velClient_field_t *field_p)
{
    if (c->checkedEnd > static_cast<std::uint64_t>(c->curWrPtr - c->firstFieldPtr))
        forgetCheckedEntries(c);
    for (std::uint8_t *pos = c->firstFieldPtr + c->checkedEnd;; pos = c->curRdPtr + c->curFieldLength) {
        bool keyed = false;
        pos = skipOtherEntries(c, pos, key, keyed);
        if (pos >= c->curWrPtr) {
            c->curRdPtr = pos;
            c->curFieldLength = 0;
            c->curKeyLength = 0;
            return VELCLIENT_NOT_FOUND;
        }
        if (keyed && readKeyedValue(c, pos, field_p))
            return VELCLIENT_OK;
        velClient_field_t scratch{};
        const char *name = nullptr;
        const bool found = key.keys(pos, c->curWrPtr - pos);
        if (readEntryAt(c, pos, found ? field_p : &scratch, &name) != VELCLIENT_OK)
            return VELCLIENT_FAIL;
        noteCursor(c);
        if (found)
            return VELCLIENT_OK;
    }
}

} // namespace

/* Entries earlier lookups and reads found well formed are passed over by
 * their keys alone; the rest are checked as they are read. Either way the
 * first entry with the key is decoded in full. */
velClient_returnCode_t _velClient_container_getFieldAndTypeByName(_velClient_container *c, const char *name_p,
                                                                  velClient_field_t *field_p)
{
    if (c == nullptr)
        return VEL_FAIL_NULL("Null Container in _velClient_container_getFieldAndTypeByName");
    if (field_p == nullptr)
        return VEL_FAIL_NULL("No field union in _velClient_container_getFieldAndTypeByName ");
    if (name_p == nullptr || name_p[0] == '\0')
        return VEL_FAIL_NULL("Null or Empty Name pointer in "
                             "_velClient_container_getFieldAndTypeByName");
    const KeyProbe key(name_p, std::strlen(name_p) + 1);
    if (std::uint8_t *pos = findChecked(c, key)) {
        const char *name = nullptr;
        return readEntryAt(c, pos, field_p, &name);
    }
    return scanFor(c, key, field_p);
}

/* ---- Exports
 * --------------------------------------------------------------------- */

extern "C" VELCLIENT_API velClient_bool_t velClient_container_hasNextField(velClient_opaqueContainer_pt opaqueCont_p)
{
    _velClient_container *c =
        vel::containerOrFail(opaqueCont_p, "Bad container pointer (%p) in velClient_container_hasNextField");
    return c != nullptr && nextPosition(c) < c->curWrPtr ? 1 : 0;
}

extern "C" VELCLIENT_API velClient_returnCode_t velClient_container_getNextField(velClient_opaqueContainer_pt opaqueCont_p,
                                                                               velClient_field_t *field_p,
                                                                               size_t fieldSize, const char **name_p)
{
    _velClient_container *c = vel::containerWithOut(opaqueCont_p, field_p,
                                                    "Bad cont_p pointer (%p) in velClient_container_getNextField",
                                                    "Null field_p in velClient_container_getNextField");
    if (c == nullptr)
        return VELCLIENT_FAIL;
    if (fieldSize != sizeof(velClient_field_t))
        return VEL_FAIL_RANGE("Unsupported field structure size (received %d, expected %d) in "
                              "velClient_container_getNextField",
                              static_cast<int>(fieldSize), static_cast<int>(sizeof(velClient_field_t)));
    if (c->type == VELCLIENT_CONTAINER_MAP && name_p == nullptr)
        return VEL_FAIL_NULL("Null name_p in velClient_container_getNextField");
    if (name_p != nullptr)
        *name_p = nullptr;
    if (c->type == VELCLIENT_CONTAINER_MAP) {
        std::uint8_t *pos = nextPosition(c);
        if (pos < c->curWrPtr) {
            if (!readCommonEntry(c, pos, field_p, name_p))
                return readOtherMapField(c, pos, field_p, name_p);
            noteCursor(c);
            return VELCLIENT_OK;
        }
    }
    return _velClient_container_readNextField(c, field_p, name_p);
}

extern "C" VELCLIENT_API velClient_returnCode_t velClient_container_getField(velClient_opaqueContainer_pt opaqueCont_p,
                                                                           velClient_field_t *value, size_t fieldSize,
                                                                           const char *name)
{
    if (fieldSize != sizeof(velClient_field_t))
        return VEL_FAIL_RANGE("Unsupported field structure size (received %d, expected "
                              "%d) in velClient_container_getField",
                              static_cast<int>(fieldSize), static_cast<int>(sizeof(velClient_field_t)));
    _velClient_container *c = vel::containerWithOut(opaqueCont_p, value,
                                                    "Bad Container (%p) in velClient_container_getField",
                                                    "Null value pointer in velClient_container_getField");
    if (c == nullptr)
        return VELCLIENT_FAIL;
    if (c->type == VELCLIENT_CONTAINER_MAP) {
        if (name == nullptr)
            return VEL_FAIL_NULL("No name pointer in velClient_container_getField");
        velClient_returnCode_t rc = _velClient_container_getFieldAndTypeByName(c, name, value);
        return rc == VELCLIENT_OK ? _velClient_container_attachSubContainer(c, value) : rc;
    }
    if (name != nullptr)
        return VEL_FAIL(VELCLIENT_SUBCODE_PARAM_CONFLICT, VELCLIENT_LOG_WARNING,
                        "Stream with non-NULL name pointer in velClient_container_getField");
    return _velClient_container_readNextField(c, value, nullptr);
}

extern "C" VELCLIENT_API velClient_returnCode_t velClient_container_getSize(velClient_opaqueContainer_pt opaqueCont_p,
                                                                          size_t *size_p)
{
    _velClient_container *c = vel::containerWithOut(opaqueCont_p, size_p,
                                                    "Bad Container (%p) in velClient_container_getSize",
                                                    "Null size pointer in velClient_container_getSize");
    if (c == nullptr)
        return VELCLIENT_FAIL;
    *size_p = static_cast<size_t>(c->curWrPtr - c->startPtr);
    return VELCLIENT_OK;
}

extern "C" VELCLIENT_API velClient_returnCode_t velClient_container_getContainerPtr(
    velClient_opaqueContainer_pt opaqueCont_p, velClient_opaquePointer_pt bufPtr_p, velClient_uint32_t *size_p)
{
    _velClient_container *c = vel::containerWithOut(opaqueCont_p, size_p,
                                                    "Bad Container (%p) in velClient_container_getContainerPtr",
                                                    "Null size pointer in velClient_container_getContainerPtr");
    if (c == nullptr)
        return VELCLIENT_FAIL;
    if (bufPtr_p == nullptr)
        return VEL_FAIL_NULL("Null bufPtr_p pointer in velClient_container_getContainerPtr");
    _velClient_container *finalise = c;
    _velClient_container_closeMapStream(&finalise, false, false, false);
    *bufPtr_p = c->startPtr;
    *size_p = static_cast<velClient_uint32_t>(c->curWrPtr - c->startPtr);
    return VELCLIENT_OK;
}
