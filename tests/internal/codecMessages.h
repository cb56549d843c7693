/* What the AMQP and MQTT codec tests share: each codec's decode behind one interface, the fuzz targets'
 * seeds (messages as a session sends them), and a message's dump without the lines the receive path owns. */
#pragma once

#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/receivedDump.h"
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
