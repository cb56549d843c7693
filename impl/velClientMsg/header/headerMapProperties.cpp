/*
 * headerMapProperties.cpp - the application-visible properties kept in the
 * private header map: sender id ("si"), application message type ("mt") and
 * id ("mi"), correlation id ("ci"), sequence number ("sn"), sender timestamp
 * ("ts"), HTTP content type ("ct") and encoding ("ce"), and expiration ("ex").
 * One table row per property drives its getter, setter and deleter.
 */
#include "velClientMsg/header/headerMaps.h"
#include "velClientMsg/message/recordApi.h"

namespace {

struct HeaderProperty {
    const char *key;
    velClient_fieldType_t type;  /* VELCLIENT_STRING or VELCLIENT_INT64 */
    std::uint32_t ownBit;        /* set by the setter */
    std::uint32_t ownMask;       /* own and generated bits: any set means the key may be present */
    vel::HandleFormat badGetHandle;
    vel::Format<> nullOut;
    vel::Format<> wrongType;
    vel::HandleFormat badSetHandle;
    vel::HandleFormat badDeleteHandle;
};

constexpr HeaderProperty kSenderId{"si", VELCLIENT_STRING, _VELCLIENT_MSG_FLAG_SENDER_ID,
                                   _VELCLIENT_MSG_FLAG_SENDER_ID | _VELCLIENT_MSG_FLAG_SENDER_ID_AUTO,
                                   "Bad msg_p pointer (%p) in velClient_msg_getSenderId",
                                   "Null buf_p pointer in velClient_msg_getSenderId",
                                   "Invalid SenderId field in kestrel header map",
                                   "Null msg_p pointer (%p) in velClient_msg_setSenderId",
                                   "Bad msg_p pointer (%p) in velClient_msg_deleteSenderId"};
constexpr HeaderProperty kAppMsgType{"mt", VELCLIENT_STRING, _VELCLIENT_MSG_FLAG_APP_MSG_TYPE,
                                     _VELCLIENT_MSG_FLAG_APP_MSG_TYPE,
                                     "Bad msg_p pointer (%p) in velClient_msg_getApplicationMsgType",
                                     "Null msgType_p pointer in velClient_msg_getApplicationMsgType",
                                     "Invalid Application MsgType field in kestrel header map",
                                     "Bad msg_p pointer (%p) in velClient_msg_setApplicationMsgType",
                                     "Bad msg_p pointer (%p) in velClient_msg_deleteApplicationMsgType"};
constexpr HeaderProperty kAppMsgId{"mi", VELCLIENT_STRING, _VELCLIENT_MSG_FLAG_APP_MSG_ID,
                                   _VELCLIENT_MSG_FLAG_APP_MSG_ID,
                                   "Bad msg_p pointer (%p) in velClient_msg_getApplicationMessageId",
                                   "Null messageId_p pointer in velClient_msg_getApplicationMessageId",
                                   "Invalid Message Id field in kestrel header map",
                                   "Bad msg_p pointer (%p) in velClient_msg_setApplicationMessageId",
                                   "Bad msg_p pointer (%p) in velClient_msg_deleteApplicationMessageId"};
constexpr HeaderProperty kCorrelationId{"ci", VELCLIENT_STRING, _VELCLIENT_MSG_FLAG_CORRELATION_ID,
                                        _VELCLIENT_MSG_FLAG_CORRELATION_ID,
                                        "Bad msg_p pointer (%p) in velClient_msg_getCorrelationId",
                                        "Null correlation_p pointer in velClient_msg_getCorrelationId",
                                        "Invalid Correlation ID field in kestrel header map",
                                        "Bad msg_p pointer (%p) in velClient_msg_setCorrelationId",
                                        "Bad msg_p pointer (%p) in velClient_msg_deleteCorrelationId"};
constexpr HeaderProperty kSequenceNumber{
    "sn", VELCLIENT_INT64, _VELCLIENT_MSG_FLAG_SEQUENCE_NUMBER,
    _VELCLIENT_MSG_FLAG_SEQUENCE_NUMBER | _VELCLIENT_MSG_FLAG_SEQUENCE_NUMBER_AUTO,
    "Bad msg_p pointer (%p) in velClient_msg_getSequenceNumber",
    "Null seqNum_p pointer in velClient_msg_getSequenceNumber",
    "Invalid Sequence Number field in kestrel header map",
    "Bad msg_p pointer (%p) in velClient_msg_setSequenceNumber",
    "Bad msg_p pointer (%p) in velClient_msg_deleteSequenceNumber"};
constexpr HeaderProperty kSenderTimestamp{
    "ts", VELCLIENT_INT64, _VELCLIENT_MSG_FLAG_SENDER_TIMESTAMP,
    _VELCLIENT_MSG_FLAG_SENDER_TIMESTAMP | _VELCLIENT_MSG_FLAG_SENDER_TIMESTAMP_AUTO,
    "Bad msg_p pointer (%p) in velClient_msg_getSenderTimeStamp",
    "Null timestamp_p pointer in velClient_msg_getSenderTimeStamp",
    "Invalid Sender Timestamp field in kestrel header map",
    "Bad msg_p pointer (%p) in velClient_msg_setSenderTimestamp",
    "Bad msg_p pointer (%p) in velClient_msg_deleteSenderTimestamp"};

/* Reads the property into field (checked to be of the row's type). */
velClient_returnCode_t getProperty(const HeaderProperty &row, _velClient_msg *msg, velClient_field_t &field)
{
    velClient_returnCode_t rc = vel::hdr::lookup(msg, row.key, field);
    if (rc != VELCLIENT_OK)
        return rc;
    if (field.type != row.type)
        return VEL_FAIL_F(VELCLIENT_SUBCODE_COMMUNICATION_ERROR, VELCLIENT_LOG_WARNING, row.wrongType);
    return VELCLIENT_OK;
}

velClient_returnCode_t getString(const HeaderProperty &row, _velClient_msg *msg, const char **out_p)
{
    velClient_field_t field{};
    velClient_returnCode_t rc = getProperty(row, msg, field);
    if (rc == VELCLIENT_OK)
        *out_p = field.value.string;
    return rc;
}

velClient_returnCode_t getInt64(const HeaderProperty &row, _velClient_msg *msg, velClient_int64_t *out_p)
{
    velClient_field_t field{};
    velClient_returnCode_t rc = getProperty(row, msg, field);
    if (rc == VELCLIENT_OK)
        *out_p = field.value.int64;
    return rc;
}

/* The getter behind the handle and out-pointer checks. */
template <typename T>
velClient_returnCode_t getChecked(const HeaderProperty &row, velClient_opaqueMsg_pt msg_p, T *out_p,
                                  velClient_returnCode_t (*get)(const HeaderProperty &, _velClient_msg *, T *))
{
    _velClient_msg *msg = vel::msgOrFail(msg_p, row.badGetHandle);
    if (msg == nullptr)
        return VELCLIENT_FAIL;
    if (out_p == nullptr)
        return VEL_FAIL_F(VELCLIENT_SUBCODE_PARAM_NULL_PTR, VELCLIENT_LOG_WARNING, row.nullOut);
    return get(row, msg, out_p);
}

velClient_returnCode_t setString(const HeaderProperty &row, _velClient_msg *msg, const char *value)
{
    return vel::hdr::set(
        msg, row.key, row.ownMask, row.ownBit,
        [&](_velClient_container *map) { return vel::container::addString(map, value, row.key); }, &value);
}

velClient_returnCode_t setInt64(const HeaderProperty &row, _velClient_msg *msg, velClient_int64_t value)
{
    return vel::hdr::set(msg, row.key, row.ownMask, row.ownBit, [&](_velClient_container *map) {
        return vel::container::addInt64(map, value, row.key);
    });
}

/* The setter behind the handle check. */
template <typename T>
velClient_returnCode_t setChecked(const HeaderProperty &row, velClient_opaqueMsg_pt msg_p, T value,
                                  velClient_returnCode_t (*set)(const HeaderProperty &, _velClient_msg *, T))
{
    _velClient_msg *msg = vel::msgOrFail(msg_p, row.badSetHandle);
    return msg == nullptr ? VELCLIENT_FAIL : set(row, msg, value);
}

velClient_returnCode_t deleteProperty(const HeaderProperty &row, velClient_opaqueMsg_pt msg_p)
{
    _velClient_msg *msg = vel::msgOrFail(msg_p, row.badDeleteHandle);
    if (msg == nullptr)
        return VELCLIENT_FAIL;
    return vel::hdr::remove(msg, row.key, row.ownMask);
}

/* The rows in the order of vel::msg::HeaderProperty. */
constexpr const HeaderProperty *kRows[] = {&kSenderId,       &kAppMsgType,     &kAppMsgId,
                                           &kCorrelationId,  &kSequenceNumber, &kSenderTimestamp};

const HeaderProperty &rowOf(vel::msg::HeaderProperty property)
{
    return *kRows[static_cast<int>(property)];
}

} // namespace

