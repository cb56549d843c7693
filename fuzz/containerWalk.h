/*
 * containerWalk.h - what the structured-data fuzz target does with one
 * input, shared with the test that replays the seed corpus: open the bytes as
 * a map and as a stream (in a private copy of exactly their size), walk them
 * with getNextField, every typed getter and nested sub-containers, delete a
 * field, and dump a message whose attachment holds them. After each change,
 * lookups in the container (which remembers entries it has checked) must
 * agree with lookups in a fresh container over a copy of the same bytes.
 */
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "velclient/velClientMsg.h"

namespace velfuzz {

template <typename T>
void getOne(velClient_opaqueContainer_pt c, const char *name,
            velClient_returnCode_t (*get)(velClient_opaqueContainer_pt, T *, const char *))
{
    T value{};
    get(c, &value, name);
}

/* Calls each one-value getter on the field called name. */
template <typename... T>
void oneValueGetters(velClient_opaqueContainer_pt c, const char *name,
                     velClient_returnCode_t (*... get)(velClient_opaqueContainer_pt, T *, const char *))
{
    (getOne(c, name, get), ...);
}

inline void typedGetters(velClient_opaqueContainer_pt c, const char *name)
{
    oneValueGetters(c, name, velClient_container_getBoolean, velClient_container_getUint8,
                    velClient_container_getInt8, velClient_container_getUint16, velClient_container_getInt16,
                    velClient_container_getUint32, velClient_container_getInt32, velClient_container_getUint64,
                    velClient_container_getInt64, velClient_container_getChar, velClient_container_getWchar,
                    velClient_container_getFloat, velClient_container_getDouble);
    const velClient_uint8_t *p;
    velClient_uint32_t len = 8;
    std::uint8_t buf[8];
    const char *s;
    char text[8];
    velClient_destination_t dest;
    velClient_opaqueContainer_pt sub = nullptr;
    velClient_container_getByteArrayPtr(c, &p, &len, name);
    len = sizeof buf;
    velClient_container_getByteArray(c, buf, &len, name);
    velClient_container_getVwfPtr(c, &p, &len, name);
    len = sizeof buf;
    velClient_container_getVwf(c, buf, &len, name);
    velClient_container_getStringPtr(c, &s, name);
    velClient_container_getString(c, text, sizeof text, name);
    velClient_container_getDestination(c, &dest, sizeof dest, name);
    velClient_container_getNull(c, name);
    if (velClient_container_getSubMap(c, &sub, name) == VELCLIENT_OK)
        velClient_container_closeMapStream(&sub);
    if (velClient_container_getSubStream(c, &sub, name) == VELCLIENT_OK)
        velClient_container_closeMapStream(&sub);
}

inline void walk(velClient_opaqueContainer_pt c, int depth)
{
    velClient_field_t f;
    const char *name = nullptr;
    size_t size = 0;
    velClient_container_getSize(c, &size);
    int fields = 0;
    while (fields++ < 64 && velClient_container_getNextField(c, &f, sizeof f, &name) == VELCLIENT_OK) {
        if (f.type == VELCLIENT_MAP || f.type == VELCLIENT_STREAM) {
            if (depth < 6)
                walk(f.value.map, depth + 1);
            velClient_container_closeMapStream(&f.value.map);
        }
        if (name != nullptr && fields <= 4) {
            /* Look the first names up again with every getter (each moves the cursor back to it). */
            typedGetters(c, name);
        }
    }
    velClient_container_rewind(c);
    for (int i = 0; i < 4; ++i)
        typedGetters(c, nullptr); /* a stream reads its next fields; a map refuses */
}

/* A field's value, comparable between two containers over equal bytes. */
inline std::string valueOf(const velClient_field_t &f)
{
    switch (f.type) {
    case VELCLIENT_STRING:
    case VELCLIENT_BYTEARRAY:
    case VELCLIENT_VWF:
        return f.value.bytearray == nullptr ? std::string("(null)")
                                            : std::string(reinterpret_cast<const char *>(f.value.bytearray), f.length);
    case VELCLIENT_DESTINATION:
        return f.value.dest.dest == nullptr ? std::string("(null)") : std::string(f.value.dest.dest);
    case VELCLIENT_BOOL:
    case VELCLIENT_UINT8:
    case VELCLIENT_INT8: return std::to_string(f.value.uint8);
    case VELCLIENT_UINT16:
    case VELCLIENT_INT16: return std::to_string(f.value.uint16);
    case VELCLIENT_UINT32:
    case VELCLIENT_INT32:
    case VELCLIENT_WCHAR: return std::to_string(f.value.uint32);
    case VELCLIENT_UINT64:
    case VELCLIENT_INT64: return std::to_string(f.value.uint64);
    case VELCLIENT_FLOAT: return std::string(reinterpret_cast<const char *>(&f.value.float32), sizeof(float));
    case VELCLIENT_DOUBLE: return std::string(reinterpret_cast<const char *>(&f.value.float64), sizeof(double));
    default: return std::string(); /* map, stream, null, unknown: type and length say it all */
    }
}

/* One lookup and the read after it, as text: what two containers over equal
 * bytes must both answer. The text grows in place, part by part (a chain of
 * "x" + std::string temporaries makes GCC 12 at -O3 report a memcpy overlap
 * that cannot happen). */
inline std::string lookupAndNext(velClient_opaqueContainer_pt c, const char *name)
{
    velClient_field_t f{};
    velClient_returnCode_t rc = velClient_container_getField(c, &f, sizeof f, name);
    std::string out = std::to_string(rc);
    if (rc == VELCLIENT_OK) {
        for (const std::string &part : {std::to_string(f.type), std::to_string(f.length), valueOf(f)})
            out.append(1, '/').append(part);
        if (f.type == VELCLIENT_MAP || f.type == VELCLIENT_STREAM)
            velClient_container_closeMapStream(&f.value.map);
    }
    const char *next = nullptr;
    rc = velClient_container_getNextField(c, &f, sizeof f, &next);
    out.append(1, '|').append(std::to_string(rc)).append(next != nullptr ? next : "(none)");
    if (rc == VELCLIENT_OK && (f.type == VELCLIENT_MAP || f.type == VELCLIENT_STREAM))
        velClient_container_closeMapStream(&f.value.map);
    return out;
}

/* The first entry's name, read afresh (nullptr when there is none). */
inline const char *firstName(velClient_opaqueContainer_pt c)
{
    velClient_field_t f;
    const char *name = nullptr;
    velClient_container_rewind(c);
    if (velClient_container_getNextField(c, &f, sizeof f, &name) != VELCLIENT_OK)
        return nullptr;
    if (f.type == VELCLIENT_MAP || f.type == VELCLIENT_STREAM)
        velClient_container_closeMapStream(&f.value.map);
    return name;
}

/* Lookups in map c and in a fresh map over a copy of its bytes agree. */
inline void sameLookups(velClient_opaqueContainer_pt c)
{
    void *bytes = nullptr;
    velClient_uint32_t size = 0;
    if (velClient_container_getContainerPtr(c, &bytes, &size) != VELCLIENT_OK || size < 5)
        return;
    std::vector<std::uint8_t> copy(static_cast<std::uint8_t *>(bytes), static_cast<std::uint8_t *>(bytes) + size);
    velClient_opaqueContainer_pt fresh = nullptr;
    if (velClient_container_openMapFromPtr(&fresh, copy.data(), size) != VELCLIENT_OK)
        return;
    std::vector<std::string> names{"zz-absent"};
    velClient_field_t f;
    const char *name = nullptr;
    while (names.size() < 24 && velClient_container_getNextField(fresh, &f, sizeof f, &name) == VELCLIENT_OK) {
        if (f.type == VELCLIENT_MAP || f.type == VELCLIENT_STREAM)
            velClient_container_closeMapStream(&f.value.map);
        if (name != nullptr)
            names.emplace_back(name);
    }
    for (int round = 0; round < 2; ++round) {
        for (std::size_t i = 0; i < names.size(); ++i) {
            const std::string &n = names[round == 0 ? i : names.size() - 1 - i];
            if (lookupAndNext(c, n.c_str()) != lookupAndNext(fresh, n.c_str()))
                __builtin_trap();
        }
    }
    velClient_container_closeMapStream(&fresh);
}

/* The bytes with a container header of the given type whose length matches
 * the size, so that the content (not the header) gets explored. */
inline std::vector<std::uint8_t> framed(const std::uint8_t *data, std::size_t size, std::uint8_t type)
{
    std::vector<std::uint8_t> copy(data, data + size);
    if (size >= 5) {
        copy[0] = type;
        for (int i = 0; i < 4; ++i)
            copy[1 + static_cast<std::size_t>(i)] = static_cast<std::uint8_t>(size >> (8 * (3 - i)));
    }
    return copy;
}

inline void walkContainer(const std::uint8_t *data, std::size_t size)
{
    if (size > 1u << 20)
        return;
    std::vector<std::uint8_t> copy = framed(data, size, 0x2B);
    auto len = static_cast<velClient_uint32_t>(size);
    velClient_opaqueContainer_pt c = nullptr;
    if (size > 0 && velClient_container_openMapFromPtr(&c, copy.data(), len) == VELCLIENT_OK) {
        walk(c, 0);
        sameLookups(c);
        velClient_container_deleteField(c, "a");
        walk(c, 0);
        sameLookups(c);
        velClient_container_closeMapStream(&c);
    }
    std::vector<std::uint8_t> second = framed(data, size, 0x2F);
    if (size > 0 && velClient_container_openStreamFromPtr(&c, second.data(), len) == VELCLIENT_OK) {
        walk(c, 0);
        velClient_container_closeMapStream(&c);
    }
    velClient_opaqueMsg_pt m = nullptr;
    if (velClient_msg_alloc(&m) == VELCLIENT_OK) {
        std::vector<std::uint8_t> third = framed(data, size, size % 2 ? 0x2B : 0x2F);
        velClient_msg_setBinaryAttachment(m, third.data(), len);
        if (velClient_msg_getBinaryAttachmentMap(m, &c) == VELCLIENT_OK) {
            walk(c, 0);
            velClient_container_addInt32(c, 1, "added"); /* growth into a new block */
            sameLookups(c);
            velClient_container_deleteField(c, "added");
            sameLookups(c);
            /* Names and values lent from the very map that grows or shrinks. */
            if (const char *name = firstName(c))
                velClient_container_addString(c, name, name);
            if (const char *name = firstName(c))
                velClient_container_deleteField(c, name);
            sameLookups(c);
            velClient_container_closeMapStream(&c);
        }
        velClient_opaqueMsg_pt d = nullptr;
        if (velClient_msg_dup(m, &d) == VELCLIENT_OK) {
            if (velClient_msg_getBinaryAttachmentStream(d, &c) == VELCLIENT_OK) {
                velClient_container_addNull(c, nullptr); /* copy-on-modify of shared bytes */
                velClient_container_closeMapStream(&c);
            }
            velClient_msg_free(&d);
        }
        static char text[4096];
        velClient_msg_dump(m, text, sizeof text);
        velClient_msg_free(&m);
    }
}

} // namespace velfuzz
