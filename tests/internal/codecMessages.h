/* What the AMQP and MQTT codec tests share: each codec's encode and decode behind one interface, its fuzz
 * target's seeds (messages with every part, header property, mark and field type, as a session sends them)
 * in its wire form, and a message's dump without the lines the receive path owns. */
#pragma once

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "mqttWalk.h"
#include "support/velTestSupport.h"
#include "velClientAmqp/amqpCodec.h"
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

/* The message encoded after the send path's preparation. */
inline Wire amqpEncode(velClient_opaqueMsg_pt m)
{
    Wire w;
    EXPECT_EQ(VELCLIENT_OK, vel::meta::prepareForWire(vel::msgOf(m), false));
    EXPECT_EQ(VELCLIENT_OK, vel::amqp::encode(vel::msgOf(m), {}, w.payload)) << veltest::lastErrorText();
    return w;
}

inline Wire mqttEncode(velClient_opaqueMsg_pt m)
{
    Wire w;
    velClient_destination_t dest{};
    EXPECT_EQ(VELCLIENT_OK, velClient_msg_getDestination(m, &dest, sizeof dest));
    w.name = vel::mqtt::topicName(dest.dest);
    EXPECT_EQ(VELCLIENT_OK, vel::meta::prepareForWire(vel::msgOf(m), false));
    EXPECT_EQ(VELCLIENT_OK, vel::mqtt::encode(vel::msgOf(m), w.payload, w.properties)) << veltest::lastErrorText();
    return w;
}

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

/* The "name=value" user properties of an MQTT property list, in order. */
inline std::vector<std::pair<std::string, std::string>> userProperties(const mosquitto_property *list)
{
    std::vector<std::pair<std::string, std::string>> out;
    for (const mosquitto_property *p = list; p != nullptr; p = mosquitto_property_next(p)) {
        char *name = nullptr, *value = nullptr;
        if (mosquitto_property_read_string_pair(p, MQTT_PROP_USER_PROPERTY, &name, &value, false) == p)
            out.emplace_back(name, value);
        std::free(name);
        std::free(value);
    }
    return out;
}

/* The frame bytes the frame properties carry (none for AMQP). */
inline Bytes frameBytes(const Wire &w)
{
    std::string text;
    for (const auto &[name, value] : userProperties(w.properties.get()))
        text += name == vel::mqtt::kFrameProperty ? value : "";
    std::size_t size = 0;
    EXPECT_TRUE(vel::mqtt::base64Size(text, size));
    Bytes bytes(size);
    EXPECT_TRUE(vel::mqtt::decodeBase64(text, bytes.data()));
    return bytes;
}

/* A seed as the wire form it holds. */
inline Wire amqpWire(const Bytes &seed)
{
    return {"", std::vector<char>(seed.begin(), seed.end()), nullptr};
}

/* name length (1) | topic name | frame length (2, BE) | frame | payload */
inline Wire mqttWire(const Bytes &seed)
{
    const std::size_t n = seed.at(0), frame = std::size_t{seed.at(1 + n)} << 8 | seed.at(2 + n);
    const std::uint8_t *at = seed.data() + 3 + n;
    return {std::string(seed.begin() + 1, seed.begin() + 1 + static_cast<std::ptrdiff_t>(n)),
            std::vector<char>(at + frame, seed.data() + seed.size()), velfuzz::frameProperties(at, frame)};
}

struct Codec {
    const char *name; /* also its folder under fuzz/corpus */
    Wire (*encode)(velClient_opaqueMsg_pt);
    Decode decode;
    Wire (*wire)(const Bytes &);
    const char *otherSeed; /* the one seed that is not the codec's own encoding */
};

inline const Codec kAmqp{"amqp", amqpEncode, amqpDecode, amqpWire, "empty_map_entries"};
inline const Codec kMqtt{"mqtt", mqttEncode, mqttDecode, mqttWire, "foreign_payload"};

/* The codec's seed of the given name. */
inline Bytes seedBytes(const Codec &codec, const std::string &name)
{
    std::ifstream in(std::string(VELCLIENT_SOURCE_DIR "/fuzz/corpus/").append(codec.name).append("/").append(name),
                     std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(in), {});
}

/* The full dump without the lines the receive path owns. */
inline std::string dumpOf(velClient_opaqueMsg_pt m)
{
    std::vector<char> buf(1 << 20);
    EXPECT_EQ(VELCLIENT_OK, velClient_msg_dump(m, buf.data(), buf.size()));
    std::string out, line;
    std::istringstream all(buf.data());
    while (std::getline(all, line))
        if (line.rfind("RcvTimestamp:", 0) != 0 && line.rfind("Message Id:", 0) != 0)
            out.append(line).append("\n");
    return out;
}

/* decode's answer for damaged bytes: a message exactly when accepted, which dumps; nothing kept. */
inline velClient_returnCode_t answer(Decode decode, const Wire &w)
{
    _velClient_msg *m = nullptr;
    const velClient_returnCode_t rc = decode(w, &m);
    EXPECT_EQ(rc == VELCLIENT_OK, m != nullptr);
    Msg owned(m != nullptr ? m->opaqueMsg_p : nullptr);
    if (owned.h != nullptr)
        dumpOf(owned.h);
    return rc;
}

} // namespace codectest
