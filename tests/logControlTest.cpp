/* Log control and the last-error record: the filter level decides which lines
 * are produced, a callback receives them with category and level, the default
 * writes them to standard error, and the names of return and sub-codes. */
#include <regex>
#include <string>
#include <vector>

#include "support/velTestSupport.h"

namespace {

void *const kBad = reinterpret_cast<void *>(0x4242);

/* The lines one data block's life logs. */
std::vector<veltest::Line> blockLines(veltest::LogCapture &log)
{
    log.lines.clear();
    velClient_opaqueDatablock_pt block = nullptr;
    EXPECT_EQ(VELCLIENT_OK, velClient_datablock_alloc(&block, 10));
    velClient_datablock_free(&block);
    return log.lines;
}

} // namespace

TEST(LogControl, TheFilterDecidesWhatTheCallbackReceivesAndCodeNames)
{
    veltest::LogCapture log(VELCLIENT_LOG_EMERGENCY);
    ASSERT_EQ(VELCLIENT_OK, velClient_log_setFilterLevel(VELCLIENT_LOG_CATEGORY_SDK, VELCLIENT_LOG_DEBUG));
    std::vector<veltest::Line> lines = blockLines(log);
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(VELCLIENT_LOG_CATEGORY_SDK, lines[0].category);
    EXPECT_EQ(VELCLIENT_LOG_DEBUG, lines[0].level);
    EXPECT_EQ(0u, lines[0].text.rfind("Allocated dataBlock ", 0)) << lines[0].text;
    /* At warning, traces stay silent and a failure's text arrives as stored. */
    ASSERT_EQ(VELCLIENT_OK, velClient_log_setFilterLevel(VELCLIENT_LOG_CATEGORY_ALL, VELCLIENT_LOG_WARNING));
    EXPECT_TRUE(blockLines(log).empty());
    EXPECT_EQ(VELCLIENT_FAIL, velClient_msg_reset(kBad));
    ASSERT_EQ(1u, log.lines.size());
    EXPECT_EQ(VELCLIENT_LOG_WARNING, log.lines[0].level);
    EXPECT_EQ(veltest::lastErrorText(), log.lines[0].text);
    /* The application category has no filter of its own here: the SDK's stays. */
    ASSERT_EQ(VELCLIENT_OK, velClient_log_setFilterLevel(VELCLIENT_LOG_CATEGORY_APP, VELCLIENT_LOG_DEBUG));
    EXPECT_TRUE(blockLines(log).empty());
    /* Below the failure's level nothing is written, but the record is still filled. */
    ASSERT_EQ(VELCLIENT_OK, velClient_log_setFilterLevel(VELCLIENT_LOG_CATEGORY_ALL, VELCLIENT_LOG_ERROR));
    velClient_resetLastErrorInfo();
    EXPECT_EQ(VELCLIENT_FAIL, velClient_msg_reset(kBad));
    EXPECT_TRUE(blockLines(log).empty());
    EXPECT_EQ(VELCLIENT_SUBCODE_PARAM_NULL_PTR, veltest::lastSubCode());
    /* Resetting the record clears all of it. */
    velClient_getLastErrorInfo()->responseCode = 7;
    velClient_resetLastErrorInfo();
    EXPECT_EQ(0, velClient_getLastErrorInfo()->responseCode);
    EXPECT_LAST_ERROR(VELCLIENT_SUBCODE_OK, "");
    /* Without a callback, lines go to standard error. */
    ASSERT_EQ(VELCLIENT_OK, velClient_log_setFilterLevel(VELCLIENT_LOG_CATEGORY_ALL, VELCLIENT_LOG_WARNING));
    velClient_log_setCallback(nullptr, nullptr);
    testing::internal::CaptureStderr();
    EXPECT_EQ(VELCLIENT_FAIL, velClient_msg_reset(kBad));
    std::string err = testing::internal::GetCapturedStderr();
    /* date and time, level, source file (no directory) and line, the text */
    const std::regex shape(R"(^[A-Z][a-z]{2} [ 0-9]\d, \d{4} \d\d:\d\d:\d\d WARNING [A-Za-z]+\.cpp:\d+ )"
                           R"(Bad msg_p pointer \(0x4242\) in velClient_msg_reset\n$)");
    EXPECT_TRUE(std::regex_search(err, shape)) << err;
    /* The names of return and sub-codes. */
    const char *returns[] = {"FAIL", "OK", "WOULD_BLOCK", "IN_PROGRESS", "NOT_READY", "EOS",
                             "NOT_FOUND", "NOEVENT", "INCOMPLETE", "ROLLBACK", "Unknown"};
    for (int code = -2; code <= 9; ++code)
        EXPECT_STREQ(returns[code < -1 ? 10 : code + 1], velClient_returnCodeToString(static_cast<velClient_returnCode_t>(code)))
            << code;
    const std::pair<int, const char *> subs[] = {
        {0, "OK"}, {1, "PARAM_OUT_OF_RANGE"}, {2, "PARAM_NULL_PTR"}, {3, "PARAM_CONFLICT"}, {4, "INSUFFICIENT_SPACE"},
        {5, "OUT_OF_RESOURCES"}, {6, "INTERNAL_ERROR"}, {7, "OUT_OF_MEMORY"}, {8, "PROTOCOL_ERROR"},
        {9, "INIT_NOT_CALLED"}, {10, "TIMEOUT"}, {11, "KEEP_ALIVE_FAILURE"}, {12, "SESSION_NOT_ESTABLISHED"},
        {13, "OS_ERROR"}, {14, "COMMUNICATION_ERROR"}, {15, "LOGIN_FAILURE"}, {16, "Unknown"},
        {40, "DBLOCK_ALREADY_EXISTS"}, {41, "NO_STRUCTURED_DATA"}, {42, "CONTAINER_BUSY"},
        {43, "INVALID_DATA_CONVERSION"}, {84, "INVALID_VWF_MESSAGE"}, {85, "Unknown"}};
    for (auto [code, name] : subs)
        EXPECT_STREQ(name, velClient_subCodeToString(static_cast<velClient_subCode_t>(code))) << code;
}
