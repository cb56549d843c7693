/*
 * headerProperties.cpp - the small per-message delivery properties: class of
 * service, delivery mode, time-to-live, message id, topic sequence number,
 * receive timestamp, cache status and request id, and the yes/no marks kept
 * in the receive-flags word. The marks come from one table.
 */
#include "velClientInit/libraryStart.h"
#include "velClientMsg/message/recordApi.h"

namespace {

constexpr std::uint64_t kMaxTimeToLive = 315360000000ull; /* ten years in milliseconds */

/* A value present only when its flag bit is set; 0 is written either way. */
template <typename T>
velClient_returnCode_t flaggedValue(const _velClient_msg *msg, T *out, std::uint32_t bit,
                                    std::uint64_t _velClient_msg::*field)
{
    bool present = (msg->msgInfo.flags & bit) != 0;
    *out = present ? static_cast<T>(msg->*field) : 0;
    return present ? VELCLIENT_OK : VELCLIENT_NOT_FOUND;
}

} // namespace

/* ---- Fields of the receive-flags word: class of service, delivery mode ---------- */
namespace {

struct FlagField {
    std::uint32_t mask;
    bool (*valid)(std::uint32_t value);
    vel::HandleFormat badSetHandle;
    vel::Format<int> badValue;
    vel::HandleFormat badGetHandle;
    vel::Format<> nullOut;
};

constexpr FlagField kClassOfService{
    _VELCLIENT_RX_FLAG_COS_MASK, [](std::uint32_t cos) { return cos <= VELCLIENT_COS_3; },
    "Bad msg_p pointer (%p) in velClient_msg_setClassOfService",
    "Invalid setting of COS flags (%d) in velClient_msg_setClassOfService",
    "Bad msg_p pointer (%p) in velClient_msg_getReceivedClassOfService",
    "Null cos_p pointer in velClient_msg_getReceivedClassOfService"};
constexpr FlagField kDeliveryMode{
    _VELCLIENT_RX_FLAG_DELIVERY_MODE_MASK,
    [](std::uint32_t mode) {
        return (mode & _VELCLIENT_RX_FLAG_DELIVERY_MODE_MASK) != _VELCLIENT_RX_FLAG_DELIVERY_MODE_MASK;
    },
    "Bad msg_p pointer (%p) in velClient_msg_setDeliveryMode",
    "Invalid setting of Delivery Mode (%d) in velClient_msg_setDeliveryMode ",
    "Bad msg_p pointer (%p) in velClient_msg_getDeliveryMode", "Null mode_p pointer in velClient_msg_getDeliveryMode"};

/* The old bits of the field are cleared and the whole value is OR-ed in: bits
 * beyond the field that the caller passes land in the flags as given. */
velClient_returnCode_t setFlagField(const FlagField &f, velClient_opaqueMsg_pt msg_p, velClient_uint32_t value)
{
    _velClient_msg *msg = vel::msgOrFail(msg_p, f.badSetHandle);
    if (msg == nullptr)
        return VELCLIENT_FAIL;
    if (!f.valid(value))
        return VEL_FAIL_F(VELCLIENT_SUBCODE_PARAM_OUT_OF_RANGE, VELCLIENT_LOG_WARNING, f.badValue,
                          static_cast<int>(value));
    msg->msgInfo.flags = (msg->msgInfo.flags & ~f.mask) | value;
    return VELCLIENT_OK;
}

} // namespace

/* An export that reads a value of the message record through internal: its
 * texts name the export and its out-pointer. */
