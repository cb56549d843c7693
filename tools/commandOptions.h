/*
 * commandOptions.h - what every command of the velclient tools shares: the
 * exit statuses, the refusal of a command line, the walk over a command's
 * arguments ("--name value" or "--name=value"), number parsing, and the guard
 * that turns a refusal or a library failure into its one-line message and
 * exit status.
 */
#pragma once

#include <cstdint>
#include <functional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

#include "velclient/velClient.hpp"

namespace vel::tool {

constexpr int kExitOk = 0;
/* A library call failed, or not everything sent was acknowledged. */
constexpr int kExitFailure = 1;
/* The command line was refused. */
constexpr int kExitUsage = 2;

/* A refused command line; the text names the option and fits on one line. */
class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/* Throws velclient::Error with the calling thread's last error when rc is VELCLIENT_FAIL. */
void check(velClient_returnCode_t rc);

/* The arguments of one command, walked one option at a time. */
class OptionReader {
public:
    OptionReader(int argc, char **argv) : argc_(argc), argv_(argv) {}

    /* Moves to the next argument; false when there is none. */
    bool next();
    /* The current argument's option name ("--topic" of "--topic=a/b"). */
    std::string_view name() const { return name_; }
    bool is(std::string_view option) const { return name_ == option; }
    /* True for "--help" and "-h". */
    bool isHelp() const { return name_ == "--help" || name_ == "-h"; }
    /* True for an argument that is not an option ("-" included). */
    bool isOperand() const { return name_.empty() || name_[0] != '-' || name_ == "-"; }
    /* The current option's value, from "=value" or the next argument. */
    std::string value();
    /* Refuses a value given to an option that takes none. */
    void noValue() const;
    /* Refuses the current argument as unknown. */
    [[noreturn]] void unknown() const;

private:
    int argc_;
    char **argv_;
    int at_ = 0;
    std::string_view name_;
    const char *inlineValue_ = nullptr;
};

/* Refuses text given to option: "option <option>: '<text>' is not <what>". */
[[noreturn]] void refuseValue(std::string_view option, std::string_view text, const std::string &what);
/* text as a whole number from min to max; refusals name option. */
std::int64_t parseInteger(std::string_view option, std::string_view text, std::int64_t min, std::int64_t max);
std::uint64_t parseUnsigned(std::string_view option, std::string_view text, std::uint64_t max);
double parseReal(std::string_view option, std::string_view text);

/* Runs body and returns its exit status; a UsageError prints "<program>: <text> (see <program> --help)" and
 * gives kExitUsage, a library failure prints "<program>: <its last-error text>" and gives kExitFailure. */
int runGuarded(const char *program, const std::function<int()> &body);

} // namespace vel::tool
