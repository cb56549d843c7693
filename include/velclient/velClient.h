/*
 * velClient.h - library-wide public API of velclient: basic types, return
 * codes and sub-codes, log levels, the per-thread last-error record, opaque
 * handle types, library start and stop, and log control.
 *
 * Plain C99; usable from C and C++.
 */
#ifndef VELCLIENT_H
#define VELCLIENT_H

#include <stddef.h>
#include <stdint.h>

#if defined(_WIN32)
#define VELCLIENT_API __declspec(dllexport)
#elif defined(__GNUC__)
#define VELCLIENT_API __attribute__((visibility("default")))
#else
#define VELCLIENT_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Scalars ---------------------------------------------------------- */
typedef uint8_t velClient_bool_t;
typedef uint8_t velClient_uint8_t;
typedef int8_t velClient_int8_t;
typedef uint16_t velClient_uint16_t;
typedef int16_t velClient_int16_t;
typedef uint32_t velClient_uint32_t;
typedef int32_t velClient_int32_t;
typedef uint64_t velClient_uint64_t;
typedef int64_t velClient_int64_t;
typedef uint32_t velClient_wchar_t;
typedef uint32_t velClient_consumerId_t;
typedef uint64_t velClient_msgId_t;
typedef uint32_t velClient_receiveFlags_t;

/* ---- Opaque handles --------------------------------------------------- */
typedef void *velClient_opaqueMsg_pt;
typedef void *velClient_opaqueContainer_pt;
typedef void *velClient_opaqueDatablock_pt;
typedef void *velClient_opaqueSession_pt;
typedef void **velClient_opaquePointer_pt;

/* ---- Return codes ------------------------------------------------------- */
typedef enum velClient_returnCode {
    VELCLIENT_OK = 0,
    VELCLIENT_WOULD_BLOCK = 1,
    VELCLIENT_IN_PROGRESS = 2,
    VELCLIENT_NOT_READY = 3,
    VELCLIENT_EOS = 4,
    VELCLIENT_NOT_FOUND = 5,
    VELCLIENT_NOEVENT = 6,
    VELCLIENT_INCOMPLETE = 7,
    VELCLIENT_ROLLBACK = 8,
    VELCLIENT_FAIL = -1
} velClient_returnCode_t;

/* ---- Sub-codes: the reason stored with the last failure ---------------- */
typedef enum velClient_subCode {
    VELCLIENT_SUBCODE_OK = 0,
    VELCLIENT_SUBCODE_PARAM_OUT_OF_RANGE = 1,
    VELCLIENT_SUBCODE_PARAM_NULL_PTR = 2,
    VELCLIENT_SUBCODE_PARAM_CONFLICT = 3,
    VELCLIENT_SUBCODE_INSUFFICIENT_SPACE = 4,
    VELCLIENT_SUBCODE_OUT_OF_RESOURCES = 5,
    VELCLIENT_SUBCODE_INTERNAL_ERROR = 6,
    VELCLIENT_SUBCODE_OUT_OF_MEMORY = 7,
    VELCLIENT_SUBCODE_PROTOCOL_ERROR = 8,
    VELCLIENT_SUBCODE_INIT_NOT_CALLED = 9,
    VELCLIENT_SUBCODE_TIMEOUT = 10,
    VELCLIENT_SUBCODE_KEEP_ALIVE_FAILURE = 11,
    VELCLIENT_SUBCODE_SESSION_NOT_ESTABLISHED = 12,
    VELCLIENT_SUBCODE_OS_ERROR = 13,
    VELCLIENT_SUBCODE_COMMUNICATION_ERROR = 14,
    VELCLIENT_SUBCODE_DBLOCK_ALREADY_EXISTS = 40,
    VELCLIENT_SUBCODE_NO_STRUCTURED_DATA = 41,
    VELCLIENT_SUBCODE_CONTAINER_BUSY = 42,
    VELCLIENT_SUBCODE_INVALID_DATA_CONVERSION = 43,
    VELCLIENT_SUBCODE_INVALID_VWF_MESSAGE = 84
} velClient_subCode_t;

/* ---- Logging ------------------------------------------------------------ */
typedef enum velClient_log_level {
    VELCLIENT_LOG_EMERGENCY = 0,
    VELCLIENT_LOG_ALERT = 1,
    VELCLIENT_LOG_CRITICAL = 2,
    VELCLIENT_LOG_ERROR = 3,
    VELCLIENT_LOG_WARNING = 4,
    VELCLIENT_LOG_NOTICE = 5,
    VELCLIENT_LOG_INFO = 6,
    VELCLIENT_LOG_DEBUG = 7
} velClient_log_level_t;

typedef enum velClient_log_category {
    VELCLIENT_LOG_CATEGORY_ALL = 0,
    VELCLIENT_LOG_CATEGORY_SDK = 1,
    VELCLIENT_LOG_CATEGORY_APP = 2
} velClient_log_category_t;

