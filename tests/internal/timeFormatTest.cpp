/* The readable time the dump prints beside a timestamp. */
#include <cstring>

#include <gtest/gtest.h>

#include "velClientTime/clock.h"

TEST(TimeFormat, ReadableUtcAndCutToTheBuffer)
{
    char text[32];
    _velClient_formatTime(0, text, sizeof text);
    EXPECT_STREQ("Jan 01, 1970 00:00:00", text);
    _velClient_formatTime(1795000000, text, sizeof text);
    EXPECT_STREQ("Nov 18, 2026 11:06:40", text);
    /* Too small for the whole text: as much as fits, always terminated. */
    char small[8];
    std::memset(small, 'x', sizeof small);
    _velClient_formatTime(0, small, sizeof small);
    EXPECT_STREQ("Jan 01,", small);
    char one[1] = {'x'};
    _velClient_formatTime(0, one, 1);
    EXPECT_EQ('\0', one[0]);
    /* No buffer, or no room at all: nothing is written. */
    char untouched = 'u';
    _velClient_formatTime(0, &untouched, 0);
    EXPECT_EQ('u', untouched);
    _velClient_formatTime(0, nullptr, 10);
    EXPECT_GT(_velClient_getTimeInUs(), 1700000000ull * 1000000);
}
