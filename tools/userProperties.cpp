/*
 * userProperties.cpp - parses "NAME[:TYPE]=VALUE" into a typed user property
 * (one table row per type name) and adds the properties to a message's user
 * property map.
 */
#include "userProperties.h"

#include <cfloat>
#include <charconv>
#include <cmath>
#include <limits>

#include "commandOptions.h"

namespace vel::tool {

const char *const kUserPropertyTypes =
    "string, bool, int8, uint8, int16, uint16, int32, uint32, int64, uint64, float, double, char, bytes, null, "
    "topic, queue";

namespace {

using Parser = PropertyValue (*)(std::string_view option, std::string_view text);

template <class T> PropertyValue integer(std::string_view option, std::string_view text)
{
    if constexpr (std::is_signed_v<T>)
        return static_cast<T>(
            parseInteger(option, text, std::numeric_limits<T>::min(), std::numeric_limits<T>::max()));
    else
        return static_cast<T>(parseUnsigned(option, text, std::numeric_limits<T>::max()));
}

PropertyValue boolean(std::string_view option, std::string_view text)
{
    if (text == "true" || text == "1")
        return true;
    if (text == "false" || text == "0")
        return false;
    refuseValue(option, text, "true, false, 1 or 0");
}

PropertyValue single(std::string_view option, std::string_view text)
{
    const double v = parseReal(option, text);
    if (std::isfinite(v) && std::fabs(v) > FLT_MAX)
        refuseValue(option, text, "within the range of a float");
    return static_cast<float>(v);
}

PropertyValue real(std::string_view option, std::string_view text)
{
    return parseReal(option, text);
}

PropertyValue string(std::string_view, std::string_view text)
{
    return std::string(text);
}

/* One character of at most 16 bits, written in UTF-8 (one to three bytes). */
PropertyValue character(std::string_view option, std::string_view text)
{
    const auto *p = reinterpret_cast<const unsigned char *>(text.data());
    const std::size_t n = text.size();
    const std::size_t expected = n == 0 ? 0 : p[0] < 0x80 ? 1 : (p[0] & 0xE0) == 0xC0 ? 2 : (p[0] & 0xF0) == 0xE0 ? 3 : 0;
    if (expected == 0 || n != expected)
        refuseValue(option, text, "one character up to U+FFFF");
    std::uint32_t c = expected == 1 ? p[0] : p[0] & (expected == 2 ? 0x1Fu : 0x0Fu);
    for (std::size_t i = 1; i < n; ++i) {
        if ((p[i] & 0xC0) != 0x80)
            refuseValue(option, text, "one character up to U+FFFF");
        c = (c << 6) | (p[i] & 0x3Fu);
    }
    return velclient::Wchar{c};
}

PropertyValue bytes(std::string_view option, std::string_view text)
{
    std::vector<std::uint8_t> out;
    for (std::size_t i = 0; i + 1 < text.size(); i += 2) {
        std::uint8_t byte = 0;
        const char *pair = text.data() + i;
        if (std::from_chars(pair, pair + 2, byte, 16).ptr != pair + 2)
            break;
        out.push_back(byte);
    }
    if (out.size() * 2 != text.size())
        refuseValue(option, text, "bytes as pairs of hex digits");
    return out;
}

PropertyValue null(std::string_view option, std::string_view text)
{
    if (!text.empty())
        refuseValue(option, text, "empty (a null property has no value)");
    return velclient::Null{};
}

PropertyValue topic(std::string_view, std::string_view text)
{
    return velclient::Destination::topic(text);
}

PropertyValue queue(std::string_view, std::string_view text)
{
    return velclient::Destination::queue(text);
}

constexpr struct {
    std::string_view name;
    Parser parse;
} kTypes[] = {
    {"string", string},
    {"bool", boolean},
    {"int8", integer<std::int8_t>},
    {"uint8", integer<std::uint8_t>},
    {"int16", integer<std::int16_t>},
    {"uint16", integer<std::uint16_t>},
    {"int32", integer<std::int32_t>},
    {"uint32", integer<std::uint32_t>},
    {"int64", integer<std::int64_t>},
    {"uint64", integer<std::uint64_t>},
    {"float", single},
    {"double", real},
    {"char", character},
    {"bytes", bytes},
    {"null", null},
    {"topic", topic},
    {"queue", queue},
};

Parser parserFor(std::string_view option, std::string_view text, std::string_view type)
{
    for (const auto &t : kTypes)
        if (t.name == type)
            return t.parse;
    std::string message("option ");
    message.append(option).append(": unknown type '").append(type).append("' in '").append(text);
    message.append("' (types: ").append(kUserPropertyTypes).append(")");
    throw UsageError(message);
}

} // namespace

UserProperty parseUserProperty(std::string_view option, std::string_view text)
{
    /* "NAME:null" alone needs no '='. */
    const std::size_t equals = text.find('=');
    const std::string_view key = text.substr(0, equals);
    const std::string_view value = equals == std::string_view::npos ? std::string_view() : text.substr(equals + 1);
    const std::size_t colon = key.rfind(':');
    const std::string_view name = key.substr(0, colon);
    const std::string_view type = colon == std::string_view::npos ? "string" : key.substr(colon + 1);
    if (name.empty() || (equals == std::string_view::npos && type != "null")) {
        std::string message("option ");
        message.append(option).append(": '").append(text).append("' is not NAME=VALUE or NAME:TYPE=VALUE");
        throw UsageError(message);
    }
    std::string typed(option);
    typed.append(" ").append(key);
    return {std::string(name), parserFor(option, text, type)(typed, value)};
}

void addUserProperties(velclient::Map &map, const std::vector<UserProperty> &properties)
{
    static const std::uint8_t kNoBytes = 0;
    for (const UserProperty &p : properties) {
        std::visit(
            [&](const auto &v) {
                /* An empty byte array still needs a pointer. */
                if constexpr (std::is_same_v<std::decay_t<decltype(v)>, std::vector<std::uint8_t>>)
                    map.add_bytes(v.empty() ? &kNoBytes : v.data(), v.size(), p.name.c_str());
                else
                    map.add(v, p.name.c_str());
            },
            p.value);
    }
}

} // namespace vel::tool
