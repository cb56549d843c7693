/*
 * logPrivate.h - the logging module's internal contract: the SDK
 * filter level global, the store-and-log entry point that records a failure in
 * the calling thread's last-error record, the plain log entry point, and the
 * macros every module uses to record a failure or write a guarded trace: with
 * a literal text (checked by the compiler at the call) or with a vel::Format
 * kept in a table (checked when the table is compiled).
 */
#pragma once

#include <cstdint>

#include "velClientLog/checkedFormat.h"
#include "velclient/velClient.h"

extern "C" {
/* The most verbose level currently written for the SDK category. */
extern volatile std::uint32_t _velClient_log_sdkFilterLevel_g;

/* Formats the text, stores subCode and the text (cut to 255 characters) in the
 * calling thread's last-error record whatever the filter, and writes it as a
 * log line at level when the filter admits it. */
void _velClient_logAndStoreSubCodeAndErrorString_impl(velClient_subCode_t subCode, velClient_log_level_t level,
                                                      const char *file_p, int line, const char *format_p, ...)
    __attribute__((format(printf, 5, 6)));

/* Writes one formatted log line in category when the filter admits level;
 * stores nothing. */
void _velClient_log_output_detail(velClient_log_category_t category, velClient_log_level_t level,
                                  const char *file_p, int line, const char *format_p, ...)
    __attribute__((format(printf, 5, 6)));
}

namespace vel {

/* Records a failure and returns VELCLIENT_FAIL, so a failure path reads
 * `return fail(...)`. The format is the caller's literal text. */
velClient_returnCode_t failImpl(velClient_subCode_t subCode, velClient_log_level_t level, const char *file_p,
                                int line, const char *format_p, ...) __attribute__((format(printf, 5, 6)));

/* The entries for vel::Format texts; the text has been matched to the
 * arguments that follow it, so these carry no format attribute. */
void storeChecked(velClient_subCode_t subCode, velClient_log_level_t level, const char *file_p, int line,
                  const char *checkedFormat_p, ...);
void logChecked(velClient_log_level_t level, const char *file_p, int line, const char *checkedFormat_p, ...);

/* Records a failure with a table text: the arguments take the Format's types. */
template <bool TrailingOptional, typename... Args>
void storeFormatted(velClient_subCode_t subCode, velClient_log_level_t level, const char *file_p, int line,
                    const BasicFormat<TrailingOptional, Args...> &format, std::type_identity_t<Args>... args)
{
    storeChecked(subCode, level, file_p, line, format.text(), args...);
}

template <bool TrailingOptional, typename... Args>
velClient_returnCode_t failFormatted(velClient_subCode_t subCode, velClient_log_level_t level, const char *file_p,
                                     int line, const BasicFormat<TrailingOptional, Args...> &format,
                                     std::type_identity_t<Args>... args)
{
    storeChecked(subCode, level, file_p, line, format.text(), args...);
    return VELCLIENT_FAIL;
}

template <bool TrailingOptional, typename... Args>
void logFormatted(velClient_log_level_t level, const char *file_p, int line,
                  const BasicFormat<TrailingOptional, Args...> &format, std::type_identity_t<Args>... args)
{
    logChecked(level, file_p, line, format.text(), args...);
}

/* True when a line at level would be written for the SDK category. */
inline bool logAdmits(velClient_log_level_t level) noexcept
{
    return __builtin_expect(_velClient_log_sdkFilterLevel_g >= static_cast<std::uint32_t>(level), 0);
}

} // namespace vel

namespace vel::log {
/* Sets the library's filter level (category SDK or ALL; APP is accepted and
 * changes nothing); an unknown level or category is refused and recorded. */
velClient_returnCode_t setFilterLevel(velClient_log_category_t category, velClient_log_level_t level);
} // namespace vel::log

/* Record sub-code and text, log at level, evaluate to VELCLIENT_FAIL. */
#define VEL_FAIL(subCode, level, ...) ::vel::failImpl((subCode), (level), __FILE__, __LINE__, __VA_ARGS__)
/* The two refusals every export makes, logged as warnings: a null argument
 * and an argument out of range. */
#define VEL_FAIL_NULL(...) VEL_FAIL(VELCLIENT_SUBCODE_PARAM_NULL_PTR, VELCLIENT_LOG_WARNING, __VA_ARGS__)
#define VEL_FAIL_RANGE(...) VEL_FAIL(VELCLIENT_SUBCODE_PARAM_OUT_OF_RANGE, VELCLIENT_LOG_WARNING, __VA_ARGS__)

/* Record sub-code and text and log at level; evaluates to nothing useful.
 * For failures whose return value is not VELCLIENT_FAIL (NOT_FOUND and the like). */
#define VEL_STORE(subCode, level, ...) \
    _velClient_logAndStoreSubCodeAndErrorString_impl((subCode), (level), __FILE__, __LINE__, __VA_ARGS__)

/* VEL_FAIL, VEL_STORE and VEL_LOG for a vel::Format kept in a table. */
#define VEL_FAIL_F(subCode, level, ...) ::vel::failFormatted((subCode), (level), __FILE__, __LINE__, __VA_ARGS__)
#define VEL_STORE_F(subCode, level, ...) ::vel::storeFormatted((subCode), (level), __FILE__, __LINE__, __VA_ARGS__)
#define VEL_LOG_F(level, ...)                                                       \
    do {                                                                            \
        if (::vel::logAdmits(level))                                                \
            ::vel::logFormatted((level), __FILE__, __LINE__, __VA_ARGS__);          \
    } while (0)

/* A diagnostic line; its arguments are evaluated only when the filter admits it. */
#define VEL_LOG(level, ...)                                                                                  \
    do {                                                                                                     \
        if (::vel::logAdmits(level))                                                                         \
            _velClient_log_output_detail(VELCLIENT_LOG_CATEGORY_SDK, (level), __FILE__, __LINE__, __VA_ARGS__); \
    } while (0)
