/*
 * velClient.h - library-wide public API of velclient: basic types, return
 * codes and sub-codes, log levels, the per-thread last-error record, opaque
 * handle types, library start and stop, log control and sessions.
 *
 * Every call that fails returns VELCLIENT_FAIL after storing a sub-code and a
 * text in the calling thread's last-error record (velClient_getLastErrorInfo)
 * and writing a log line. A handle that does not resolve and a NULL pointer
 * argument give VELCLIENT_SUBCODE_PARAM_NULL_PTR; a value out of range gives
 * VELCLIENT_SUBCODE_PARAM_OUT_OF_RANGE. The comments below name sub-codes
 * without their VELCLIENT_SUBCODE_ prefix.
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
    VELCLIENT_SUBCODE_LOGIN_FAILURE = 15,
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

/* Starts the library: reads props (NULL or a NULL-terminated list of name/value pairs:
 * GLOBAL_DBQUANTASIZE_0..4 and GLOBAL_MAXPOOLMEM, decimal byte counts; unset ones take the defaults
 * 256, 2048, 16384, 131072, 1048576 and 64 MiB), sets every log filter to initialLogLevel and starts
 * the message pool (a repeated call drains its free lists first). Unknown names, bad numbers, classes
 * not strictly ascending and a level above DEBUG fail with PARAM_OUT_OF_RANGE and change nothing. */
VELCLIENT_API velClient_returnCode_t velClient_initialize(velClient_log_level_t initialLogLevel,
                                                          const char *const *props);

/* Stops the library: drains the message pool's free lists back to the system and logs, at level
 * info, the messages, containers and data blocks that the application never freed (they stay
 * valid). Afterwards velClient_msg_isCacheMsg treats the library as not started. Always VELCLIENT_OK. */
VELCLIENT_API velClient_returnCode_t velClient_cleanup(void);

/* ---- Last error ---------------------------------------------------------- */

/* The calling thread's last-error record (sub-code and text of its most recent failure); never NULL.
 * Each thread has its own; only a failure on the same thread overwrites it, a success leaves it as it
 * was. A VELCLIENT_NOT_FOUND for missing structured data also stores VELCLIENT_SUBCODE_NO_STRUCTURED_DATA. */
VELCLIENT_API velClient_errorInfo_pt velClient_getLastErrorInfo(void);
/* Resets the calling thread's last-error record: sub-code OK, response code 0, empty text.
 * Other threads' records are not touched. */
VELCLIENT_API void velClient_resetLastErrorInfo(void);
/* The name of returnCode without its prefix ("OK", "FAIL", "NOT_FOUND"), or "Unknown" for a value
 * that is not an enumerator. The text is static; never NULL. */
VELCLIENT_API const char *velClient_returnCodeToString(velClient_returnCode_t returnCode);
/* The name of subCode without its prefix ("PARAM_NULL_PTR"), or "Unknown" for a value that is not
 * an enumerator. The text is static; never NULL. */
VELCLIENT_API const char *velClient_subCodeToString(velClient_subCode_t subCode);

/* ---- Log control --------------------------------------------------------- */

/* Sets the most verbose level written for a category: SDK, or ALL for every category (APP is
 * accepted; the library writes no APP lines). The level is NOTICE until set. A level above
 * VELCLIENT_LOG_DEBUG or an unknown category fails with PARAM_OUT_OF_RANGE. Failures are stored in
 * the last-error record whatever the level. */
VELCLIENT_API velClient_returnCode_t velClient_log_setFilterLevel(velClient_log_category_t category,
                                                                  velClient_log_level_t level);

/* Sends every log line that passes the filter to callback_p, with user_p, on whichever thread logs
 * it; info_p and its text are valid during the call only. NULL restores the default: a line on
 * standard error with time, level, file and line. Always VELCLIENT_OK. */
VELCLIENT_API velClient_returnCode_t velClient_log_setCallback(velClient_log_callbackFunc_t callback_p,
                                                               void *user_p);

/* ---- Sessions ------------------------------------------------------------ */

typedef enum velClient_rxMsgCallback_returnCode {
    VELCLIENT_CALLBACK_OK = 0,
    VELCLIENT_CALLBACK_TAKE_MSG = 1
} velClient_rxMsgCallback_returnCode_t;

