/*
 * commandOptions.cpp - the walk over a command's arguments, number parsing
 * with refusals that name the option, and the guard that maps refusals and
 * library failures to their message and exit status.
 */
#include "commandOptions.h"

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace vel::tool {

void check(velClient_returnCode_t rc)
{
    if (rc == VELCLIENT_FAIL)
        throw velclient::Error::last(rc);
}

bool OptionReader::next()
{
    if (++at_ >= argc_)
        return false;
    const char *arg = argv_[at_];
    const char *equals = std::strncmp(arg, "--", 2) == 0 ? std::strchr(arg, '=') : nullptr;
    name_ = equals != nullptr ? std::string_view(arg, static_cast<std::size_t>(equals - arg)) : std::string_view(arg);
    inlineValue_ = equals != nullptr ? equals + 1 : nullptr;
    return true;
}

std::string OptionReader::value()
{
    if (inlineValue_ != nullptr)
        return std::exchange(inlineValue_, nullptr);
    if (at_ + 1 >= argc_)
        throw UsageError("option " + std::string(name_) + " needs a value");
    return argv_[++at_];
}

void OptionReader::noValue() const
{
    if (inlineValue_ != nullptr)
        throw UsageError("option " + std::string(name_) + " takes no value");
}

void OptionReader::unknown() const
{
    if (isOperand())
        throw UsageError("unexpected argument '" + std::string(name_) + "'");
    throw UsageError("unknown option " + std::string(name_));
}

void refuseValue(std::string_view option, std::string_view text, const std::string &what)
{
    std::string message("option ");
    message.append(option).append(": '").append(text).append("' is not ").append(what);
    throw UsageError(message);
}

namespace {

std::string range(std::int64_t min, std::uint64_t max)
{
    return "a whole number from " + std::to_string(min) + " to " + std::to_string(max);
}

} // namespace

std::int64_t parseInteger(std::string_view option, std::string_view text, std::int64_t min, std::int64_t max)
{
    const std::string s(text);
    char *end = nullptr;
    errno = 0;
    const long long v = std::strtoll(s.c_str(), &end, 10);
    if (s.empty() || *end != '\0' || errno == ERANGE || v < min || v > max)
        refuseValue(option, text, range(min, static_cast<std::uint64_t>(max)));
    return v;
}

std::uint64_t parseUnsigned(std::string_view option, std::string_view text, std::uint64_t max)
{
    const std::string s(text);
    char *end = nullptr;
    errno = 0;
    const unsigned long long v = std::strtoull(s.c_str(), &end, 10);
    if (s.empty() || s[0] == '-' || *end != '\0' || errno == ERANGE || v > max)
        refuseValue(option, text, range(0, max));
    return v;
}

double parseReal(std::string_view option, std::string_view text)
{
    const std::string s(text);
    char *end = nullptr;
    const double v = std::strtod(s.c_str(), &end);
    if (s.empty() || *end != '\0' || std::isspace(static_cast<unsigned char>(s[0])))
        refuseValue(option, text, "a number");
    return v;
}

int runGuarded(const char *program, const std::function<int()> &body)
{
    try {
        return body();
    } catch (const UsageError &e) {
        std::fprintf(stderr, "%s: %s (see %s --help)\n", program, e.what(), program);
        return kExitUsage;
    } catch (const std::exception &e) {
        std::fprintf(stderr, "%s: %s\n", program, e.what());
        return kExitFailure;
    }
}

} // namespace vel::tool
