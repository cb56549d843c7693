/*
 * amqpWalk.h - what the AMQP fuzz target does with one input, shared with the
 * test that replays the seed corpus: decode it as one AMQP 1.0 message; when
 * it is accepted, read every part, property and map, dump it, prepare it for
 * sending as the send path does, encode it again and check that the new
 * encoding decodes. Returns false when an accepted message could not be
 * encoded back into bytes that decode.
 */
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "velClientAmqp/amqpCodec.h"
#include "velClientMsg/header/headerMaps.h"
#include "vwfWalk.h"

namespace velfuzz {

inline bool walkAmqp(const std::uint8_t *data, std::size_t size)
{
    const vel::amqp::Addressing rules;
    _velClient_msg *m = nullptr;
    if (vel::amqp::decode(reinterpret_cast<const char *>(data), size, rules, nullptr, &m) != VELCLIENT_OK)
        return true;
    velClient_opaqueMsg_pt h = m->opaqueMsg_p;
    readEverything(h);
    bool ok = true;
    std::vector<char> bytes;
    if (vel::meta::prepareForWire(m, false) == VELCLIENT_OK && vel::amqp::encode(m, rules, bytes) == VELCLIENT_OK) {
        _velClient_msg *again = nullptr;
        ok = vel::amqp::decode(bytes.data(), bytes.size(), rules, nullptr, &again) == VELCLIENT_OK;
        if (again != nullptr) {
            velClient_opaqueMsg_pt a = again->opaqueMsg_p;
            velClient_msg_free(&a);
        }
    }
    velClient_msg_free(&h);
    return ok;
}

} // namespace velfuzz
