/*
 * dumpWriter.cpp - the bounded text writer of the message dump and the
 * renderings built on it: hex and text dumps of bytes, destinations,
 * consumer ids, fields and whole containers.
 */
#include "velClientMsg/dump/dumpWriter.h"
#include "velClientMsg/message/recordApi.h"

#include <type_traits>

#include "velClientMsg/container/fieldTypes.h"

#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <cwchar>

namespace {

/* One output state, to keep the writers' argument lists short. */
struct Out {
    char *buf;
    std::size_t size;
    std::size_t *left;
};

} // namespace

#define VEL_OUT(o) (o).buf, (o).size, (o).left

void _velClient_dump(char *buffer_p, std::size_t bufferSize, std::size_t *sizeLeft_p, unsigned indent,
                     const char *format_p, ...)
{
    va_list ap;
    va_start(ap, format_p);
    if (buffer_p == nullptr) {
        for (unsigned i = 0; i < indent; ++i)
            std::putchar(' ');
        std::vprintf(format_p, ap);
        va_end(ap);
        return;
    }
    if (*sizeLeft_p >= bufferSize)
        *sizeLeft_p = bufferSize - 1;
    for (unsigned i = 0; i < indent && *sizeLeft_p > 0; ++i) {
        buffer_p[bufferSize - 1 - *sizeLeft_p] = ' ';
        --*sizeLeft_p;
    }
    if (*sizeLeft_p == 0) {
        va_end(ap);
        return;
    }
    int n = std::vsnprintf(buffer_p + (bufferSize - 1 - *sizeLeft_p), *sizeLeft_p, format_p, ap);
    va_end(ap);
    if (n < 0 || static_cast<std::size_t>(n) > *sizeLeft_p)
        *sizeLeft_p = 0;
    else
        *sizeLeft_p -= static_cast<std::size_t>(n);
}

namespace {

bool full(const Out &o)
{
    return o.buf != nullptr && *o.left == 0;
}

/* One line of up to 16 bytes: hex column, separator, character column. */
void hexLine(const Out &o, const std::uint8_t *p, std::uint32_t n)
{
    for (std::uint32_t i = 0; i < 16; ++i) {
        if (i == 8)
            _velClient_dump(VEL_OUT(o), 0, " ");
        if (i < n)
            _velClient_dump(VEL_OUT(o), 0, "%02x ", p[i]);
        else
            _velClient_dump(VEL_OUT(o), 0, "   ");
    }
    _velClient_dump(VEL_OUT(o), 0, "     ");
    for (std::uint32_t i = 0; i < n; ++i) {
        if (i == 8)
            _velClient_dump(VEL_OUT(o), 0, "   ");
        _velClient_dump(VEL_OUT(o), 0, "%c", std::isprint(p[i]) ? p[i] : '.');
    }
}

} // namespace

void _velClient_hex_dump(const std::uint8_t *data_p, std::uint32_t dataLen, char *buffer_p, std::size_t bufferSize,
                         std::size_t *sizeLeft_p, unsigned indent, bool newLineAtEnd)
{
    Out o{buffer_p, bufferSize, sizeLeft_p};
    if (dataLen == 0)
        return;
    _velClient_dump(VEL_OUT(o), 0, "len=%u\n", dataLen);
    _velClient_dump(VEL_OUT(o), indent, "%s", "");
    if (full(o))
        return;
    for (std::uint32_t at = 0; at < dataLen; at += 16) {
        if (at != 0) {
            _velClient_dump(VEL_OUT(o), 0, "\n");
            _velClient_dump(VEL_OUT(o), indent, "%s", "");
            if (full(o))
                return;
        }
        hexLine(o, data_p + at, dataLen - at < 16 ? dataLen - at : 16);
    }
    if (newLineAtEnd)
        _velClient_dump(VEL_OUT(o), 0, "\n");
}

void _velClient_char_dump(const std::uint8_t *data_p, std::uint32_t dataLen, char *buffer_p, std::size_t bufferSize,
                          std::size_t *sizeLeft_p)
{
    Out o{buffer_p, bufferSize, sizeLeft_p};
    _velClient_dump(VEL_OUT(o), 0, "len=%u\n", dataLen);
    _velClient_dump(VEL_OUT(o), 2, "%s", "");
    unsigned column = 0;
    for (std::uint32_t i = 0; i < dataLen; ++i) {
        if (std::isprint(data_p[i])) {
            _velClient_dump(VEL_OUT(o), 0, "%c", data_p[i]);
            column += 1;
        } else {
            _velClient_dump(VEL_OUT(o), 0, " 0x%02x ", data_p[i]);
            column += 6;
        }
        if (column >= 60) {
            _velClient_dump(VEL_OUT(o), 0, "\n");
            _velClient_dump(VEL_OUT(o), 2, "%s", "");
            column = 0;
            if (full(o))
                return;
        }
    }
    if (column != 0)
        _velClient_dump(VEL_OUT(o), 0, "\n");
}

