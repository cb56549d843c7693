/* Which printf texts vel::Format accepts for which argument types (checked
 * when this file compiles), and the record, fail and log entries that print them. */
#include <cstddef>
#include <functional>
#include <string>

#include <gtest/gtest.h>

#include "support/velTestSupport.h"
#include "velClientLog/logPrivate.h"

namespace {

using vel::formatMatches;

/* Accepted: each directive the library uses, with the type it reads. */
static_assert(formatMatches<>("Null buf_p pointer in velClient_msg_getSenderId") && formatMatches<>("100%% of %%p is text"));
static_assert(formatMatches<const void *>("Bad msg_p pointer (%p) in f") && formatMatches<const char *>("Type %s"));
static_assert(formatMatches<int, int>("(received %d, expected %d)") && formatMatches<int, unsigned, unsigned>("%i %u %x"));
static_assert(formatMatches<long, unsigned long, long long, unsigned long long, std::size_t>("%ld %lu %lld %llu %zu"));
static_assert(formatMatches<unsigned, int, const char *, long long>("%05u/%-8d/%.10s/%+lld"));

/* Refused: a type that does not fit, a count that does not match, or a
 * directive outside the supported set. */
static_assert(!formatMatches<int>("%p") && !formatMatches<const char *>("%p") && !formatMatches<const void *>("%s"));
static_assert(!formatMatches<unsigned>("%d") && !formatMatches<int>("%u") && !formatMatches<long>("%d"));
static_assert(!formatMatches<unsigned>("%zu") && !formatMatches<long long>("%ld") && !formatMatches<short>("%hd"));
static_assert(!formatMatches<int>("no directive") && !formatMatches<>("(%d)") && !formatMatches<int, int>("%d"));
static_assert(!formatMatches<>("50% off") && !formatMatches<>("ends in %") && !formatMatches<>(nullptr));
static_assert(!formatMatches<double>("%f") && !formatMatches<int>("%*d"));

/* A handle's text may leave the handle out; any other text must read all. */
static_assert(vel::format::matches<const void *>("Bad msg_p pointer in velClient_msg_setDestination", true));
static_assert(!vel::format::matches<const void *>("Bad msg_p pointer in velClient_msg_setDestination", false));
static_assert(!vel::format::matches<const void *>("Bad handle (%d)", true));

constexpr vel::Format<const char *, unsigned, std::size_t, long long> kMixed{"%s %05u %zu %lld 100%%"};
constexpr vel::HandleFormat kWithHandle{"Bad msg_p pointer (%p) in f"};

} // namespace

TEST(CheckedFormat, RecordsAndLogsTheTextAsPrintfWritesIt)
{
    int object = 0;
    const void *handle = &object;
    const std::string withHandle = veltest::format("Bad msg_p pointer (%p) in f", handle);

    struct Row {
        std::function<velClient_returnCode_t()> call;
        velClient_returnCode_t rc;
        velClient_subCode_t subCode;
        velClient_log_level_t level;
        std::string text;
        bool stored = true; /* a log line stores nothing in the last-error record */
    };
    const Row rows[] = {
        {[] { return VEL_FAIL_F(VELCLIENT_SUBCODE_PARAM_CONFLICT, VELCLIENT_LOG_WARNING, kMixed, "ab", 7u,
                                std::size_t{42}, -5LL); },
         VELCLIENT_FAIL, VELCLIENT_SUBCODE_PARAM_CONFLICT, VELCLIENT_LOG_WARNING, "ab 00007 42 -5 100%"},
        {[&] { return VEL_STORE_F(VELCLIENT_SUBCODE_PARAM_NULL_PTR, VELCLIENT_LOG_ERROR, kWithHandle, handle), VELCLIENT_NOT_FOUND; },
         VELCLIENT_NOT_FOUND, VELCLIENT_SUBCODE_PARAM_NULL_PTR, VELCLIENT_LOG_ERROR, withHandle},
        {[] { /* the capture is at info: the debug line is filtered out */
             VEL_LOG_F(VELCLIENT_LOG_DEBUG, kMixed, "below the filter", 1u, std::size_t{2}, 3LL);
             VEL_LOG_F(VELCLIENT_LOG_INFO, kMixed, "kept", 1u, std::size_t{2}, 3LL);
             return VELCLIENT_OK; },
         VELCLIENT_OK, VELCLIENT_SUBCODE_OK, VELCLIENT_LOG_INFO, "kept 00001 2 3 100%", false},
    };
    for (const Row &r : rows) {
        veltest::LogCapture log(VELCLIENT_LOG_INFO);
        velClient_resetLastErrorInfo();
        EXPECT_EQ(r.rc, r.call()) << r.text;
        EXPECT_EQ(r.subCode, veltest::lastSubCode());
        EXPECT_EQ(r.stored ? r.text : "", veltest::lastErrorText());
        ASSERT_EQ(1u, log.lines.size()) << r.text;
        EXPECT_EQ(r.level, log.lines[0].level);
        EXPECT_EQ(VELCLIENT_LOG_CATEGORY_SDK, log.lines[0].category);
        EXPECT_EQ(r.text, log.lines[0].text);
    }
}