velClient_returnCode_t vel::msg::headerString(_velClient_msg *msg, HeaderProperty property, const char **value_p)
{
    return getString(rowOf(property), msg, value_p);
}

velClient_returnCode_t vel::msg::headerInt64(_velClient_msg *msg, HeaderProperty property, velClient_int64_t *value_p)
{
    return getInt64(rowOf(property), msg, value_p);
}

velClient_returnCode_t vel::msg::setHeaderString(_velClient_msg *msg, HeaderProperty property, const char *value)
{
    return setString(rowOf(property), msg, value);
}

velClient_returnCode_t vel::msg::setHeaderInt64(_velClient_msg *msg, HeaderProperty property, velClient_int64_t value)
{
    return setInt64(rowOf(property), msg, value);
}

#define VEL_HEADER_STRING_PROPERTY(Name, row)                                                                       \
    extern "C" VELCLIENT_API velClient_returnCode_t velClient_msg_get##Name(velClient_opaqueMsg_pt msg_p,         \
                                                                           const char **value_p)                  \
    {                                                                                                               \
        return getChecked(row, msg_p, value_p, getString);                                                          \
    }                                                                                                               \
    extern "C" VELCLIENT_API velClient_returnCode_t velClient_msg_set##Name(velClient_opaqueMsg_pt msg_p,         \
                                                                           const char *value)                     \
    {                                                                                                               \
        return setChecked(row, msg_p, value, setString);                                                            \
    }                                                                                                               \
    extern "C" VELCLIENT_API velClient_returnCode_t velClient_msg_delete##Name(velClient_opaqueMsg_pt msg_p)      \
    {                                                                                                               \
        return deleteProperty(row, msg_p);                                                                          \
    }

