/*
 * headerMapProperties.cpp - the application-visible properties kept in the
 * private header map: sender id ("si"), application message type ("mt") and
 * id ("mi"), correlation id ("ci"), sequence number ("sn"), sender timestamp
 * ("ts"), HTTP content type ("ct") and encoding ("ce"), and expiration ("ex").
 * One table row per property drives its getter, setter and deleter.
 */
#include "velClientMsg/headerMaps.h"

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
velClient_returnCode_t getProperty(const HeaderProperty &row, velClient_opaqueMsg_pt msg_p, const void *out_p,
                                   velClient_field_t &field)
{
    _velClient_msg *msg = vel::msgOrFail(msg_p, row.badGetHandle);
    if (msg == nullptr)
        return VELCLIENT_FAIL;
    if (out_p == nullptr)
        return VEL_FAIL_F(VELCLIENT_SUBCODE_PARAM_NULL_PTR, VELCLIENT_LOG_WARNING, row.nullOut);
    velClient_returnCode_t rc = vel::hdr::lookup(msg, row.key, field);
    if (rc != VELCLIENT_OK)
        return rc;
    if (field.type != row.type)
        return VEL_FAIL_F(VELCLIENT_SUBCODE_COMMUNICATION_ERROR, VELCLIENT_LOG_WARNING, row.wrongType);
    return VELCLIENT_OK;
}

velClient_returnCode_t getString(const HeaderProperty &row, velClient_opaqueMsg_pt msg_p, const char **out_p)
{
    velClient_field_t field{};
    velClient_returnCode_t rc = getProperty(row, msg_p, out_p, field);
    if (rc == VELCLIENT_OK)
        *out_p = field.value.string;
    return rc;
}

velClient_returnCode_t getInt64(const HeaderProperty &row, velClient_opaqueMsg_pt msg_p, velClient_int64_t *out_p)
{
    velClient_field_t field{};
    velClient_returnCode_t rc = getProperty(row, msg_p, out_p, field);
    if (rc == VELCLIENT_OK)
        *out_p = field.value.int64;
    return rc;
}

template <typename Add>
velClient_returnCode_t setProperty(const HeaderProperty &row, velClient_opaqueMsg_pt msg_p, Add add,
                                   const char **lent = nullptr)
{
    _velClient_msg *msg = vel::msgOrFail(msg_p, row.badSetHandle);
    if (msg == nullptr)
        return VELCLIENT_FAIL;
    return vel::hdr::set(msg, row.key, row.ownMask, row.ownBit, add, lent);
}

velClient_returnCode_t setString(const HeaderProperty &row, velClient_opaqueMsg_pt msg_p, const char *value)
{
    return setProperty(
        row, msg_p,
        [&](velClient_opaqueContainer_pt map) { return velClient_container_addString(map, value, row.key); },
        &value);
}

velClient_returnCode_t setInt64(const HeaderProperty &row, velClient_opaqueMsg_pt msg_p, velClient_int64_t value)
{
    return setProperty(row, msg_p, [&](velClient_opaqueContainer_pt map) {
        return velClient_container_addInt64(map, value, row.key);
    });
}

velClient_returnCode_t deleteProperty(const HeaderProperty &row, velClient_opaqueMsg_pt msg_p)
{
    _velClient_msg *msg = vel::msgOrFail(msg_p, row.badDeleteHandle);
    if (msg == nullptr)
        return VELCLIENT_FAIL;
    return vel::hdr::remove(msg, row.key, row.ownMask);
}

} // namespace

#define VEL_HEADER_STRING_PROPERTY(Name, row)                                                                       \
    extern "C" VELCLIENT_API velClient_returnCode_t velClient_msg_get##Name(velClient_opaqueMsg_pt msg_p,         \
                                                                           const char **value_p)                  \
    {                                                                                                               \
        return getString(row, msg_p, value_p);                                                                      \
    }                                                                                                               \
    extern "C" VELCLIENT_API velClient_returnCode_t velClient_msg_set##Name(velClient_opaqueMsg_pt msg_p,         \
                                                                           const char *value)                     \
    {                                                                                                               \
        return setString(row, msg_p, value);                                                                        \
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
    return getInt64(kSequenceNumber, msg_p, seqNum_p);
}