/* Receives one message on the session's thread of delivery (with the loopback transport: the
 * sending thread, before velClient_session_sendMsg returns; the callback may send on the same
 * session). Returning VELCLIENT_CALLBACK_TAKE_MSG keeps the message (the application frees it later
 * with velClient_msg_free); otherwise the library frees it when the callback returns. */
typedef velClient_rxMsgCallback_returnCode_t (*velClient_session_rxMsgCallbackFunc_t)(
    velClient_opaqueSession_pt session_p, velClient_opaqueMsg_pt msg_p, void *user_p);

/* Creates a session into *session_p (NULL on failure) delivering to rxMsgCallback_p (may be NULL).
 * props: NULL or NULL-terminated name/value pairs: SESSION_CLIENT_NAME, SESSION_P2P_TOPIC_BASE (at most
 * 250 characters), SESSION_TRANSPORT ("loopback", the default, "null" or "amqp"), and "1" or "0" (default
 * "0") for SESSION_GENERATE_SEND_TIMESTAMPS, SESSION_GENERATE_SENDER_ID, SESSION_GENERATE_SEQUENCE_NUMBER
 * and SESSION_CALCULATE_MESSAGE_EXPIRATION. A broker session ("amqp") also reads SESSION_HOST (comma-separated
 * host[:port] list, default "127.0.0.1", port 5672 or 5671 with TLS), SESSION_USERNAME and SESSION_PASSWORD
 * (SASL PLAIN when a user name is given, else ANONYMOUS), SESSION_SSL ("0"), SESSION_SSL_TRUST_STORE,
 * SESSION_SSL_VALIDATE_CERTIFICATE ("1"), SESSION_CONNECT_TIMEOUT_MS (10000), SESSION_RECONNECT_RETRIES (20;
 * -1 forever), SESSION_RECONNECT_RETRY_WAIT_MS (3000), SESSION_KEEPALIVE_MS (30000), SESSION_SEND_BLOCKING
 * ("1"), SESSION_SEND_TIMEOUT_MS (10000), SESSION_PUB_WINDOW_SIZE (255, 1 to 255), SESSION_RECEIVE_ACK_MODE
 * ("auto" or "client"), SESSION_AMQP_TOPIC_PREFIX ("/topic/"), SESSION_AMQP_QUEUE_PREFIX ("/queue/"),
 * SESSION_AMQP_LEVEL_SEPARATOR ("."), SESSION_AMQP_WILDCARD_ONE ("*") and SESSION_AMQP_WILDCARD_MORE ("#");
 * every session accepts them all. The inbox topic base of a broker session defaults to "#P2P/v:", the first
 * broker host's name, "/" and the client name. Bad names, values: PARAM_OUT_OF_RANGE; NULL session_p:
 * PARAM_NULL_PTR. */
VELCLIENT_API velClient_returnCode_t velClient_session_create(const char *const *props,
                                                              velClient_session_rxMsgCallbackFunc_t rxMsgCallback_p,
                                                              void *user_p, velClient_opaqueSession_pt *session_p);
/* Destroys the session behind *session_p (disconnecting it first) and sets *session_p to NULL. Messages
 * belong to no session and stay valid; the session must not be in use on another thread. NULL session_p or
 * a handle that does not resolve: PARAM_NULL_PTR; from inside a receive or event callback of the same
 * session: PARAM_CONFLICT. */
VELCLIENT_API velClient_returnCode_t velClient_session_destroy(velClient_opaqueSession_pt *session_p);

typedef enum velClient_session_event {
    VELCLIENT_SESSION_EVENT_UP_NOTICE = 0,
    VELCLIENT_SESSION_EVENT_DOWN_ERROR = 1,          /* given up on every host */
    VELCLIENT_SESSION_EVENT_RECONNECTING_NOTICE = 2,
    VELCLIENT_SESSION_EVENT_RECONNECTED_NOTICE = 3,
    VELCLIENT_SESSION_EVENT_ACKNOWLEDGEMENT = 4,     /* the broker accepted a guaranteed message */
    VELCLIENT_SESSION_EVENT_REJECTED_MSG_ERROR = 5,  /* the broker refused one */
    VELCLIENT_SESSION_EVENT_CAN_SEND = 6,            /* room again after VELCLIENT_WOULD_BLOCK */
    VELCLIENT_SESSION_EVENT_SUBSCRIPTION_ERROR = 7   /* the broker refused a subscription */
} velClient_session_event_t;