#define VEL_RECORD_GETTER(Name, T, out, internal)                                                          \
    extern "C" VELCLIENT_API velClient_returnCode_t velClient_msg_get##Name(velClient_opaqueMsg_pt msg_p,  \
                                                                           T *out)                         \
    {                                                                                                      \
        return vel::readThrough(msg_p, out, internal, "Bad msg_p pointer (%p) in velClient_msg_get" #Name,     \
                                "Null " #out " pointer in velClient_msg_get" #Name);                       \
    }

velClient_returnCode_t vel::msg::classOfService(_velClient_msg *msg, velClient_uint32_t *cos_p)
{
    *cos_p = msg->msgInfo.flags & kClassOfService.mask;
    return VELCLIENT_OK;
}

velClient_returnCode_t vel::msg::deliveryMode(_velClient_msg *msg, velClient_uint32_t *mode_p)
{
    *mode_p = msg->msgInfo.flags & kDeliveryMode.mask;
    return VELCLIENT_OK;
}

/* The setter and getter of a field of the flags word. */
#define VEL_FLAG_FIELD_EXPORTS(Name, field, internal)                                                      \
    extern "C" VELCLIENT_API velClient_returnCode_t velClient_msg_set##Name(velClient_opaqueMsg_pt msg_p,  \
                                                                           velClient_uint32_t value)       \
    {                                                                                                      \
        return setFlagField(field, msg_p, value);                                                          \
    }                                                                                                      \
    extern "C" VELCLIENT_API velClient_returnCode_t velClient_msg_get##Name(velClient_opaqueMsg_pt msg_p,  \
                                                                           velClient_uint32_t *value_p)    \
    {                                                                                                      \
        return vel::readThrough(msg_p, value_p, internal, field.badGetHandle, field.nullOut);             \
    }
VEL_FLAG_FIELD_EXPORTS(ClassOfService, kClassOfService, vel::msg::classOfService)
VEL_FLAG_FIELD_EXPORTS(DeliveryMode, kDeliveryMode, vel::msg::deliveryMode)

extern "C" VELCLIENT_API velClient_returnCode_t velClient_msg_setTimeToLive(velClient_opaqueMsg_pt msg_p,
                                                                           velClient_int64_t ttl)
{
    _velClient_msg *msg = vel::msgOrFail(msg_p, "Bad msg_p pointer (%p) in velClient_msg_setTimeToLive");
    if (msg == nullptr)
        return VELCLIENT_FAIL;
    if (static_cast<std::uint64_t>(ttl) > kMaxTimeToLive)
        return VEL_FAIL_RANGE("Invalid time to live value in velClient_msg_setTimeToLive");
    msg->timeToLive = static_cast<std::uint64_t>(ttl);
    return VELCLIENT_OK;
}

velClient_returnCode_t vel::msg::timeToLive(_velClient_msg *msg, velClient_int64_t *ttl_p)
{
    *ttl_p = static_cast<velClient_int64_t>(msg->timeToLive);
    return VELCLIENT_OK;
}

VEL_RECORD_GETTER(TimeToLive, velClient_int64_t, timestamp_p, vel::msg::timeToLive)

velClient_returnCode_t _velClient_msg_setMsgId(velClient_opaqueMsg_pt msg_p, velClient_msgId_t msgId)
{
    _velClient_msg *msg = vel::msgOrFail(msg_p, "Bad msg_p pointer (%p) in velClient_msg_getMsgId");
    if (msg == nullptr)
        return VELCLIENT_FAIL;
    msg->msgInfo.msgId = msgId;
    msg->msgInfo.flags |= _VELCLIENT_RX_FLAG_MSG_ID;
    return VELCLIENT_OK;
}

VEL_RECORD_GETTER(MsgId, velClient_msgId_t, msgId_p, vel::msg::msgId)

velClient_returnCode_t vel::msg::msgId(_velClient_msg *msg, velClient_msgId_t *msgId_p)
{
    bool present = (msg->msgInfo.flags & _VELCLIENT_RX_FLAG_MSG_ID) != 0;
    *msgId_p = present ? msg->msgInfo.msgId : 0;
    return present ? VELCLIENT_OK : VELCLIENT_NOT_FOUND;
}

velClient_returnCode_t _velClient_msg_setTopicSequenceNumber(velClient_opaqueMsg_pt msg_p, velClient_uint64_t seqNum)
{
    _velClient_msg *msg = vel::msgOrFail(msg_p, "Bad msg_p pointer (%p) in velClient_msg_setTopicSequenceNumber");
    if (msg == nullptr)
        return VELCLIENT_FAIL;
    VEL_LOG(VELCLIENT_LOG_DEBUG, "velClient_msg_setTopicSequenceNumber(%p,%lld)", msg_p,
            static_cast<long long>(seqNum));
    msg->topicSeqNo = seqNum;
    msg->msgInfo.flags |= _VELCLIENT_RX_FLAG_TOPIC_SEQ_NUM;
    return VELCLIENT_OK;
}

VEL_RECORD_GETTER(TopicSequenceNumber, velClient_int64_t, seqNum_p, vel::msg::topicSequenceNumber)

