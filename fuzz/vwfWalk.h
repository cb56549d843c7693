/*
 * vwfWalk.h - what the wire fuzz target does with one input, shared with the
 * test that replays the seed corpus: decode it; when it is accepted, read
 * every part, header property and map, dump it, then encode it again and
 * check that the encoding decodes. Returns false when an accepted message
 * could not be encoded back into bytes that decode.
 */
#pragma once

#include <cstddef>
#include <cstdint>

#include "velclient/velClientMsg.h"

namespace velfuzz {

inline void walkContainer(velClient_opaqueContainer_pt c, int depth)
{
    velClient_field_t f;
    const char *name = nullptr;
    while (depth < 8 && velClient_container_getNextField(c, &f, sizeof f, &name) == VELCLIENT_OK) {
        if (f.type == VELCLIENT_MAP || f.type == VELCLIENT_STREAM) {
            walkContainer(f.value.map, depth + 1);
            velClient_container_closeMapStream(&f.value.map);
        }
    }
}

inline void readEverything(velClient_opaqueMsg_pt m)
{
    void *p = nullptr;
    velClient_uint32_t len = 0;
    const char *s = nullptr;
    velClient_int64_t v = 0;
    velClient_uint32_t u = 0;
    velClient_destination_t d;
    velClient_msg_getBinaryAttachmentPtr(m, &p, &len);
    velClient_msg_getUserDataPtr(m, &p, &len);
    velClient_msg_getXmlPtr(m, &p, &len);
    velClient_msg_getCorrelationTagPtr(m, &p, &len);
    velClient_msg_getDestination(m, &d, sizeof d);
    velClient_msg_getReplyTo(m, &d, sizeof d);
    velClient_msg_getSenderId(m, &s);
    velClient_msg_getApplicationMsgType(m, &s);
    velClient_msg_getApplicationMessageId(m, &s);
    velClient_msg_getCorrelationId(m, &s);
    velClient_msg_getHttpContentType(m, &s);
    velClient_msg_getSequenceNumber(m, &v);
    velClient_msg_getSenderTimestamp(m, &v);
    velClient_msg_getExpiration(m, &v);
    velClient_msg_getTimeToLive(m, &v);
    velClient_msg_getClassOfService(m, &u);
    velClient_msg_getConsumerIdCount(m, &u);
    velClient_msg_getBinaryAttachmentString(m, &s);
    velClient_opaqueContainer_pt c = nullptr;
    if (velClient_msg_getUserPropertyMap(m, &c) == VELCLIENT_OK) {
        walkContainer(c, 0);
        velClient_container_closeMapStream(&c);
    }
    if (velClient_msg_getBinaryAttachmentMap(m, &c) == VELCLIENT_OK ||
        velClient_msg_getBinaryAttachmentStream(m, &c) == VELCLIENT_OK) {
        walkContainer(c, 0);
        velClient_container_closeMapStream(&c);
    }
    static char text[4096];
    velClient_msg_dumpExt(m, text, sizeof text, VELCLIENT_MSGDUMP_FULL);
}

inline bool walkFrame(const std::uint8_t *data, std::size_t size)
{
    if (size == 0 || size > 0xFFFFFFFFu)
        return true;
    velClient_bufInfo_t in{const_cast<std::uint8_t *>(data), static_cast<velClient_uint32_t>(size)};
    velClient_opaqueMsg_pt m = nullptr;
    if (velClient_msg_decodeFromVwf(&in, &m) != VELCLIENT_OK)
        return true;
    readEverything(m);
    bool ok = true;
    velClient_bufInfo_t out{};
    velClient_opaqueDatablock_pt block = nullptr;
    if (velClient_msg_encodeToVWF(m, &out, &block) == VELCLIENT_OK) {
        velClient_opaqueMsg_pt again = nullptr;
        ok = out.bufSize == 0 || velClient_msg_decodeFromVwf(&out, &again) == VELCLIENT_OK;
        if (again != nullptr)
            velClient_msg_free(&again);
        velClient_datablock_free(&block);
    }
    velClient_msg_free(&m);
    return ok;
}

} // namespace velfuzz
