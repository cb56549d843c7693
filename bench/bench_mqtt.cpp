/*
 * bench_mqtt.cpp - the wire benchmarks' message (20-character topic, 4 user
 * properties, 1024-byte attachment) as an MQTT 5 publish and back: encode
 * (payload, standard properties and the base64 frame property), and decode
 * with one user property read; bench_wire does the same with the wire
 * format alone.
 */
#include <vector>

#include "benchMain.h"
#include "wireMessage.h"

#include "velClientMqtt/mqttCodec.h"
#include "velClientMsg/header/headerMaps.h"
#include "velClientMsg/velClientMsgPrivate.h"

namespace {

/* The wire message prepared as the send path prepares it, and its publish. */
struct Publish {
    velClient_opaqueMsg_pt m = velbench::makeWireMessage();
    std::vector<char> payload;
    vel::mqtt::Properties properties;
    Publish()
    {
        vel::meta::prepareForWire(vel::msgOf(m), false);
        vel::mqtt::encode(vel::msgOf(m), payload, properties);
    }
    ~Publish() { velClient_msg_free(&m); }
};

void EncodeMqtt(benchmark::State &state)
{
    Publish p;
    for (auto _ : state) {
        vel::mqtt::encode(vel::msgOf(p.m), p.payload, p.properties);
        benchmark::DoNotOptimize(p.properties.get());
    }
}

void DecodeMqttAndReadOneProperty(benchmark::State &state)
{
    Publish p;
    velClient_int32_t got = 0;
    for (auto _ : state) {
        _velClient_msg *r = nullptr;
        vel::mqtt::decode(velbench::kWireTopic, p.payload.data(), p.payload.size(), p.properties.get(), nullptr, &r);
        velClient_opaqueMsg_pt h = r->opaqueMsg_p;
        velClient_opaqueContainer_pt props = nullptr;
        velClient_int32_t v = 0;
        velClient_msg_getUserPropertyMap(h, &props);
        velClient_container_getInt32(props, &v, "p1");
        got += v;
        velClient_msg_free(&h);
    }
    if (got != static_cast<velClient_int32_t>(state.iterations()))
        state.SkipWithError("property p1 was not read back");
}

} // namespace

BENCHMARK(EncodeMqtt);
BENCHMARK(DecodeMqttAndReadOneProperty);

VEL_BENCHMARK_MAIN()
