/* Log control and the last-error record: the filter level decides which lines
 * are produced, a callback receives them with category and level, the default
 * writes them to standard error, and the names of return and sub-codes. */
#include <regex>
#include <string>
#include <vector>

#include "support/velTestSupport.h"

namespace {

void *const kBad = reinterpret_cast<void *>(0x4242);

} // namespace

TEST(LogControl, TheFilterDecidesWhatTheCallbackReceives)
{
    veltest::LogCapture log(VELCLIENT_LOG_EMERGENCY);
    std::vector<veltest::Line> &lines = log.lines;

    ASSERT_EQ(VELCLIENT_OK, velClient_log_setFilterLevel(VELCLIENT_LOG_CATEGORY_SDK, VELCLIENT_LOG_DEBUG));
    velClient_opaqueDatablock_pt block = nullptr;
    ASSERT_EQ(VELCLIENT_OK, velClient_datablock_alloc(&block, 10));
    velClient_datablock_free(&block);
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(VELCLIENT_LOG_CATEGORY_SDK, lines[0].category);
    EXPECT_EQ(VELCLIENT_LOG_DEBUG, lines[0].level);
    EXPECT_EQ(0u, lines[0].text.rfind("Allocated dataBlock ", 0)) << lines[0].text;

    /* At warning, traces stay silent and a failure's text arrives as stored. */
    lines.clear();
    ASSERT_EQ(VELCLIENT_OK, velClient_log_setFilterLevel(VELCLIENT_LOG_CATEGORY_ALL, VELCLIENT_LOG_WARNING));
    ASSERT_EQ(VELCLIENT_OK, velClient_datablock_alloc(&block, 10));
    velClient_datablock_free(&block);
    EXPECT_TRUE(lines.empty());
    EXPECT_EQ(VELCLIENT_FAIL, velClient_msg_reset(kBad));
    ASSERT_EQ(1u, lines.size());
    EXPECT_EQ(VELCLIENT_LOG_WARNING, lines[0].level);
    EXPECT_EQ(veltest::lastErrorText(), lines[0].text);

    /* The application category has no filter of its own here: the SDK's stays. */
    lines.clear();
    ASSERT_EQ(VELCLIENT_OK, velClient_log_setFilterLevel(VELCLIENT_LOG_CATEGORY_APP, VELCLIENT_LOG_DEBUG));
    ASSERT_EQ(VELCLIENT_OK, velClient_datablock_alloc(&block, 10));
    velClient_datablock_free(&block);
    EXPECT_TRUE(lines.empty());

    /* Below the failure's level nothing is written, but the record is still filled. */
    ASSERT_EQ(VELCLIENT_OK, velClient_log_setFilterLevel(VELCLIENT_LOG_CATEGORY_ALL, VELCLIENT_LOG_ERROR));
    velClient_resetLastErrorInfo();
    EXPECT_EQ(VELCLIENT_FAIL, velClient_msg_reset(kBad));
    EXPECT_TRUE(lines.empty());
    EXPECT_EQ(VELCLIENT_SUBCODE_PARAM_NULL_PTR, veltest::lastSubCode());
}

TEST(LogControl, WithoutACallbackLinesGoToStandardError)
{
    veltest::LogCapture quietAfterwards(VELCLIENT_LOG_WARNING);
    velClient_log_setCallback(nullptr, nullptr);
    testing::internal::CaptureStderr();
    EXPECT_EQ(VELCLIENT_FAIL, velClient_msg_reset(kBad));
    std::string err = testing::internal::GetCapturedStderr();
    /* date and time, level, source file (no directory) and line, the text */
    const std::regex shape(R"(^[A-Z][a-z]{2} [ 0-9]\d, \d{4} \d\d:\d\d:\d\d WARNING [A-Za-z]+\.cpp:\d+ )"
                           R"(Bad msg_p pointer \(0x4242\) in velClient_msg_reset\n$)");
    EXPECT_TRUE(std::regex_search(err, shape)) << err;
}

TEST(LogControl, ResettingTheLastErrorRecord)
{
    EXPECT_EQ(VELCLIENT_FAIL, velClient_msg_reset(kBad));
    velClient_getLastErrorInfo()->responseCode = 7;
    velClient_resetLastErrorInfo();
    EXPECT_EQ(VELCLIENT_SUBCODE_OK, veltest::lastSubCode());
    EXPECT_EQ(0, velClient_getLastErrorInfo()->responseCode);
    EXPECT_EQ("", veltest::lastErrorText());
}

TEST(LogControl, CodeNames)
{
    const std::pair<int, const char *> returns[] = {
        {VELCLIENT_OK, "OK"},           {VELCLIENT_WOULD_BLOCK, "WOULD_BLOCK"}, {VELCLIENT_IN_PROGRESS, "IN_PROGRESS"},
        {VELCLIENT_NOT_READY, "NOT_READY"}, {VELCLIENT_EOS, "EOS"},           {VELCLIENT_NOT_FOUND, "NOT_FOUND"},
        {VELCLIENT_NOEVENT, "NOEVENT"}, {VELCLIENT_INCOMPLETE, "INCOMPLETE"},   {VELCLIENT_ROLLBACK, "ROLLBACK"},
        {VELCLIENT_FAIL, "FAIL"},       {9, "Unknown"},                         {-2, "Unknown"}};
    for (auto [code, name] : returns)
        EXPECT_STREQ(name, velClient_returnCodeToString(static_cast<velClient_returnCode_t>(code))) << code;
    const std::pair<int, const char *> subs[] = {
        {0, "OK"},           {1, "PARAM_OUT_OF_RANGE"}, {2, "PARAM_NULL_PTR"},      {3, "PARAM_CONFLICT"},
        {4, "INSUFFICIENT_SPACE"}, {5, "OUT_OF_RESOURCES"}, {6, "INTERNAL_ERROR"}, {7, "OUT_OF_MEMORY"},
        {8, "PROTOCOL_ERROR"}, {9, "INIT_NOT_CALLED"},   {10, "TIMEOUT"},          {11, "KEEP_ALIVE_FAILURE"},
        {12, "SESSION_NOT_ESTABLISHED"}, {13, "OS_ERROR"}, {14, "COMMUNICATION_ERROR"}, {15, "Unknown"},
        {40, "DBLOCK_ALREADY_EXISTS"}, {41, "NO_STRUCTURED_DATA"}, {42, "CONTAINER_BUSY"},
        {43, "INVALID_DATA_CONVERSION"}, {84, "INVALID_VWF_MESSAGE"}, {85, "Unknown"}};
    for (auto [code, name] : subs)
        EXPECT_STREQ(name, velClient_subCodeToString(static_cast<velClient_subCode_t>(code))) << code;
}