velClient_returnCode_t vel::msg::topicSequenceNumber(_velClient_msg *msg, velClient_int64_t *seqNum_p)
{
    return flaggedValue(msg, seqNum_p, _VELCLIENT_RX_FLAG_TOPIC_SEQ_NUM, &_velClient_msg::topicSeqNo);
}

VEL_RECORD_GETTER(CacheRequestId, velClient_uint64_t, cacheRequestId_p, vel::msg::cacheRequestId)

velClient_returnCode_t vel::msg::cacheRequestId(_velClient_msg *msg, velClient_uint64_t *cacheRequestId_p)
{
    return flaggedValue(msg, cacheRequestId_p, _VELCLIENT_RX_FLAG_CACHE_MSG, &_velClient_msg::cacheRequestId);
}

VEL_RECORD_GETTER(RcvTimestamp, velClient_int64_t, timestamp_p, vel::msg::rcvTimestamp)

velClient_returnCode_t vel::msg::rcvTimestamp(_velClient_msg *msg, velClient_int64_t *timestamp_p)
{
    *timestamp_p = static_cast<velClient_int64_t>(msg->msgInfo.rcvTimestamp);
    return msg->msgInfo.rcvTimestamp != 0 ? VELCLIENT_OK : VELCLIENT_NOT_FOUND;
}

namespace {

bool initialisedForCacheStatus()
{
    if (_velClient_isInitialised())
        return true;
    VEL_LOG(VELCLIENT_LOG_WARNING, "velClient_initialize not called before velClient_msg_isCacheMsg");
    return false;
}

} // namespace

extern "C" VELCLIENT_API velClient_cacheStatus_t velClient_msg_isCacheMsg(velClient_opaqueMsg_pt msg_p)
{
    if (!initialisedForCacheStatus())
        return VELCLIENT_CACHE_INVALID_MESSAGE;
    _velClient_msg *msg = vel::msgOrFail(msg_p, "Bad msg_p pointer (%p) in velClient_msg_isRedelivered");
    return msg == nullptr ? VELCLIENT_CACHE_INVALID_MESSAGE : vel::msg::cacheStatus(msg);
}

velClient_cacheStatus_t vel::msg::cacheStatus(const _velClient_msg *msg)
{
    if (!initialisedForCacheStatus())
        return VELCLIENT_CACHE_INVALID_MESSAGE;
    if ((msg->msgInfo.flags & _VELCLIENT_RX_FLAG_CACHE_MSG) == 0)
        return VELCLIENT_CACHE_LIVE_MESSAGE;
    return (msg->msgInfo.flags & _VELCLIENT_RX_FLAG_CACHE_SUSPECT) ? VELCLIENT_CACHE_SUSPECT_MESSAGE
                                                                   : VELCLIENT_CACHE_MESSAGE;
}

extern "C" VELCLIENT_API velClient_bool_t velClient_msg_isRedelivered(velClient_opaqueMsg_pt msg_p)
{
    _velClient_msg *msg = vel::msgOrFail(msg_p, "Bad msg_p pointer (%p) in velClient_msg_isRedelivered");
    return msg != nullptr && vel::msg::isRedelivered(msg) ? 1 : 0;
}

bool vel::msg::isRedelivered(const _velClient_msg *msg)
{
    return (msg->msgInfo.flags & _VELCLIENT_RX_FLAG_REDELIVERED_MASK) != 0;
}

