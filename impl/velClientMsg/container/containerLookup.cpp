/*
 * containerLookup.cpp - lookup of a map entry by key: the entries the map
 * remembers compared by their keys alone (when the mark says the name may
 * be among them), then a scan of the others that checks each as a read
 * would and remembers it.
 */
#include "velClientMsg/container/mapEntryRead.h"

using namespace vel::mapread;

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

/* The size of the text name with its NUL into nameSize, and what
 * lastBytesOf gives for those bytes: a name shorter than 8 bytes is measured
 * and read in one pass over it. */
inline std::uint64_t measureName(const char *name, std::size_t &nameSize)
{
    const auto *p = reinterpret_cast<const std::uint8_t *>(name);
    std::uint64_t v = 0;
    for (std::size_t i = 0; i < 8; ++i) {
        v |= std::uint64_t{p[i]} << (8 * i);
        if (p[i] == 0) {
            nameSize = i + 1;
            return v;
        }
    }
    nameSize = 9 + std::strlen(name + 8);
    return loadLE(p + nameSize - 8);
}

/* The key a lookup looks for, the text name, prepared once: the two bytes
 * that begin its entry in the usual form (type byte, 1-byte length) and, for
 * a name of 8 to 16 bytes with its NUL, its first and last 8 bytes, so that
 * comparing an entry's key is two loads of each. */
class KeyProbe {
public:
    explicit KeyProbe(const char *name) : name_(name)
    {
        bit_ = keyBit(measureName(name, size_));
        const std::uint8_t head[2] = {kTypeString, static_cast<std::uint8_t>(2 + size_)};
        std::memcpy(&head_, head, 2);
        shortForm_ = size_ <= 253;
        words_ = size_ >= 8 && size_ <= 16;
        if (words_) {
            std::memcpy(&first_, name, 8);
            std::memcpy(&last_, name + size_ - 8, 8);
        }
    }

    /* The bit of checkedKeys that stands for this name. */
    std::uint64_t bit() const { return bit_; }

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
    std::size_t size_ = 0;
    std::uint16_t head_ = 0;
    bool shortForm_ = false;
    bool words_ = false;
    std::uint64_t first_ = 0, last_ = 0;
    std::uint64_t bit_ = 0;
};

/* The index of the entry keyed name among those c remembers as well
 * formed, or kCheckedEntries: their keys are compared (none when the name's
 * bit is clear), nothing else is checked again. */
std::uint32_t findChecked(_velClient_container *c, const KeyProbe &key)
{
    if ((c->checkedKeys & key.bit()) == 0)
        return kCheckedEntries;
    const std::ptrdiff_t size = c->curWrPtr - c->firstFieldPtr;
    for (std::uint32_t i = 0; i < c->checkedCount; ++i) {
        const std::uint32_t at = c->checkedAt[i];
        if (at < size && key.keys(c->firstFieldPtr + at, size - at))
            return i;
    }
    return kCheckedEntries;
}

/* Passes over the entries from pos that are well formed, in the usual form,
 * and not keyed name, checking them as a read would but decoding nothing,
 * and remembers them. Stops at the end, at the entry with that key (keyed
 * is then set when its key is in the usual form: its value is checked as it
 * is decoded) and at any entry it cannot vouch for: a read then decodes it
 * (and records what is malformed). */
std::uint8_t *skipOtherEntries(_velClient_container *c, std::uint8_t *pos, const KeyProbe &key, bool &keyed)
{
    const std::uint8_t *end = c->curWrPtr;
    while (pos < end) {
        const std::ptrdiff_t room = end - pos;
        if (room < 5 || pos[0] != kTypeString)
            return pos;
        const std::uint32_t keyLength = pos[1];
        if (keyLength < 3 || keyLength >= room)
            return pos;
        /* A name equal to the one looked for is a text with its only NUL last, as that one is. */
        if (keyLength - 2 == key.size() && key.sameName(pos + 2)) {
            keyed = true;
            return pos;
        }
        if (!isCString(pos + 2, keyLength - 2))
            return pos;
        const std::uint32_t valueLength = checkCommon(pos + keyLength, room - keyLength);
        if (valueLength == 0)
            return pos;
        noteChecked(c, pos, keyLength, keyLength + valueLength);
        pos += keyLength + valueLength;
    }
    return pos;
}

/* Decodes the value of the entry at pos, whose key in the usual form
 * skipOtherEntries found to be the name, into *field_p when decodeCommon
 * takes it (with every check: decodeCommon refuses what decodeField would),
 * and makes it the cursor's entry; false, with nothing written, for any
 * other value. */
bool readKeyedValue(_velClient_container *c, std::uint8_t *pos, const KeyProbe &key, velClient_field_t *field_p)
{
    const std::uint32_t keyLength = pos[1];
    const std::uint32_t valueLength = decodeCommon(pos + keyLength, c->curWrPtr - pos - keyLength, field_p);
    if (valueLength == 0)
        return false;
    c->curRdPtr = pos;
    c->curKeyLength = keyLength;
    c->curFieldLength = keyLength + valueLength;
    noteEntry(c, pos, keyLength + valueLength, [&key] { return key.bit(); });
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
        if (keyed && readKeyedValue(c, pos, key, field_p))
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
    const KeyProbe key(name_p);
    const std::uint32_t index = findChecked(c, key);
    if (index == kCheckedEntries)
        return scanFor(c, key, field_p);
    std::uint8_t *pos = c->firstFieldPtr + c->checkedAt[index];
    const char *name = nullptr;
    return readKnownEntry(c, pos, index, field_p, &name) ? VELCLIENT_OK : readEntryAt(c, pos, field_p, &name);
}