VEL_HEADER_STRING_PROPERTY(SenderId, kSenderId)
VEL_HEADER_STRING_PROPERTY(ApplicationMsgType, kAppMsgType)
VEL_HEADER_STRING_PROPERTY(ApplicationMessageId, kAppMsgId)
VEL_HEADER_STRING_PROPERTY(CorrelationId, kCorrelationId)

extern "C" VELCLIENT_API velClient_returnCode_t velClient_msg_getSequenceNumber(velClient_opaqueMsg_pt msg_p,
                                                                               velClient_int64_t *seqNum_p)
{
    return getChecked(kSequenceNumber, msg_p, seqNum_p, getInt64);
}

extern "C" VELCLIENT_API velClient_returnCode_t velClient_msg_setSequenceNumber(velClient_opaqueMsg_pt msg_p,
                                                                               velClient_uint64_t seqNum)
{
    VEL_LOG(VELCLIENT_LOG_DEBUG, "velClient_msg_setSequenceNumber(%p,%lld)", msg_p, static_cast<long long>(seqNum));
    return setChecked(kSequenceNumber, msg_p, static_cast<velClient_int64_t>(seqNum), setInt64);
}

extern "C" VELCLIENT_API velClient_returnCode_t velClient_msg_deleteSequenceNumber(velClient_opaqueMsg_pt msg_p)
{
    return deleteProperty(kSequenceNumber, msg_p);
}

extern "C" VELCLIENT_API velClient_returnCode_t velClient_msg_getSenderTimestamp(velClient_opaqueMsg_pt msg_p,
                                                                                velClient_int64_t *timestamp_p)
{
    return getChecked(kSenderTimestamp, msg_p, timestamp_p, getInt64);
}

extern "C" VELCLIENT_API velClient_returnCode_t velClient_msg_setSenderTimestamp(velClient_opaqueMsg_pt msg_p,
                                                                                velClient_int64_t timestamp)
{
    return setChecked(kSenderTimestamp, msg_p, timestamp, setInt64);
}