typedef struct velClient_log_callbackInfo {
    velClient_log_category_t category;
    velClient_log_level_t level;
    const char *msg_p; /* the formatted text alone, no prefix or newline */
} velClient_log_callbackInfo_t, *velClient_log_callbackInfo_pt;

typedef void (*velClient_log_callbackFunc_t)(velClient_log_callbackInfo_pt info_p, void *user_p);

/* ---- The per-thread last-error record ----------------------------------- */
typedef struct velClient_errorInfo {
    velClient_subCode_t subCode;
    velClient_int32_t responseCode;
    char errorStr[256];
} velClient_errorInfo_t, *velClient_errorInfo_pt;

/* ---- Library start and stop --------------------------------------------- */

/* Sets the SDK log filter to initialLogLevel, reads props (NULL or a
 * NULL-terminated list of name/value pairs: GLOBAL_DBQUANTASIZE_0..4 and
 * GLOBAL_MAXPOOLMEM, decimal byte counts) and starts the message pool.
 * A repeated call drains the pool's free lists first. Unknown names, bad
 * numbers and size classes that are not strictly ascending fail with
 * VELCLIENT_SUBCODE_PARAM_OUT_OF_RANGE and change nothing. */
VELCLIENT_API velClient_returnCode_t velClient_initialize(velClient_log_level_t initialLogLevel,
                                                          const char *const *props);

/* Drains the message pool's free lists and reports records never freed. */
VELCLIENT_API velClient_returnCode_t velClient_cleanup(void);

/* ---- Last error ---------------------------------------------------------- */

/* The calling thread's last-error record; never NULL. */
VELCLIENT_API velClient_errorInfo_pt velClient_getLastErrorInfo(void);
/* Resets the calling thread's record: sub-code OK, response code 0, empty text. */
VELCLIENT_API void velClient_resetLastErrorInfo(void);
/* The enumerator's name without its prefix ("OK", "FAIL"); "Unknown" otherwise. */
VELCLIENT_API const char *velClient_returnCodeToString(velClient_returnCode_t returnCode);
/* The enumerator's name without its prefix ("PARAM_NULL_PTR"); "Unknown" otherwise. */
VELCLIENT_API const char *velClient_subCodeToString(velClient_subCode_t subCode);

/* ---- Log control --------------------------------------------------------- */

/* Sets the most verbose level written for a category (SDK, or ALL for every
 * category). A level above VELCLIENT_LOG_DEBUG or an unknown category fails. */
VELCLIENT_API velClient_returnCode_t velClient_log_setFilterLevel(velClient_log_category_t category,
                                                                  velClient_log_level_t level);

/* Sends every log line that passes the filter to callback_p (on any thread);
 * NULL restores the default, a line on standard error. */
VELCLIENT_API velClient_returnCode_t velClient_log_setCallback(velClient_log_callbackFunc_t callback_p,
                                                               void *user_p);

/* ---- Sessions ------------------------------------------------------------ */

typedef enum velClient_rxMsgCallback_returnCode {
    VELCLIENT_CALLBACK_OK = 0,
    VELCLIENT_CALLBACK_TAKE_MSG = 1
} velClient_rxMsgCallback_returnCode_t;

/* Receives one message on the session's thread of delivery. Returning
 * VELCLIENT_CALLBACK_TAKE_MSG keeps the message (the callback frees it later);
 * otherwise the library frees it when the callback returns. */
typedef velClient_rxMsgCallback_returnCode_t (*velClient_session_rxMsgCallbackFunc_t)(
    velClient_opaqueSession_pt session_p, velClient_opaqueMsg_pt msg_p, void *user_p);

/* Creates a session from props (NULL or a NULL-terminated list of name/value
 * pairs): SESSION_CLIENT_NAME, SESSION_P2P_TOPIC_BASE (at most 250
 * characters), SESSION_GENERATE_SEND_TIMESTAMPS, SESSION_GENERATE_SENDER_ID,
 * SESSION_GENERATE_SEQUENCE_NUMBER, SESSION_CALCULATE_MESSAGE_EXPIRATION
 * ("1" or "0"), SESSION_TRANSPORT ("loopback", the default, or "null").
 * Unknown names and bad values fail with VELCLIENT_SUBCODE_PARAM_OUT_OF_RANGE
 * and a text naming the property. */
VELCLIENT_API velClient_returnCode_t velClient_session_create(const char *const *props,
                                                              velClient_session_rxMsgCallbackFunc_t rxMsgCallback_p,
                                                              void *user_p, velClient_opaqueSession_pt *session_p);
/* Destroys the session and sets *session_p to NULL. */
VELCLIENT_API velClient_returnCode_t velClient_session_destroy(velClient_opaqueSession_pt *session_p);

#ifdef __cplusplus
}
#endif

#endif /* VELCLIENT_H */
