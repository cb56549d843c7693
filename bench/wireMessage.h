/* The message the wire benchmarks encode and decode: a 20-character topic,
 * 4 user properties and a 1024-byte attachment (1147 bytes on the wire). */
#pragma once

#include <cstdint>
#include <vector>

#include "velclient/velClientMsg.h"

namespace velbench {

inline constexpr const char *kWireTopic = "orders/eu/widgets/01";
inline constexpr velClient_uint32_t kWireAttachmentSize = 1024;

inline velClient_opaqueMsg_pt makeWireMessage()
{
    static const std::vector<std::uint8_t> attachment(kWireAttachmentSize, 0x5A);
    velClient_opaqueMsg_pt m = nullptr;
    velClient_msg_alloc(&m);
    velClient_msg_setTopicPtr(m, kWireTopic);
    velClient_opaqueContainer_pt props = nullptr;
    velClient_msg_createUserPropertyMap(m, &props, 128);
    velClient_container_addInt32(props, 1, "p1");
    velClient_container_addInt64(props, 2, "p2");
    velClient_container_addString(props, "value", "p3");
    velClient_container_addBoolean(props, 1, "p4");
    velClient_container_closeMapStream(&props);
    velClient_msg_setBinaryAttachment(m, attachment.data(), kWireAttachmentSize);
    return m;
}

/* Decodes the wire bytes, reads property p1 and frees the message: what a
 * receiver does with the message above. Returns p1. */
inline velClient_int32_t decodeAndReadP1(velClient_bufInfo_t *wire)
{
    velClient_opaqueMsg_pt r = nullptr;
    velClient_msg_decodeFromVwf(wire, &r);
    velClient_opaqueContainer_pt props = nullptr;
    velClient_int32_t v = 0;
    velClient_msg_getUserPropertyMap(r, &props);
    velClient_container_getInt32(props, &v, "p1");
    velClient_msg_free(&r);
    return v;
}

} // namespace velbench
