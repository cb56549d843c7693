/* The readable time the dump prints beside a timestamp. */
#include <gtest/gtest.h>

#include "velClientTime/clock.h"

TEST(TimeFormat, ReadableUtcCutToTheBuffer)
{
    const struct {
        velClient_uint64_t seconds;
        std::size_t size;
        const char *text; /* too small: as much as fits, terminated; no room: nothing written */
    } rows[] = {{0, 32, "Jan 01, 1970 00:00:00"}, {1795000000, 32, "Nov 18, 2026 11:06:40"}, {0, 8, "Jan 01,"}, {0, 1, ""}, {0, 0, "u"}};
    for (const auto &r : rows) {
        char text[32] = "u";
        _velClient_formatTime(r.seconds, text, r.size);
        EXPECT_STREQ(r.text, text) << r.size;
    }
    _velClient_formatTime(0, nullptr, 10); /* no buffer */
    EXPECT_GT(_velClient_getTimeInUs(), 1700000000ull * 1000000);
}
