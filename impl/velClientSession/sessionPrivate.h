/*
 * sessionPrivate.h - the session record: the channel messages are
 * sent on. It holds the client name, the point-to-point inbox topic base, the
 * send-time generation settings, the send counters, the transport and the
 * receive callback, and the mutex held around a send.
 */
#pragma once

#include <cstdint>
#include <mutex>

#include "velClientLog/checkedFormat.h"
#include "velclient/velClient.h"

inline constexpr std::size_t kSessionMaxTopic = 250;

enum class _velClient_transport : std::uint8_t {
    loopback, /* sent bytes are parsed back and delivered to this session's callback */
    drop      /* sent bytes are built and dropped */
};

struct _velClient_session {
    velClient_opaqueSession_pt opaqueSession_p;
    char clientName[kSessionMaxTopic + 1];
    char p2pTopicBase[kSessionMaxTopic + 1];
    bool genSendTimestamps;
    bool genSenderId;
    bool genSequenceNumber;
    bool autoGenForSendEnabled; /* any of the three above */
    bool calcMessageExpiration;
    _velClient_transport transport;
    std::uint64_t sendSeqNum;    /* next generated sequence number, from 1 */
    std::uint64_t lastMsgIdSent; /* one per persistent or non-persistent message sent */
    velClient_session_rxMsgCallbackFunc_t rxMsgCallback_p;
    void *user_p;
    /* Held around the send path; recursive because a receive callback may
     * send again on the same session. */
    std::recursive_mutex mutex;
};

namespace vel {

/* The session behind handle, or nullptr after recording badHandleFormat
 * (whose optional %p receives the handle) as PARAM_NULL_PTR, warning. */
_velClient_session *sessionOrFail(velClient_opaqueSession_pt handle, HandleFormat badHandleFormat);

} // namespace vel

struct _velClient_msg;
struct velClient_bufInfo;

/* Sends msg on the session's transport; the caller holds the session mutex.
 * When seqNumPtr is set, the session's next sequence number is written there
 * (8 bytes, big-endian) before the bytes go out. */
velClient_returnCode_t _velClient_session_fastSend(_velClient_session *session, const velClient_bufInfo *parts,
                                                   std::uint32_t numParts, std::uint32_t flags,
                                                   std::uint64_t *seqNumPtr, _velClient_msg *msg);