/* ---- Yes/no marks ------------------------------------------------------------------ */
namespace {

struct Mark {
    std::uint32_t bit;
    bool strict;               /* accepts exactly 0 or 1 (low byte); else any non-zero sets */
    vel::HandleFormat badSet;
    vel::Format<int> badValue; /* strict marks only */
    vel::HandleFormat badIs;
    velClient_bool_t badIsResult;
};

constexpr Mark kDeliverToOne{_VELCLIENT_RX_FLAG_DELIVER_TO_ONE, true,
                             "Bad msg_p pointer (%p) in velClient_msg_setDeliverToOne",
                             "Invalid setting of Deliver-To-One (%d) in velClient_msg_setDeliveToOne ",
                             "Bad msg_p pointer (%p) in velClient_msg_isDeliverToOne", 0};
constexpr Mark kDmqEligible{_VELCLIENT_RX_FLAG_DMQ_ELIGIBLE, true,
                            "Bad msg_p pointer (%p) in velClient_msg_setDMQEligible",
                            "Invalid setting of Dead Message Queue Eligible (%d) in velClient_msg_setDMQEligible ",
                            "Bad msg_p pointer (%p) in velClient_msg_setDMQEligible", 0};
constexpr Mark kDiscardIndication{_VELCLIENT_RX_FLAG_DISCARD_INDICATION, true,
                                  "Bad msg_p pointer (%p) in velClient_msg_setDiscardIndication",
                                  "Invalid setting of Discard Indication (%d) in velClient_msg_setDiscardIndication ",
                                  "Bad msg_p pointer (%p) in velClient_msg_isDiscardIndication", 0};
constexpr Mark kElidingEligible{_VELCLIENT_RX_FLAG_ELIDING_ELIGIBLE, false,
                                "Bad msg_p pointer (%p) in velClient_msg_setAsReplyMsg", nullptr,
                                "Bad msg_p pointer (%p) in velClient_msg_isDeliverToOne", 0};
constexpr Mark kAckImmediately{_VELCLIENT_RX_FLAG_ACK_IMMEDIATELY, false,
                               "Bad msg_p pointer (%p) in velClient_msg_setAckImmediately", nullptr,
                               "Bad msg_p pointer (%p) in velClient_msg_isAckImmediately", 0xFF};
constexpr Mark kReplyMsg{_VELCLIENT_RX_FLAG_REPLY_MSG, false, "Bad msg_p pointer (%p) in velClient_msg_setAsReplyMsg",
                         nullptr, "Bad msg_p pointer (%p) in velClient_msg_isReplyMsg", 0};

velClient_returnCode_t setMark(const Mark &m, velClient_opaqueMsg_pt msg_p, velClient_bool_t value)
{
    _velClient_msg *msg = vel::msgOrFail(msg_p, m.badSet);
    if (msg == nullptr)
        return VELCLIENT_FAIL;
    auto low = static_cast<std::uint8_t>(value);
    if (m.strict && low > 1)
        return VEL_FAIL_F(VELCLIENT_SUBCODE_PARAM_OUT_OF_RANGE, VELCLIENT_LOG_WARNING, m.badValue,
                          static_cast<int>(low));
    if (low != 0)
        msg->msgInfo.flags |= m.bit;
    else
        msg->msgInfo.flags &= ~m.bit;
    return VELCLIENT_OK;
}

velClient_bool_t isMark(const Mark &m, velClient_opaqueMsg_pt msg_p)
{
    _velClient_msg *msg = vel::msgOrFail(msg_p, m.badIs);
    if (msg == nullptr)
        return m.badIsResult;
    return (msg->msgInfo.flags & m.bit) != 0 ? 1 : 0;
}

/* The rows in the order of vel::msg::Mark. */
constexpr const Mark *kMarks[] = {&kDeliverToOne,    &kDmqEligible,    &kDiscardIndication,
                                  &kElidingEligible, &kAckImmediately, &kReplyMsg};

} // namespace

bool vel::msg::isMarked(const _velClient_msg *msg, Mark mark)
{
    return (msg->msgInfo.flags & kMarks[static_cast<int>(mark)]->bit) != 0;
}

#define VEL_MARK(SetName, IsName, mark)                                                                              \
    extern "C" VELCLIENT_API velClient_returnCode_t velClient_msg_##SetName(velClient_opaqueMsg_pt msg_p,          \
                                                                           velClient_bool_t value)               \
    {                                                                                                                \
        return setMark(mark, msg_p, value);                                                                          \
    }                                                                                                                \
    extern "C" VELCLIENT_API velClient_bool_t velClient_msg_##IsName(velClient_opaqueMsg_pt msg_p)                 \
    {                                                                                                                \
        return isMark(mark, msg_p);                                                                                  \
    }

VEL_MARK(setDeliverToOne, isDeliverToOne, kDeliverToOne)
VEL_MARK(setDMQEligible, isDMQEligible, kDmqEligible)
VEL_MARK(setDiscardIndication, isDiscardIndication, kDiscardIndication)
VEL_MARK(setElidingEligible, isElidingEligible, kElidingEligible)
VEL_MARK(setAckImmediately, isAckImmediately, kAckImmediately)
VEL_MARK(setAsReplyMsg, isReplyMsg, kReplyMsg)