extern "C" VELCLIENT_API velClient_returnCode_t velClient_msg_setSequenceNumber(velClient_opaqueMsg_pt msg_p,
                                                                               velClient_uint64_t seqNum)
{
    VEL_LOG(VELCLIENT_LOG_DEBUG, "velClient_msg_setSequenceNumber(%p,%lld)", msg_p, static_cast<long long>(seqNum));
    return setInt64(kSequenceNumber, msg_p, static_cast<velClient_int64_t>(seqNum));
}

extern "C" VELCLIENT_API velClient_returnCode_t velClient_msg_deleteSequenceNumber(velClient_opaqueMsg_pt msg_p)
{
    return deleteProperty(kSequenceNumber, msg_p);
}

extern "C" VELCLIENT_API velClient_returnCode_t velClient_msg_getSenderTimestamp(velClient_opaqueMsg_pt msg_p,
                                                                                velClient_int64_t *timestamp_p)
{
    return getInt64(kSenderTimestamp, msg_p, timestamp_p);
}

extern "C" VELCLIENT_API velClient_returnCode_t velClient_msg_setSenderTimestamp(velClient_opaqueMsg_pt msg_p,
                                                                                velClient_int64_t timestamp)
{
    return setInt64(kSenderTimestamp, msg_p, timestamp);
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
        return VEL_FAIL(VELCLIENT_SUBCODE_PARAM_OUT_OF_RANGE, VELCLIENT_LOG_WARNING,
                        "Invalid time to live value in velClient_msg_setExpiration");
    msg->expirationTime = static_cast<std::uint64_t>(timestamp);
    if (timestamp != 0)
        return VELCLIENT_OK;
    return vel::hdr::remove(msg, "ex", _VELCLIENT_MSG_FLAG_EXPIRATION);
}

extern "C" VELCLIENT_API velClient_returnCode_t velClient_msg_getExpiration(velClient_opaqueMsg_pt msg_p,
                                                                           velClient_int64_t *timestamp_p)
{
    _velClient_msg *msg = vel::msgOrFail(msg_p, "Bad msg_p pointer (%p) in velClient_msg_getExpiration");
    if (msg == nullptr)
        return VELCLIENT_FAIL;
    if (timestamp_p == nullptr)
        return VEL_FAIL(VELCLIENT_SUBCODE_PARAM_NULL_PTR, VELCLIENT_LOG_WARNING,
                        "Null timestamp_p pointer in velClient_msg_getMessageExpiration");
    velClient_returnCode_t rc = VELCLIENT_OK;
    if (msg->expirationTime == 0) {
        rc = msg->hdrMap_p != nullptr ? VELCLIENT_OK : _velClient_msg_getOrCreateHeaderMaps(msg, 0);
        if (rc == VELCLIENT_OK)
            rc = velClient_container_getUint64(msg->hdrMap_p->opaqueContainer_p, &msg->expirationTime, "ex");
    }
    *timestamp_p = static_cast<velClient_int64_t>(msg->expirationTime);
    return rc == VELCLIENT_FAIL ? VELCLIENT_FAIL : VELCLIENT_OK;
}

velClient_returnCode_t _velClient_msg_setMessageExpiration(_velClient_msg *msg)
{
    return vel::hdr::set(msg, "ex", _VELCLIENT_MSG_FLAG_EXPIRATION, _VELCLIENT_MSG_FLAG_EXPIRATION,
                         [&](velClient_opaqueContainer_pt map) {
                             return velClient_container_addInt64(map, static_cast<velClient_int64_t>(msg->expirationTime),
                                                                 "ex");
                         });
}
