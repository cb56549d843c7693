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
#include "codecWalk.h"

namespace velfuzz {

inline bool walkAmqp(const std::uint8_t *data, std::size_t size)
{
    const vel::amqp::Addressing rules;
    _velClient_msg *m = nullptr;
    if (vel::amqp::decode(reinterpret_cast<const char *>(data), size, rules, nullptr, &m) != VELCLIENT_OK)
        return true;
    return walkAccepted(m, [&](_velClient_msg *accepted, _velClient_msg **back) {
        std::vector<char> bytes;
        return vel::amqp::encode(accepted, rules, bytes) != VELCLIENT_OK ||
               vel::amqp::decode(bytes.data(), bytes.size(), rules, nullptr, back) == VELCLIENT_OK;
    });
}

} // namespace velfuzz
