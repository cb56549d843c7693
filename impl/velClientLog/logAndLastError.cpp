/*
 * logAndLastError.cpp - the logging module: the SDK filter level, the calling
 * thread's last-error record, the store-and-log and plain log entry points,
 * the application's log callback, and the code-to-text calls.
 */
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "velClientLog/logPrivate.h"
#include "velClientTime/clock.h"

extern "C" {
volatile std::uint32_t _velClient_log_sdkFilterLevel_g = VELCLIENT_LOG_NOTICE;
}

namespace {

thread_local velClient_errorInfo_t lastError_t{};

struct LogSink {
    velClient_log_callbackFunc_t callback_p;
    void *user_p;
};
std::atomic<const LogSink *> sink_s{nullptr};
LogSink sinks_s[2];          /* alternate slots so a reader never sees a half-written pair */
std::atomic<unsigned> sinkSlot_s{0};

const char *const levelNames_s[] = {"EMERGENCY", "ALERT", "CRITICAL", "ERROR", "WARNING", "NOTICE", "INFO", "DEBUG"};

const char *baseName(const char *file_p)
{
    const char *slash = std::strrchr(file_p, '/');
    return slash ? slash + 1 : file_p;
}

/* Hands one formatted line to the callback, or writes it to standard error. */
void emit(velClient_log_category_t category, velClient_log_level_t level, const char *file_p, int line,
          const char *text_p)
{
    const LogSink *sink = sink_s.load(std::memory_order_acquire);
    if (sink != nullptr && sink->callback_p != nullptr) {
        velClient_log_callbackInfo_t info{category, level, text_p};
        sink->callback_p(&info, sink->user_p);
        return;
    }
    char when[40];
    _velClient_formatTime(_velClient_getTimeInUs() / 1000000, when, sizeof when);
    std::fprintf(stderr, "%s %s %s:%d %s\n", when, levelNames_s[static_cast<unsigned>(level) & 7],
                 baseName(file_p), line, text_p);
}

bool admits(velClient_log_level_t level)
{
    return _velClient_log_sdkFilterLevel_g >= static_cast<std::uint32_t>(level);
}

void storeAndLog(velClient_subCode_t subCode, velClient_log_level_t level, const char *file_p, int line,
                 const char *format_p, va_list args) __attribute__((format(printf, 5, 0)));
void storeAndLog(velClient_subCode_t subCode, velClient_log_level_t level, const char *file_p, int line,
                 const char *format_p, va_list args)
{
    lastError_t.subCode = subCode;
    std::vsnprintf(lastError_t.errorStr, sizeof lastError_t.errorStr, format_p, args);
    if (admits(level))
        emit(VELCLIENT_LOG_CATEGORY_SDK, level, file_p, line, lastError_t.errorStr);
}

void logLine(velClient_log_category_t category, velClient_log_level_t level, const char *file_p, int line,
             const char *format_p, va_list args) __attribute__((format(printf, 5, 0)));
void logLine(velClient_log_category_t category, velClient_log_level_t level, const char *file_p, int line,
             const char *format_p, va_list args)
{
    char text[1024];
    std::vsnprintf(text, sizeof text, format_p, args);
    emit(category, level, file_p, line, text);
}

/* The entries for vel::Format texts reach the formatting cores through these
 * pointers, which carry no format attribute: the compiler has no literal to
 * check there, and the text was matched to its argument types when its
 * Format was built. */
constexpr auto *storeAndLogChecked = &storeAndLog;
constexpr auto *logLineChecked = &logLine;

} // namespace

extern "C" void _velClient_logAndStoreSubCodeAndErrorString_impl(velClient_subCode_t subCode,
                                                                 velClient_log_level_t level, const char *file_p,
                                                                 int line, const char *format_p, ...)
{
    va_list args;
    va_start(args, format_p);
    storeAndLog(subCode, level, file_p, line, format_p, args);
    va_end(args);
}

extern "C" void _velClient_log_output_detail(velClient_log_category_t category, velClient_log_level_t level,
                                             const char *file_p, int line, const char *format_p, ...)
{
    if (!admits(level))
        return;
    va_list args;
    va_start(args, format_p);
    logLine(category, level, file_p, line, format_p, args);
    va_end(args);
}

void vel::storeChecked(velClient_subCode_t subCode, velClient_log_level_t level, const char *file_p, int line,
                       const char *checkedFormat_p, ...)
{
    va_list args;
    va_start(args, checkedFormat_p);
    storeAndLogChecked(subCode, level, file_p, line, checkedFormat_p, args);
    va_end(args);
}

void vel::logChecked(velClient_log_level_t level, const char *file_p, int line, const char *checkedFormat_p, ...)
{
    if (!admits(level))
        return;
    va_list args;
    va_start(args, checkedFormat_p);
    logLineChecked(VELCLIENT_LOG_CATEGORY_SDK, level, file_p, line, checkedFormat_p, args);
    va_end(args);
}

velClient_returnCode_t vel::failImpl(velClient_subCode_t subCode, velClient_log_level_t level, const char *file_p,
                                     int line, const char *format_p, ...)
{
    va_list args;
    va_start(args, format_p);
    storeAndLog(subCode, level, file_p, line, format_p, args);
    va_end(args);
    return VELCLIENT_FAIL;
}

extern "C" VELCLIENT_API velClient_errorInfo_pt velClient_getLastErrorInfo(void)
{
    return &lastError_t;
}

