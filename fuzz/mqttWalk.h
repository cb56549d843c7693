/*
 * mqttWalk.h - what the MQTT fuzz target does with one input, shared with the
 * test that replays the seed corpus. The input is one publish:
 *
 *     name length (1) | topic name | frame length (2, BE) | frame | payload
 *
 * The frame bytes travel base64-encoded in frame properties (none when the
 * frame length is 0: a publish of another client). The publish is decoded;
 * when it is accepted, every part, property and map is read, the message is
 * dumped, prepared for sending as the send path does, encoded again, and
 * the new publish must decode. Returns false when it does not.
 */
#pragma once

#include <mosquitto.h>
#include <mqtt_protocol.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "codecWalk.h"
#include "velClientMqtt/mqttCodec.h"
#include "velClientMqtt/mqttPublish.h"
#include "velClientMsg/message/recordApi.h"

namespace velfuzz {

/* The input that walkMqtt reads as the publish of name, frame and payload. */
inline std::vector<std::uint8_t> mqttInput(const std::string &name, const std::vector<std::uint8_t> &frame,
                                           const std::vector<char> &payload)
{
    std::vector<std::uint8_t> in(1 + name.size());
    in[0] = static_cast<std::uint8_t>(name.size());
    std::copy(name.begin(), name.end(), in.begin() + 1);
    in.push_back(static_cast<std::uint8_t>(frame.size() >> 8));
    in.push_back(static_cast<std::uint8_t>(frame.size()));
    in.insert(in.end(), frame.begin(), frame.end());
    in.insert(in.end(), payload.begin(), payload.end());
    return in;
}

/* Frame properties holding the base64 of n bytes at p. */
inline vel::mqtt::Properties frameProperties(const std::uint8_t *p, std::size_t n)
{
    std::string text;
    vel::mqtt::appendBase64(p, n, text);
    mosquitto_property *list = nullptr;
    for (std::size_t at = 0; at < text.size(); at += vel::mqtt::kFrameChunk)
        mosquitto_property_add_string_pair(&list, MQTT_PROP_USER_PROPERTY, vel::mqtt::kFrameProperty,
                                           text.substr(at, vel::mqtt::kFrameChunk).c_str());
    return vel::mqtt::Properties(list);
}

inline bool walkMqtt(const std::uint8_t *data, std::size_t size)
{
    if (size < 3 || size < 3u + data[0])
        return true;
    const std::string name(reinterpret_cast<const char *>(data + 1), data[0]);
    const std::uint8_t *at = data + 1 + data[0];
    const std::size_t frameSize = std::size_t{at[0]} << 8 | at[1];
    if (frameSize > size - 3 - data[0])
        return true;
    const vel::mqtt::Properties frame = frameProperties(at + 2, frameSize);
    const std::uint8_t *payload = at + 2 + frameSize;
    _velClient_msg *m = nullptr;
    if (vel::mqtt::decode(name, payload, static_cast<std::size_t>(data + size - payload), frame.get(), nullptr, &m) !=
        VELCLIENT_OK)
        return true;
    return walkAccepted(m, [](_velClient_msg *accepted, _velClient_msg **back) {
        std::vector<char> bytes;
        vel::mqtt::Properties properties;
        velClient_destination_t dest{};
        if (vel::mqtt::encode(accepted, bytes, properties) != VELCLIENT_OK ||
            vel::msg::destination(accepted, &dest) != VELCLIENT_OK)
            return true;
        return vel::mqtt::decode(vel::mqtt::topicName(dest.dest), bytes.data(), bytes.size(), properties.get(),
                                 nullptr, back) == VELCLIENT_OK;
    });
}

} // namespace velfuzz
