/* What the AMQP and MQTT codec tests share: each codec's decode behind one interface, the fuzz targets'
 * seeds (messages as a session sends them), and a message's dump without the lines the receive path owns. */
#pragma once

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "mqttWalk.h"
#include "support/velTestSupport.h"
#include "velClientAmqp/amqpCodec.h"
#include "velClientMqtt/mqttCodec.h"
#include "velClientMsg/velClientMsgPrivate.h"

namespace codectest {

using veltest::Bytes;
using veltest::Msg;

/* A message on the wire: an AMQP encoding is the payload alone; an MQTT publish has a topic name, a payload
 * and properties (the frame among them). */
struct Wire {
    std::string name;
    std::vector<char> payload;
    vel::mqtt::Properties properties;
};

inline velClient_returnCode_t amqpDecode(const Wire &w, _velClient_msg **m)
{
    return vel::amqp::decode(w.payload.data(), w.payload.size(), {}, nullptr, m);
}

inline velClient_returnCode_t mqttDecode(const Wire &w, _velClient_msg **m)
{
    return vel::mqtt::decode(w.name, w.payload.data(), w.payload.size(), w.properties.get(), nullptr, m);
}

using Decode = decltype(&amqpDecode);

/* The decoded message (owned by the caller), nullptr when refused. */
inline velClient_opaqueMsg_pt decoded(Decode decode, const Wire &w)
{
    _velClient_msg *m = nullptr;
    EXPECT_EQ(VELCLIENT_OK, decode(w, &m)) << veltest::lastErrorText();
    return m != nullptr ? m->opaqueMsg_p : nullptr;
}

/* The seed of the given name in the fuzz corpus folder of a codec ("amqp" or "mqtt"). */
inline Bytes seedBytes(const std::string &codec, const std::string &name)
{
    std::ifstream in(std::string(VELCLIENT_SOURCE_DIR "/fuzz/corpus/").append(codec).append("/").append(name),
                     std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(in), {});
}

using veltest::dumpWithoutReceiveLines;

/* A seed as its fuzz target reads it: an AMQP payload, or an MQTT publish as
 * name length (1) | topic name | frame length (2, BE) | frame | payload. */
inline Wire amqpWire(const Bytes &seed)
{
    return {"", std::vector<char>(seed.begin(), seed.end()), nullptr};
}

inline Wire mqttWire(const Bytes &seed)
{
    const std::size_t n = seed.at(0), frame = std::size_t{seed.at(1 + n)} << 8 | seed.at(2 + n);
    const std::uint8_t *at = seed.data() + 3 + n;
    return {std::string(seed.begin() + 1, seed.begin() + 1 + static_cast<std::ptrdiff_t>(n)),
            std::vector<char>(at + frame, seed.data() + seed.size()), velfuzz::frameProperties(at, frame)};
}

/* The message encoded after the send path's preparation, as a session sends it. */
inline Wire amqpEncode(_velClient_msg *m)
{
    Wire w;
    EXPECT_EQ(VELCLIENT_OK, vel::meta::prepareForWire(m, false));
    EXPECT_EQ(VELCLIENT_OK, vel::amqp::encode(m, {}, w.payload)) << veltest::lastErrorText();
    return w;
}

inline Wire mqttEncode(_velClient_msg *m)
{
    Wire w;
    velClient_destination_t dest{};
    EXPECT_EQ(VELCLIENT_OK, vel::msg::destination(m, &dest));
    w.name = vel::mqtt::topicName(dest.dest);
    EXPECT_EQ(VELCLIENT_OK, vel::meta::prepareForWire(m, false));
    EXPECT_EQ(VELCLIENT_OK, vel::mqtt::encode(m, w.payload, w.properties)) << veltest::lastErrorText();
    return w;
}

/* The frame a publish carries in its user properties, as text (none for AMQP). */
inline std::string frameText(const Wire &w)
{
    std::string text;
    for (const mosquitto_property *p = w.properties.get(); p != nullptr; p = mosquitto_property_next(p)) {
        char *name = nullptr, *value = nullptr;
        if (mosquitto_property_read_string_pair(p, MQTT_PROP_USER_PROPERTY, &name, &value, false) == p &&
            vel::mqtt::kFrameProperty == std::string(name))
            text += value;
        std::free(name);
        std::free(value);
    }
    return text;
}

struct Codec {
    const char *name; /* also its folder under fuzz/corpus */
    Decode decode;
    Wire (*wire)(const Bytes &);
    Wire (*encode)(_velClient_msg *);
    const char *otherSeed; /* the one seed that is not the codec's own encoding */
};

inline const Codec kAmqp{"amqp", amqpDecode, amqpWire, amqpEncode, "empty_map_entries"};
inline const Codec kMqtt{"mqtt", mqttDecode, mqttWire, mqttEncode, "foreign_payload"};

/* decode's answer for damaged bytes: a message exactly when accepted, which dumps; nothing kept. */
inline velClient_returnCode_t answer(Decode decode, const Wire &w)
{
    _velClient_msg *m = nullptr;
    const velClient_returnCode_t rc = decode(w, &m);
    EXPECT_EQ(rc == VELCLIENT_OK, m != nullptr);
    Msg owned(m != nullptr ? m->opaqueMsg_p : nullptr);
    if (owned.h != nullptr)
        dumpWithoutReceiveLines(owned.h);
    return rc;
}

} // namespace codectest