extern "C" VELCLIENT_API void velClient_resetLastErrorInfo(void)
{
    lastError_t.subCode = VELCLIENT_SUBCODE_OK;
    lastError_t.responseCode = 0;
    lastError_t.errorStr[0] = '\0';
}

velClient_returnCode_t vel::log::setFilterLevel(velClient_log_category_t category, velClient_log_level_t level)
{
    if (static_cast<std::uint32_t>(level) > VELCLIENT_LOG_DEBUG)
        return VEL_FAIL_RANGE("Invalid log level of %d in velClient_log_setFilterLevel", static_cast<int>(level));
    if (category != VELCLIENT_LOG_CATEGORY_SDK && category != VELCLIENT_LOG_CATEGORY_ALL &&
        category != VELCLIENT_LOG_CATEGORY_APP)
        return VEL_FAIL_RANGE("Invalid log category of %d in velClient_log_setFilterLevel", static_cast<int>(category));
    if (category != VELCLIENT_LOG_CATEGORY_APP)
        _velClient_log_sdkFilterLevel_g = static_cast<std::uint32_t>(level);
    return VELCLIENT_OK;
}

extern "C" VELCLIENT_API velClient_returnCode_t velClient_log_setFilterLevel(velClient_log_category_t category,
                                                                            velClient_log_level_t level)
{
    return vel::log::setFilterLevel(category, level);
}

extern "C" VELCLIENT_API velClient_returnCode_t velClient_log_setCallback(velClient_log_callbackFunc_t callback_p,
                                                                         void *user_p)
{
    if (callback_p == nullptr) {
        sink_s.store(nullptr, std::memory_order_release);
        return VELCLIENT_OK;
    }
    unsigned slot = sinkSlot_s.fetch_add(1, std::memory_order_relaxed) & 1;
    sinks_s[slot] = LogSink{callback_p, user_p};
    sink_s.store(&sinks_s[slot], std::memory_order_release);
    return VELCLIENT_OK;
}

extern "C" VELCLIENT_API const char *velClient_returnCodeToString(velClient_returnCode_t returnCode)
{
    switch (returnCode) {
    case VELCLIENT_OK: return "OK";
    case VELCLIENT_WOULD_BLOCK: return "WOULD_BLOCK";
    case VELCLIENT_IN_PROGRESS: return "IN_PROGRESS";
    case VELCLIENT_NOT_READY: return "NOT_READY";
    case VELCLIENT_EOS: return "EOS";
    case VELCLIENT_NOT_FOUND: return "NOT_FOUND";
    case VELCLIENT_NOEVENT: return "NOEVENT";
    case VELCLIENT_INCOMPLETE: return "INCOMPLETE";
    case VELCLIENT_ROLLBACK: return "ROLLBACK";
    case VELCLIENT_FAIL: return "FAIL";
    }
    return "Unknown";
}

extern "C" VELCLIENT_API const char *velClient_subCodeToString(velClient_subCode_t subCode)
{
    switch (subCode) {
    case VELCLIENT_SUBCODE_OK: return "OK";
    case VELCLIENT_SUBCODE_PARAM_OUT_OF_RANGE: return "PARAM_OUT_OF_RANGE";
    case VELCLIENT_SUBCODE_PARAM_NULL_PTR: return "PARAM_NULL_PTR";
    case VELCLIENT_SUBCODE_PARAM_CONFLICT: return "PARAM_CONFLICT";
    case VELCLIENT_SUBCODE_INSUFFICIENT_SPACE: return "INSUFFICIENT_SPACE";
    case VELCLIENT_SUBCODE_OUT_OF_RESOURCES: return "OUT_OF_RESOURCES";
    case VELCLIENT_SUBCODE_INTERNAL_ERROR: return "INTERNAL_ERROR";
    case VELCLIENT_SUBCODE_OUT_OF_MEMORY: return "OUT_OF_MEMORY";
    case VELCLIENT_SUBCODE_PROTOCOL_ERROR: return "PROTOCOL_ERROR";
    case VELCLIENT_SUBCODE_INIT_NOT_CALLED: return "INIT_NOT_CALLED";
    case VELCLIENT_SUBCODE_TIMEOUT: return "TIMEOUT";
    case VELCLIENT_SUBCODE_KEEP_ALIVE_FAILURE: return "KEEP_ALIVE_FAILURE";
    case VELCLIENT_SUBCODE_SESSION_NOT_ESTABLISHED: return "SESSION_NOT_ESTABLISHED";
    case VELCLIENT_SUBCODE_OS_ERROR: return "OS_ERROR";
    case VELCLIENT_SUBCODE_COMMUNICATION_ERROR: return "COMMUNICATION_ERROR";
    case VELCLIENT_SUBCODE_LOGIN_FAILURE: return "LOGIN_FAILURE";
    case VELCLIENT_SUBCODE_DBLOCK_ALREADY_EXISTS: return "DBLOCK_ALREADY_EXISTS";
    case VELCLIENT_SUBCODE_NO_STRUCTURED_DATA: return "NO_STRUCTURED_DATA";
    case VELCLIENT_SUBCODE_CONTAINER_BUSY: return "CONTAINER_BUSY";
    case VELCLIENT_SUBCODE_INVALID_DATA_CONVERSION: return "INVALID_DATA_CONVERSION";
    case VELCLIENT_SUBCODE_INVALID_VWF_MESSAGE: return "INVALID_VWF_MESSAGE";
    }
    return "Unknown";
}
