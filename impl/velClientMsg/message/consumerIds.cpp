/*
 * consumerIds.cpp - the consumer ids of a received message: part 2 holds
 * 32-bit ids in network byte order, so the count is the part's length / 4.
 */
#include "velClientMsg/container/tlvCodec.h"
#include "velClientMsg/message/recordApi.h"

namespace {

constexpr std::uint32_t kIdSize = 4;

const velClient_bufInfo_t &idPart(const velClient_bufInfo_t *parts)
{
    return parts[VELCLIENT_BUFINFO_CONSUMER_ID_PART];
}

} // namespace

velClient_returnCode_t vel::msg::consumerIdCount(const velClient_bufInfo_t *parts, velClient_uint32_t *count_p)
{
    if (parts == nullptr || count_p == nullptr)
        return VEL_FAIL_NULL("Null pointer in velClient_bufInfo_getConsumerIdCount");
    const velClient_bufInfo_t &part = idPart(parts);
    *count_p = part.buf_p != nullptr ? part.bufSize / kIdSize : 0;
    return VELCLIENT_OK;
}

velClient_returnCode_t vel::msg::consumerId(const velClient_bufInfo_t *parts, velClient_uint32_t index,
                                            velClient_consumerId_t *id_p)
{
    if (parts == nullptr || id_p == nullptr)
        return VEL_FAIL_NULL("Null pointer in velClient_bufInfo_getConsumerId");
    velClient_uint32_t count = 0;
    consumerIdCount(parts, &count);
    if (index >= count)
        return VEL_FAIL_RANGE("Consumer id index %u out of range of count %u in velClient_bufInfo_getConsumerId", index,
                              count);
    const auto *p = static_cast<const std::uint8_t *>(idPart(parts).buf_p) + std::size_t{index} * kIdSize;
    *id_p = static_cast<velClient_consumerId_t>(vel::tlv::getBE(p, kIdSize));
    return VELCLIENT_OK;
}

extern "C" VELCLIENT_API velClient_returnCode_t velClient_bufInfo_getConsumerIdCount(velClient_bufInfo_pt bufInfo_a,
                                                                                    velClient_uint32_t *count_p)
{
    return vel::msg::consumerIdCount(bufInfo_a, count_p);
}

extern "C" VELCLIENT_API velClient_returnCode_t velClient_bufInfo_getConsumerId(velClient_bufInfo_pt bufInfo_a,
                                                                               velClient_uint32_t index,
                                                                               velClient_consumerId_t *id_p)
{
    return vel::msg::consumerId(bufInfo_a, index, id_p);
}

extern "C" VELCLIENT_API velClient_returnCode_t velClient_msg_getConsumerIdCount(velClient_opaqueMsg_pt msg_p,
                                                                                velClient_uint32_t *consumerIdCount_p)
{
    _velClient_msg *msg = vel::msgOrFail(msg_p, "Bad msg_p pointer (%p) in velClient_msg_getConsumerIdCount");
    return msg == nullptr ? VELCLIENT_FAIL : vel::msg::consumerIdCount(msg->bufInfo_a, consumerIdCount_p);
}

extern "C" VELCLIENT_API velClient_returnCode_t velClient_msg_getConsumerId(velClient_opaqueMsg_pt msg_p,
                                                                           velClient_uint32_t consumerIdIndex,
                                                                           velClient_consumerId_t *consumerId_p)
{
    _velClient_msg *msg = vel::msgOrFail(msg_p, "Bad msg_p pointer (%p) in velClient_msg_getConsumerIdCount");
    return msg == nullptr ? VELCLIENT_FAIL : vel::msg::consumerId(msg->bufInfo_a, consumerIdIndex, consumerId_p);
}