void _velClient_destination_dump(const velClient_destination_t *dest_p, char *buffer_p, std::size_t bufferSize,
                                 std::size_t *sizeLeft_p)
{
    Out o{buffer_p, bufferSize, sizeLeft_p};
    const char *name = dest_p->dest != nullptr ? dest_p->dest : "";
    std::int64_t type = vel::enumValue(dest_p->destType);
    switch (type) {
    case VELCLIENT_NULL_DESTINATION: _velClient_dump(VEL_OUT(o), 0, "Null destination"); return;
    case VELCLIENT_TOPIC_DESTINATION: _velClient_dump(VEL_OUT(o), 0, "Topic '%s'", name); return;
    case VELCLIENT_QUEUE_DESTINATION: _velClient_dump(VEL_OUT(o), 0, "Queue '%s'", name); return;
    case VELCLIENT_TOPIC_TEMP_DESTINATION: _velClient_dump(VEL_OUT(o), 0, "Temp topic '%s'", name); return;
    case VELCLIENT_QUEUE_TEMP_DESTINATION: _velClient_dump(VEL_OUT(o), 0, "Temp queue '%s'", name); return;
    }
    _velClient_dump(VEL_OUT(o), 0, "Unknown type (%d) '%s'", static_cast<int>(type), name);
}

void _velClient_consumerId_dump(const velClient_bufInfo_t *parts, std::uint32_t count, char *buffer_p,
                                std::size_t bufferSize, std::size_t *sizeLeft_p)
{
    Out o{buffer_p, bufferSize, sizeLeft_p};
    _velClient_dump(VEL_OUT(o), 0, "Consumer ID Count: %u", count);
    /* Each group line lists every id from its start to the last one. */
    for (std::uint32_t group = 0; group < count; group += 8) {
        _velClient_dump(VEL_OUT(o), 0, "\n");
        _velClient_dump(VEL_OUT(o), 2, "%s", "");
        for (std::uint32_t i = group; i < count; ++i) {
            velClient_consumerId_t id = 0;
            if (vel::msg::consumerId(parts, i, &id) != VELCLIENT_OK)
                break;
            _velClient_dump(VEL_OUT(o), 2, "%08x,", id);
        }
    }
}

void _velClient_field_dump(const velClient_field_t *f, char *buffer_p, std::size_t bufferSize,
                           std::size_t *sizeLeft_p, unsigned indent, unsigned subIndent)
{
    Out o{buffer_p, bufferSize, sizeLeft_p};
    vel::field::visit(*f, [&](auto code, const auto &value) {
        using T = std::decay_t<decltype(value)>;
        const char *name = vel::field::traits(code).dumpName;
        if constexpr (code == VELCLIENT_BOOL)
            _velClient_dump(VEL_OUT(o), indent, "(%s) %s", name, value ? "TRUE" : "FALSE");
        else if constexpr (code == VELCLIENT_WCHAR)
            _velClient_dump(VEL_OUT(o), indent, "(%s) %lc", name, static_cast<wint_t>(value));
        else if constexpr (code == VELCLIENT_STRING)
            _velClient_dump(VEL_OUT(o), indent, "(%s) %s", name, value);
        else if constexpr (code == VELCLIENT_NULL)
            _velClient_dump(VEL_OUT(o), indent, "(%s)", name);
        else if constexpr (std::is_floating_point_v<T>)
            _velClient_dump(VEL_OUT(o), indent, "(%s) %f", name, static_cast<double>(value));
        else if constexpr (std::is_integral_v<T> && std::is_signed_v<T>)
            _velClient_dump(VEL_OUT(o), indent, "(%s) %lld", name, static_cast<long long>(value));
        else if constexpr (std::is_integral_v<T>)
            _velClient_dump(VEL_OUT(o), indent, "(%s) %llu", name, static_cast<unsigned long long>(value));
        else if constexpr (code == VELCLIENT_MAP || code == VELCLIENT_STREAM) {
            _velClient_dump(VEL_OUT(o), indent, "(%s)\n", name);
            _velClient_container_dump(value, VEL_OUT(o), subIndent + 2);
        } else if constexpr (code == VELCLIENT_DESTINATION) {
            _velClient_dump(VEL_OUT(o), indent, "(%s) ", name);
            _velClient_destination_dump(&value, VEL_OUT(o));
        } else { /* byte array, VWF (indented from the line, not the column) and unknown */
            _velClient_dump(VEL_OUT(o), indent, "(%s) ", name);
            _velClient_hex_dump(value, f->length, VEL_OUT(o), (code == VELCLIENT_VWF ? indent : subIndent) + 2,
                                false);
        }
    });
}

void _velClient_container_dump(velClient_opaqueContainer_pt opaqueCont_p, char *buffer_p, std::size_t bufferSize,
                               std::size_t *sizeLeft_p, unsigned indent)
{
    Out o{buffer_p, bufferSize, sizeLeft_p};
    _velClient_container *cont = vel::containerOrFail(opaqueCont_p, "Bad Container (%p) in _velClient_container_dump");
    if (cont == nullptr)
        return;
    std::uint8_t *savedRd = cont->curRdPtr;
    cont->curRdPtr = nullptr;
    velClient_field_t field;
    const char *name = nullptr;
    while (_velClient_container_readNextField(cont, &field, &name) == VELCLIENT_OK) {
        if (name != nullptr) {
            _velClient_dump(VEL_OUT(o), indent, "Key '%s' ", name);
            _velClient_field_dump(&field, VEL_OUT(o), 0, indent);
        } else {
            _velClient_field_dump(&field, VEL_OUT(o), indent, indent);
        }
        _velClient_dump(VEL_OUT(o), 0, "\n");
        if (field.type == VELCLIENT_MAP || field.type == VELCLIENT_STREAM) {
            _velClient_container *sub = vel::containerOf(field.value.map);
            _velClient_container_closeMapStream(&sub, true, false, false);
        }
        name = nullptr;
    }
    cont->curRdPtr = savedRd;
}
