/*
 * fieldConvert.cpp - the conversion table of the typed getters. The uneven
 * limits (a signed zero refused by the 8-bit unsigned getter but accepted by
 * the 16- and 32-bit ones, for instance) are intended.
 */
#include "velClientMsg/container/fieldConvert.h"
#include "velClientMsg/container/fieldTypes.h"

#include <cerrno>
#include <cstdlib>
#include <strings.h>

namespace vel::convert {

namespace {

constexpr wide_t kMin64 = -(static_cast<wide_t>(1) << 63);
constexpr wide_t kMax64 = (static_cast<wide_t>(1) << 63) - 1;
constexpr wide_t kMaxU64 = (static_cast<wide_t>(1) << 64) - 1;

constexpr Range any{kMin64, kMaxU64};
constexpr Range r(wide_t lo, wide_t hi)
{
    return Range{lo, hi};
}

bool within(wide_t v, const Range &range)
{
    return v >= range.lo && v <= range.hi;
}

/* The one-character string of a field, or nullptr. */
const char *singleChar(const velClient_field_t &f)
{
    if (f.type != VELCLIENT_STRING || f.value.string == nullptr || f.value.string[0] == '\0' ||
        f.value.string[1] != '\0')
        return nullptr;
    return f.value.string;
}

} // namespace

/*                 BOOL         UINT8          INT8           UINT16 INT16
 *                 UINT32                 INT32                  UINT64 INT64 */
const IntRule kUint8{{any, any, r(1, 127), r(0, 255), r(1, 255), r(0, 255), r(1, 255), r(0, 255), r(1, 255)},
                     {false, false, r(0, 255)}};
const IntRule kInt8{{any, r(0, 127), any, r(0, 127), r(-128, 127), r(0, 127), r(-128, 127), r(0, 127), r(-128, 127)},
                    {false, true, r(-128, 127)}};
const IntRule kUint16{{any, any, r(1, 127), any, r(0, 32767), r(0, 65535), r(0, 65535), r(0, 65535), r(0, 65535)},
                      {false, false, r(0, 65535)}};
const IntRule kInt16{{any, any, any, r(0, 32767), any, r(0, 32767), r(-32768, 32767), r(0, 32767), r(-32768, 32767)},
                     {false, true, r(-32768, 32767)}};
const IntRule kUint32{{any, any, r(0, 127), any, r(0, 32767), any, r(0, 2147483647), r(0, 4294967295),
                       r(0, 4294967295)},
                      {false, true, r(0, 2147483647)}};
const IntRule kInt32{{any, any, any, any, any, r(0, 2147483647), any, r(0, 2147483647), r(-2147483648, 2147483647)},
                     {false, true, r(-2147483648, 2147483647)}};
const IntRule kUint64{{any, any, r(0, 127), any, r(0, 32767), any, r(0, 2147483647), any, r(0, kMax64)},
                      {true, false, r(0, kMax64)}};
const IntRule kInt64{{any, any, any, any, any, any, any, r(0, kMax64), any}, {true, false, r(kMin64, kMax64)}};

bool storedInteger(const velClient_field_t &f, wide_t &v)
{
    return vel::field::visit(f, [&v](auto code, const auto &value) {
        if constexpr (vel::field::isInteger(code)) {
            v = value;
            return true;
        }
        return false;
    });
}

bool parseInteger(const char *text, bool sixtyFour, wide_t &v)
{
    if (text == nullptr)
        return false;
    char *end = nullptr;
    long long parsed = sixtyFour ? std::strtoll(text, &end, 0) : std::strtol(text, &end, 0);
    if (*end != '\0')
        return false;
    v = parsed;
    return true;
}

bool toInteger(const velClient_field_t &f, const IntRule &rule, wide_t &v)
{
    if (storedInteger(f, v))
        return within(v, rule.stored[f.type]);
    if (f.type != VELCLIENT_STRING || !parseInteger(f.value.string, rule.string.sixtyFour, v))
        return false;
    if (!rule.string.sixtyFour) {
        auto low = static_cast<std::uint32_t>(static_cast<std::uint64_t>(v));
        v = rule.string.lowSigned ? static_cast<wide_t>(static_cast<std::int32_t>(low)) : static_cast<wide_t>(low);
    }
    return within(v, rule.string.range);
}

bool toBoolean(const velClient_field_t &f, velClient_bool_t &out)
{
    wide_t v = 0;
    if (storedInteger(f, v)) {
        out = v != 0;
        return true;
    }
    if (f.type == VELCLIENT_FLOAT || f.type == VELCLIENT_DOUBLE) {
        out = (f.type == VELCLIENT_FLOAT ? f.value.float32 != 0.0f : f.value.float64 != 0.0) ? 1 : 0;
        return true;
    }
    if (f.type != VELCLIENT_STRING || f.value.string == nullptr)
        return false;
    if (strcasecmp(f.value.string, "true") == 0 || strcasecmp(f.value.string, "1") == 0)
        out = 1;
    else if (strcasecmp(f.value.string, "false") == 0 || strcasecmp(f.value.string, "0") == 0)
        out = 0;
    else
        return false;
    return true;
}

bool toChar(const velClient_field_t &f, char &out)
{
    wide_t v = 0;
    if ((f.type == VELCLIENT_UINT8 || f.type == VELCLIENT_INT8) && storedInteger(f, v) && within(v, r(0, 127))) {
        out = static_cast<char>(v);
        return true;
    }
    if (f.type == VELCLIENT_WCHAR && f.value.wchar <= 255) {
        out = static_cast<char>(f.value.wchar);
        return true;
    }
    if (const char *c = singleChar(f)) {
        out = c[0];
        return true;
    }
    return false;
}

bool toWchar(const velClient_field_t &f, velClient_wchar_t &out)
{
    wide_t v = 0;
    if (f.type == VELCLIENT_WCHAR) {
        out = f.value.wchar;
        return true;
    }
    if ((f.type == VELCLIENT_UINT8 || f.type == VELCLIENT_INT8) && storedInteger(f, v) && within(v, r(0, 127))) {
        out = static_cast<velClient_wchar_t>(v);
        return true;
    }
    if (const char *c = singleChar(f)) {
        /* The character is sign-extended, as a plain char is. */
        out = static_cast<velClient_wchar_t>(static_cast<int>(static_cast<signed char>(c[0])));
        return true;
    }
    return false;
}

namespace {

bool parseDouble(const velClient_field_t &f, double &out)
{
    if (f.type != VELCLIENT_STRING || f.value.string == nullptr)
        return false;
    char *end = nullptr;
    double v = std::strtod(f.value.string, &end);
    if (*end != '\0')
        return false;
    out = v;
    return true;
}

} // namespace

bool toFloat(const velClient_field_t &f, float &out)
{
    if (f.type == VELCLIENT_FLOAT) {
        out = f.value.float32;
        return true;
    }
    double v = 0;
    if (!parseDouble(f, v))
        return false;
    out = static_cast<float>(v);
    return true;
}

bool toDouble(const velClient_field_t &f, double &out)
{
    if (f.type == VELCLIENT_DOUBLE) {
        out = f.value.float64;
        return true;
    }
    return parseDouble(f, out);
}

const char *typeName(velClient_fieldType_t type)
{
    return vel::field::traits(type).conversionName;
}

} // namespace vel::convert
