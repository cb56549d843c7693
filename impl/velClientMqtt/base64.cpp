/*
 * base64.cpp - base64 with the standard alphabet and '=' padding, as the
 * frame property carries a message's wire frame: 3 bytes become 4
 * characters ("vel" <-> "dmVs", "v" <-> "dg==").
 */
#include <array>

#include "velClientMqtt/mqttPublish.h"

namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr std::int8_t kNotBase64 = -1;

constexpr std::array<std::int8_t, 256> kValues = [] {
    std::array<std::int8_t, 256> values{};
    values.fill(kNotBase64);
    for (int i = 0; i < 64; ++i)
        values[static_cast<unsigned char>(kAlphabet[i])] = static_cast<std::int8_t>(i);
    return values;
}();

int valueOf(char c)
{
    return kValues[static_cast<unsigned char>(c)];
}

} // namespace

void vel::mqtt::appendBase64(const std::uint8_t *p, std::size_t n, std::string &out)
{
    std::size_t at = out.size();
    out.resize(at + (n + 2) / 3 * 4);
    std::size_t i = 0;
    for (; i + 3 <= n; i += 3, at += 4) {
        const std::uint32_t v = std::uint32_t{p[i]} << 16 | std::uint32_t{p[i + 1]} << 8 | p[i + 2];
        out[at] = kAlphabet[v >> 18];
        out[at + 1] = kAlphabet[(v >> 12) & 63];
        out[at + 2] = kAlphabet[(v >> 6) & 63];
        out[at + 3] = kAlphabet[v & 63];
    }
    if (i == n)
        return;
    const bool two = n - i == 2;
    const std::uint32_t v = std::uint32_t{p[i]} << 16 | (two ? std::uint32_t{p[i + 1]} << 8 : 0);
    out[at] = kAlphabet[v >> 18];
    out[at + 1] = kAlphabet[(v >> 12) & 63];
    out[at + 2] = two ? kAlphabet[(v >> 6) & 63] : '=';
    out[at + 3] = '=';
}

bool vel::mqtt::base64Size(std::string_view text, std::size_t &size)
{
    if (text.size() % 4 != 0)
        return false;
    std::size_t padding = 0;
    if (!text.empty() && text.back() == '=')
        padding = text[text.size() - 2] == '=' ? 2 : 1;
    size = text.size() / 4 * 3 - padding;
    return true;
}

bool vel::mqtt::decodeBase64(std::string_view text, std::uint8_t *out)
{
    for (std::size_t at = 0; at < text.size(); at += 4) {
        const bool last = at + 4 == text.size();
        const int a = valueOf(text[at]), b = valueOf(text[at + 1]);
        const bool pad3 = last && text[at + 2] == '=' && text[at + 3] == '=';
        const bool pad4 = last && text[at + 3] == '=';
        const int c = pad3 ? 0 : valueOf(text[at + 2]), d = pad4 ? 0 : valueOf(text[at + 3]);
        if ((a | b | c | d) < 0)
            return false;
        const auto v = static_cast<std::uint32_t>(a << 18 | b << 12 | c << 6 | d);
        *out++ = static_cast<std::uint8_t>(v >> 16);
        if (!pad3)
            *out++ = static_cast<std::uint8_t>(v >> 8);
        if (!pad4)
            *out++ = static_cast<std::uint8_t>(v);
    }
    return true;
}
