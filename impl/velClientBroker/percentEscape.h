/*
 * percentEscape.h - the "%XX" escapes (upper-case hex) by which a topic
 * level that holds a character a broker reserves still maps to one address
 * or topic name and back.
 */
#pragma once

#include <string>
#include <string_view>

namespace vel::broker {

inline void appendEscaped(std::string &out, char ch)
{
    static constexpr char kHex[] = "0123456789ABCDEF";
    auto byte = static_cast<unsigned char>(ch);
    out.push_back('%');
    out.push_back(kHex[byte >> 4]);
    out.push_back(kHex[byte & 0x0F]);
}

inline int hexValue(char ch)
{
    if (ch >= '0' && ch <= '9')
        return ch - '0';
    if (ch >= 'A' && ch <= 'F')
        return ch - 'A' + 10;
    if (ch >= 'a' && ch <= 'f')
        return ch - 'a' + 10;
    return -1;
}

/* The byte that the escape starting at text[at] (a '%') stands for, or -1
 * when two hex digits do not follow. */
inline int escapedByte(std::string_view text, std::size_t at)
{
    int high = text.size() - at >= 3 ? hexValue(text[at + 1]) : -1;
    int low = high >= 0 ? hexValue(text[at + 2]) : -1;
    return low < 0 ? -1 : high << 4 | low;
}

} // namespace vel::broker
