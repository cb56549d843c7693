/*
 * userProperties.h - the typed user properties of the send command:
 * "NAME=VALUE" is a string, "NAME:TYPE=VALUE" any other field type of the
 * user property map (the type after the last ':' before the first '=').
 */
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "velclient/velClient.hpp"

namespace vel::tool {

using PropertyValue = std::variant<bool, std::int8_t, std::uint8_t, std::int16_t, std::uint16_t, std::int32_t,
                                   std::uint32_t, std::int64_t, std::uint64_t, float, double, std::string,
                                   velclient::Wchar, std::vector<std::uint8_t>, velclient::Null,
                                   velclient::Destination>;

struct UserProperty {
    std::string name;
    PropertyValue value;
};

/* The property text gives; a bad form, type or value throws UsageError naming option. */
UserProperty parseUserProperty(std::string_view option, std::string_view text);

/* Adds each property to map under its name, in order. */
void addUserProperties(velclient::Map &map, const std::vector<UserProperty> &properties);

/* The type names, for the help text. */
extern const char *const kUserPropertyTypes;

} // namespace vel::tool