typedef struct velClient_session_eventCallbackInfo {
    velClient_session_event_t event;
    velClient_int32_t responseCode; /* the broker's, or 0 */
    const char *info_p;             /* a readable reason; valid during the call only */
    void *correlation_p;            /* the correlation tag of the message concerned, or NULL */
} velClient_session_eventCallbackInfo_t, *velClient_session_eventCallbackInfo_pt;

/* Receives the session's events on its I/O thread (see velClient_session_connect). */
typedef void (*velClient_session_eventCallbackFunc_t)(velClient_opaqueSession_pt session_p,
                                                      velClient_session_eventCallbackInfo_pt info_p, void *user_p);

/* Connects a broker session: blocks until it is up (VELCLIENT_OK) or has failed on every host within the
 * connect timeout (VELCLIENT_FAIL with COMMUNICATION_ERROR or TIMEOUT and a text that names the host and the
 * reason; a refused login gives LOGIN_FAILURE). A connected broker session runs one I/O thread of its own,
 * on which its receive and event callbacks run; every call may be made from any thread and from inside those
 * callbacks, except connect, disconnect and destroy of the same session (PARAM_CONFLICT). Once up, the
 * session subscribes to its inbox topic base followed by "/>", and connect returns when the broker has attached
 * it (or after the connect timeout). Loopback and null sessions are up at once.
 * Connecting a connected session is VELCLIENT_OK. */
VELCLIENT_API velClient_returnCode_t velClient_session_connect(velClient_opaqueSession_pt session);
/* Waits (bounded by the send timeout) until every guaranteed message sent is acknowledged and every direct one
 * has gone out, then closes the connection and ends the I/O thread. A session that is not connected:
 * VELCLIENT_OK. */
VELCLIENT_API velClient_returnCode_t velClient_session_disconnect(velClient_opaqueSession_pt session);
/* Subscribes to a topic: levels separated by '/', where a level that is exactly "*" matches any one level
 * and a last level that is exactly ">" one or more levels. Subscribing twice is not an error. A broker
 * session that is not connected: SESSION_NOT_ESTABLISHED. The call returns when the broker has attached the
 * subscription, so that what is published afterwards reaches it, or has refused it (the event
 * SUBSCRIPTION_ERROR), waiting at most the connect timeout; inside the session's own callbacks it returns at
 * once. Loopback and null sessions check the topic and record nothing: a loopback
 * session receives whatever it sends. An empty topic or one over 250 characters: PARAM_OUT_OF_RANGE. */
VELCLIENT_API velClient_returnCode_t velClient_session_topicSubscribe(velClient_opaqueSession_pt session,
                                                                      const char *topic);
/* Ends a topic subscription; a topic not subscribed is VELCLIENT_OK. Arguments as topicSubscribe. */
VELCLIENT_API velClient_returnCode_t velClient_session_topicUnsubscribe(velClient_opaqueSession_pt session,
                                                                        const char *topic);
/* Receives from a durable queue, which the broker creates if absent. Arguments as topicSubscribe. */
VELCLIENT_API velClient_returnCode_t velClient_session_queueSubscribe(velClient_opaqueSession_pt session,
                                                                      const char *queueName);
/* Stops receiving from a queue; the queue and its messages stay on the broker. */
VELCLIENT_API velClient_returnCode_t velClient_session_queueUnsubscribe(velClient_opaqueSession_pt session,
                                                                        const char *queueName);
/* Accepts the message received from a queue whose velClient_msg_getMsgId is msgId, when
 * SESSION_RECEIVE_ACK_MODE is "client". An id not received, already acknowledged or from before a
 * reconnect: PARAM_OUT_OF_RANGE. */
VELCLIENT_API velClient_returnCode_t velClient_session_ack(velClient_opaqueSession_pt session,
                                                           velClient_msgId_t msgId);
/* Sets (or with NULL clears) the callback that receives the session's events, with user_p. */
VELCLIENT_API velClient_returnCode_t velClient_session_setEventCallback(velClient_opaqueSession_pt session,
                                                                        velClient_session_eventCallbackFunc_t cb,
                                                                        void *user_p);
/* The name of event without its prefix ("UP_NOTICE"), or "Unknown" for a value that is not an enumerator.
 * The text is static; never NULL. */
VELCLIENT_API const char *velClient_session_eventToString(velClient_session_event_t event);

#ifdef __cplusplus
}
#endif

#endif /* VELCLIENT_H */
