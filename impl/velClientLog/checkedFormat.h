/*
 * checkedFormat.h - printf texts kept in tables, checked when compiled.
 * vel::Format<Args...> takes a text only when its directives consume exactly
 * Args, in order; anything else fails to compile. The directives understood
 * are the library's own: %p %s %d %i %u %x, the l, ll and z (with u) length
 * modifiers, flags, widths and precisions, and %%.
 */
#pragma once

#include <cstddef>
#include <type_traits>

namespace vel {

namespace format {

enum class Length { none, longInt, longLong, size };

/* One directive of a text: its length modifier and its conversion letter;
 * the letter is '\0' at the end of the text and '?' for a directive outside
 * the supported set. */
struct Directive {
    Length length;
    char conversion;
};

constexpr bool isFlag(char c)
{
    return c == '-' || c == '+' || c == ' ' || c == '#' || c == '0';
}

constexpr bool isDigit(char c)
{
    return c >= '0' && c <= '9';
}

constexpr Length lengthAt(const char *&p)
{
    if (p[0] == 'l' && p[1] == 'l') {
        p += 2;
        return Length::longLong;
    }
    if (*p == 'l' || *p == 'z') {
        return *p++ == 'l' ? Length::longInt : Length::size;
    }
    return Length::none;
}

/* The next directive at or after p; p moves past it. */
constexpr Directive next(const char *&p)
{
    for (; *p != '\0'; ++p) {
        if (*p != '%')
            continue;
        if (*++p == '%')
            continue;
        while (isFlag(*p))
            ++p;
        while (isDigit(*p))
            ++p;
        if (*p == '.')
            for (++p; isDigit(*p); ++p) {
            }
        Length length = lengthAt(p);
        char c = *p;
        if (c == '\0')
            return {length, '?'};
        ++p;
        bool known = c == 'p' || c == 's' || c == 'd' || c == 'i' || c == 'u' || c == 'x';
        return {length, known ? c : '?'};
    }
    return {Length::none, '\0'};
}

template <typename T, typename U>
inline constexpr bool is = std::is_same_v<T, U>;

/* True when a directive reads an argument of type T. */
template <typename T>
constexpr bool takes(Directive d)
{
    using V = std::remove_cv_t<T>;
    switch (d.conversion) {
    case 'p':
        return d.length == Length::none && std::is_pointer_v<V> && std::is_void_v<std::remove_pointer_t<V>>;
    case 's':
        return d.length == Length::none && (is<V, const char *> || is<V, char *>);
    case 'd':
    case 'i':
        return (d.length == Length::none && is<V, int>) || (d.length == Length::longInt && is<V, long>) ||
               (d.length == Length::longLong && is<V, long long>);
    case 'u':
    case 'x':
        return (d.length == Length::none && is<V, unsigned>) || (d.length == Length::longInt && is<V, unsigned long>) ||
               (d.length == Length::longLong && is<V, unsigned long long>) ||
               (d.length == Length::size && is<V, std::size_t>);
    default:
        return false;
    }
}

/* Where a walk through a text has got to, argument by argument. */
struct Walk {
    const char *p;
    bool trailingOptional; /* the text may end before the last arguments */
    bool ok;
    bool ended;
};

template <typename T>
constexpr void step(Walk &w)
{
    if (!w.ok || w.ended)
        return;
    Directive d = next(w.p);
    if (d.conversion == '\0') {
        w.ended = true;
        w.ok = w.trailingOptional;
    } else {
        w.ok = takes<T>(d);
    }
}

/* True when text's directives read Args in order. With trailingOptional the
 * text may end before the last arguments (printf leaves them unread). */
template <typename... Args>
consteval bool matches(const char *text, bool trailingOptional)
{
    if (text == nullptr)
        return false;
    Walk w{text, trailingOptional, true, false};
    (step<Args>(w), ...);
    return w.ok && next(w.p).conversion == '\0';
}

/* Not constexpr: reaching it while a Format is built stops the compilation. */
inline void textDoesNotMatchItsArgumentTypes() {}

} // namespace format

/* True when text's directives read exactly Args, in order. */
template <typename... Args>
consteval bool formatMatches(const char *text)
{
    return format::matches<Args...>(text, false);
}

/* A printf text checked against its argument types; null stands for "no text"
 * in a table row that never prints it. */
template <bool TrailingOptional, typename... Args>
class BasicFormat {
public:
    consteval BasicFormat(std::nullptr_t) : text_(nullptr) {}
    consteval BasicFormat(const char *text) : text_(text)
    {
        if (!format::matches<Args...>(text, TrailingOptional))
            format::textDoesNotMatchItsArgumentTypes();
    }

    constexpr const char *text() const { return text_; }

private:
    const char *text_;
};

template <typename... Args>
using Format = BasicFormat<false, Args...>;

/* The text recorded when a handle does not resolve: its "%p", if it has one,
 * prints the handle. */
using HandleFormat = BasicFormat<true, const void *>;

} // namespace vel
