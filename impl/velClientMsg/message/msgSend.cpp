/*
 * msgSend.cpp - sending a message on a session: the properties the session
 * generates (sender timestamp, sender id, sequence number), the expiration,
 * the binary metadata header, and the call of the session's send path under
 * its mutex.
 */
#include "velClientMsg/header/headerMaps.h"
#include "velClientMsg/message/msgWire.h"
#include "velClientMsg/message/recordApi.h"
#include "velClientSession/sessionPrivate.h"
#include "velClientTime/clock.h"

namespace {

std::int64_t nowMs()
{
    return static_cast<std::int64_t>(_velClient_getTimeInUs() / 1000);
}

/* Adds what the session generates and the application did not set itself;
 * *reserved tells whether a sequence number placeholder was added. */
velClient_returnCode_t addGenerated(_velClient_session *s, _velClient_msg *msg, bool *reserved)
{
    if (s->genSendTimestamps && !(msg->internalFlags & _VELCLIENT_MSG_FLAG_SENDER_TIMESTAMP)) {
        if (vel::msg::setHeaderInt64(msg, vel::msg::HeaderProperty::senderTimestamp, nowMs()) != VELCLIENT_OK)
            return VELCLIENT_FAIL;
        msg->internalFlags = (msg->internalFlags & ~_VELCLIENT_MSG_FLAG_SENDER_TIMESTAMP) |
                             _VELCLIENT_MSG_FLAG_SENDER_TIMESTAMP_AUTO;
    }
    if (s->genSenderId && !(msg->internalFlags & _VELCLIENT_MSG_FLAG_SENDER_ID)) {
        if (vel::msg::setHeaderString(msg, vel::msg::HeaderProperty::senderId, s->clientName) != VELCLIENT_OK)
            return VELCLIENT_FAIL;
        msg->internalFlags = (msg->internalFlags & ~_VELCLIENT_MSG_FLAG_SENDER_ID) | _VELCLIENT_MSG_FLAG_SENDER_ID_AUTO;
    }
    if (s->genSequenceNumber && !(msg->internalFlags & _VELCLIENT_MSG_FLAG_SEQUENCE_NUMBER)) {
        std::uint64_t *placeholder = nullptr;
        *reserved = true;
        return _velClient_msg_beginSetSequenceNumber(msg, &placeholder, s->sendSeqNum);
    }
    return VELCLIENT_OK;
}

} // namespace

extern "C" VELCLIENT_API velClient_returnCode_t velClient_session_sendMsg(velClient_opaqueSession_pt session_p,
                                                                         velClient_opaqueMsg_pt msg_p)
{
    _velClient_session *s = vel::sessionOrFail(session_p, "Bad session pointer (%p) in velClient_session_sendMsg");
    if (s == nullptr)
        return VELCLIENT_FAIL;
    _velClient_msg *msg = vel::msgOrFail(msg_p, "Bad msg_p pointer (%p) in velClient_session_sendMsg");
    if (msg == nullptr)
        return VELCLIENT_FAIL;
    bool reserved = false;
    if (s->autoGenForSendEnabled && addGenerated(s, msg, &reserved) != VELCLIENT_OK)
        return VELCLIENT_FAIL;
    if (msg->timeToLive != 0)
        msg->expirationTime = s->calcMessageExpiration ? static_cast<std::uint64_t>(nowMs()) + msg->timeToLive : 0;
    else if (msg->expirationTime != 0 && _velClient_msg_setMessageExpiration(msg) != VELCLIENT_OK)
        return VELCLIENT_FAIL;
    if (vel::meta::prepareForWire(msg, false) != VELCLIENT_OK)
        return VELCLIENT_FAIL;
    /* The expiration and the metadata build may have moved the header map's
     * bytes since the placeholder was reserved: its address is taken only
     * now, under the lock, when nothing else changes the message before the
     * bytes go out. */
    std::lock_guard<std::recursive_mutex> lock(s->mutex);
    std::uint64_t *seqNumPtr = nullptr;
    if (reserved && (seqNumPtr = reinterpret_cast<std::uint64_t *>(_velClient_msg_sequenceNumberSlot(msg))) == nullptr)
        return VEL_FAIL(VELCLIENT_SUBCODE_INTERNAL_ERROR, VELCLIENT_LOG_ERROR,
                        "Sequence number placeholder lost in velClient_session_sendMsg");
    return _velClient_session_fastSend(s, msg->bufInfo_a, _VELCLIENT_BUFINFO_NUM_PARTS, msg->msgInfo.flags,
                                       seqNumPtr, msg);
}
