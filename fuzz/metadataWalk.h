/*
 * metadataWalk.h - what the metadata fuzz target does with one input, shared
 * with the test that replays its seed corpus: a message whose binary metadata
 * part holds the input, as a received message would; every header-map and
 * user-property getter reads it, a header property and a user property are
 * changed on top of it, and a message that encodes must decode again.
 * Returns false when such an encoding does not decode.
 */
#pragma once

#include <cstddef>
#include <cstdint>

#include "velClientHandle/handleTable.h"
#include "velClientMsg/velClientMsgPrivate.h"
#include "vwfWalk.h"

namespace velfuzz {

inline void readHeaderMap(velClient_opaqueMsg_pt m)
{
    const char *s = nullptr;
    velClient_int64_t v = 0;
    velClient_destination_t d;
    velClient_msg_getSenderId(m, &s);
    velClient_msg_getApplicationMsgType(m, &s);
    velClient_msg_getApplicationMessageId(m, &s);
    velClient_msg_getCorrelationId(m, &s);
    velClient_msg_getHttpContentType(m, &s);
    velClient_msg_getHttpContentEncoding(m, &s);
    velClient_msg_getSequenceNumber(m, &v);
    velClient_msg_getSenderTimestamp(m, &v);
    velClient_msg_getExpiration(m, &v);
    velClient_msg_getReplyTo(m, &d, sizeof d);
    velClient_msg_isReplyMsg(m);
}

inline bool walkMetadata(const std::uint8_t *data, std::size_t size)
{
    if (size == 0 || size > 0xFFFFFFFFu)
        return true;
    velClient_opaqueMsg_pt m = nullptr;
    if (velClient_msg_alloc(&m) != VELCLIENT_OK)
        return true;
    auto *msg = vel::resolve<_velClient_msg>(m, _MSG_PTR_TYPE);
    bool ok = true;
    if (_velClient_msg_setBufinfo(msg, _VELCLIENT_BUFINFO_BINARY_META_PART, data,
                                  static_cast<std::uint32_t>(size), 0) == VELCLIENT_OK) {
        readHeaderMap(m);
        readEverything(m);
        velClient_msg_setSenderId(m, "fuzz");
        velClient_opaqueContainer_pt props = nullptr;
        if (velClient_msg_getUserPropertyMap(m, &props) == VELCLIENT_OK) {
            velClient_container_addInt32(props, 1, "added");
            velClient_container_closeMapStream(&props);
        }
        readHeaderMap(m);
        velClient_bufInfo_t wire{};
        velClient_opaqueDatablock_pt block = nullptr;
        if (velClient_msg_encodeToVWF(m, &wire, &block) == VELCLIENT_OK) {
            velClient_opaqueMsg_pt back = nullptr;
            ok = velClient_msg_decodeFromVwf(&wire, &back) == VELCLIENT_OK;
            if (ok)
                readHeaderMap(back);
            velClient_msg_free(&back);
            velClient_datablock_free(&block);
        }
    }
    velClient_msg_free(&m);
    return ok;
}

} // namespace velfuzz
