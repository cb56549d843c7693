/*
 * mapEntryRead.h - reading one map entry where the cursor reads and where
 * lookups read: the usual entry (a name and a value with 1-byte lengths)
 * inline, with every check or, for an entry the map remembers as well
 * formed, with the checks of what can have changed since; the entries a
 * map remembers and the bit each key stands for in their mark. Anything
 * else goes to readAnyEntryAt (containerRead.cpp).
 */
#pragma once

#include <bit>
#include <cstring>

#include "velClientMsg/container/tlvFastPath.h"
#include "velClientMsg/velClientMsgPrivate.h"

namespace vel::mapread {

using namespace vel::tlv;

/* The length of the key at pos, in room bytes, when it has the usual form:
 * a name with a 1-byte length, checked as the general path checks it (with
 * known, its text as textEnds<true> checks it); 0 for any other key. */
template <bool known = false>
[[gnu::always_inline]] inline std::uint32_t commonKeyLength(const std::uint8_t *pos, std::ptrdiff_t room)
{
    if (room < 5 || pos[0] != kTypeString)
        return 0;
    const std::uint32_t keyLength = pos[1];
    if (keyLength < 3 || keyLength >= room || !textEnds<known>(pos + 2, keyLength - 2))
        return 0;
    return keyLength;
}

/* A map entry in its usual form: a key that commonKeyLength takes, then a
 * value that decodeCommon takes. Decoded with the general path's checks
 * (with known, those of an entry found well formed before: every type byte
 * and length against the end, and each text only for the NUL that ends it
 * inside the bytes); false, with nothing recorded, for any other entry. */
template <bool known = false>
[[gnu::always_inline]] inline bool readCommonEntry(_velClient_container *c, std::uint8_t *pos,
                                                   velClient_field_t *field_p, const char **name_p)
{
    const std::ptrdiff_t room = c->curWrPtr - pos;
    const std::uint32_t keyLength = commonKeyLength<known>(pos, room);
    if (keyLength == 0)
        return false;
    const std::uint32_t valueLength = decodeCommon<known>(pos + keyLength, room - keyLength, field_p);
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
velClient_returnCode_t readAnyEntryAt(_velClient_container *c, std::uint8_t *pos, velClient_field_t *field_p,
                                     const char **name_p);


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

inline std::uint64_t loadLE(const std::uint8_t *p)
{
    std::uint64_t w;
    std::memcpy(&w, p, 8);
    if constexpr (std::endian::native == std::endian::big)
        w = __builtin_bswap64(w);
    return w;
}

/* The last 8 of the nameSize bytes at name (all of them when fewer) as a
 * little-endian number; nothing outside those bytes is read. */
inline std::uint64_t lastBytesOf(const std::uint8_t *name, std::size_t nameSize)
{
    if (nameSize >= 8)
        return loadLE(name + nameSize - 8);
    std::uint64_t v = 0;
    for (std::size_t i = 0; i < nameSize; ++i)
        v |= std::uint64_t{name[i]} << (8 * i);
    return v;
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

/* Remembers the map entry at pos (len bytes, found well formed, the bit of
 * its key given by keyBitOf()) when it is the first one not yet remembered
 * and there is room for it. */
template <typename KeyBitOf>
inline void noteEntry(_velClient_container *c, const std::uint8_t *pos, std::uint32_t len, KeyBitOf keyBitOf)
{
    const auto at = static_cast<std::uint32_t>(pos - c->firstFieldPtr);
    if (at == c->checkedEnd && c->checkedCount < kCheckedEntries) {
        c->checkedAt[c->checkedCount++] = at;
        c->checkedNext = c->checkedCount;
        c->checkedEnd = at + len;
        c->checkedKeys |= keyBitOf();
    }
}

/* noteEntry for an entry whose key takes keyLength bytes. */
inline void noteChecked(_velClient_container *c, const std::uint8_t *pos, std::uint32_t keyLength,
                        std::uint32_t len)
{
    noteEntry(c, pos, len, [pos, keyLength] { return entryKeyBit(pos, keyLength); });
}

/* noteChecked for the entry at the cursor. */
inline void noteCursor(_velClient_container *c)
{
    noteChecked(c, c->curRdPtr, c->curKeyLength, c->curFieldLength);
}

/* Reads the remembered entry at pos, the index-th, as one found well formed
 * before: its bytes may have changed since (the application's, or another
 * map over them deleted from them), so every type byte and length is checked
 * against the end again and each text for the NUL that ends it inside the
 * bytes; that this NUL is the text's only one was checked when the entry was
 * remembered. False, with nothing recorded, when the entry no longer passes:
 * the caller then reads it with every check. */
inline bool readKnownEntry(_velClient_container *c, std::uint8_t *pos, std::uint32_t index,
                           velClient_field_t *field_p, const char **name_p)
{
    if (!readCommonEntry<true>(c, pos, field_p, name_p))
        return false;
    c->checkedNext = index + 1;
    return true;
}

/* Reads the map entry at pos, the next one after the cursor, as
 * readKnownEntry when it is a remembered entry (the guess checkedNext, or
 * the first one after a rewind), else in the usual form with every check,
 * then remembered; false, with nothing recorded, for any other entry. */
[[gnu::always_inline]] inline bool readNextCommonEntry(_velClient_container *c, std::uint8_t *pos,
                                                       velClient_field_t *field_p, const char **name_p)
{
    const auto at = static_cast<std::uint32_t>(pos - c->firstFieldPtr);
    const std::uint32_t index = at == 0 ? 0 : c->checkedNext;
    if (index < c->checkedCount && c->checkedAt[index] == at && readKnownEntry(c, pos, index, field_p, name_p))
        return true;
    if (!readCommonEntry(c, pos, field_p, name_p))
        return false;
    noteCursor(c);
    return true;
}

} // namespace vel::mapread