extern "C" VELCLIENT_API velClient_returnCode_t velClient_msg_deleteSenderTimestamp(velClient_opaqueMsg_pt msg_p)
{
    return deleteProperty(kSenderTimestamp, msg_p);
}

/* ---- HTTP content type and encoding: the generic string properties ------- */

#define VEL_HTTP_PROPERTY(Name, key, flag)                                                                          \
    extern "C" VELCLIENT_API velClient_returnCode_t velClient_msg_get##Name(velClient_opaqueMsg_pt msg_p,         \
                                                                           const char **value_p)                  \
    {                                                                                                               \
        return _velClient_msgHeaderMap_getString(msg_p, value_p, key);                                              \
    }                                                                                                               \
    extern "C" VELCLIENT_API velClient_returnCode_t velClient_msg_set##Name(velClient_opaqueMsg_pt msg_p,         \
                                                                           const char *value)                     \
    {                                                                                                               \
        return _velClient_msgHeaderMap_setString(msg_p, value, key, flag);                                          \
    }                                                                                                               \
    extern "C" VELCLIENT_API velClient_returnCode_t velClient_msg_delete##Name(velClient_opaqueMsg_pt msg_p)      \
    {                                                                                                               \
        return _velClient_msgHeaderMap_deleteString(msg_p, key, flag);                                              \
    }

VEL_HTTP_PROPERTY(HttpContentType, "ct", _VELCLIENT_MSG_FLAG_HTTP_CONTENT_TYPE)
VEL_HTTP_PROPERTY(HttpContentEncoding, "ce", _VELCLIENT_MSG_FLAG_HTTP_CONTENT_ENCODING)

/* ---- Expiration: a record field, copied into "ex" at send ------------------ */

extern "C" VELCLIENT_API velClient_returnCode_t velClient_msg_setExpiration(velClient_opaqueMsg_pt msg_p,
                                                                           velClient_int64_t timestamp)
{
    _velClient_msg *msg = vel::msgOrFail(msg_p, "Bad msg_p pointer (%p) in velClient_msg_setExpiration");
    if (msg == nullptr)
        return VELCLIENT_FAIL;
    if (timestamp < 0)
        return VEL_FAIL_RANGE("Invalid time to live value in velClient_msg_setExpiration");
    msg->expirationTime = static_cast<std::uint64_t>(timestamp);
    if (timestamp != 0)
        return VELCLIENT_OK;
    return vel::hdr::remove(msg, "ex", _VELCLIENT_MSG_FLAG_EXPIRATION);
}

extern "C" VELCLIENT_API velClient_returnCode_t velClient_msg_getExpiration(velClient_opaqueMsg_pt msg_p,
                                                                           velClient_int64_t *timestamp_p)
{
    return vel::readThrough(msg_p, timestamp_p, vel::msg::expiration,
                            "Bad msg_p pointer (%p) in velClient_msg_getExpiration",
                            "Null timestamp_p pointer in velClient_msg_getMessageExpiration");
}

velClient_returnCode_t vel::msg::expiration(_velClient_msg *msg, velClient_int64_t *timestamp_p)
{
    velClient_returnCode_t rc = VELCLIENT_OK;
    if (msg->expirationTime == 0) {
        rc = msg->hdrMap_p != nullptr ? VELCLIENT_OK : _velClient_msg_getOrCreateHeaderMaps(msg, 0);
        if (rc == VELCLIENT_OK)
            rc = vel::container::getUint64(msg->hdrMap_p, &msg->expirationTime, "ex");
    }
    *timestamp_p = static_cast<velClient_int64_t>(msg->expirationTime);
    return rc == VELCLIENT_FAIL ? VELCLIENT_FAIL : VELCLIENT_OK;
}

velClient_returnCode_t _velClient_msg_setMessageExpiration(_velClient_msg *msg)
{
    return vel::hdr::set(msg, "ex", _VELCLIENT_MSG_FLAG_EXPIRATION, _VELCLIENT_MSG_FLAG_EXPIRATION,
                         [&](_velClient_container *map) {
                             return vel::container::addInt64(map, static_cast<velClient_int64_t>(msg->expirationTime),
                                                             "ex");
                         });
}
