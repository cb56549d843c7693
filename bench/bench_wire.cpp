/*
 * bench_wire.cpp - a message (20-character topic, 4 user properties,
 * 1024-byte attachment) encoded to wire bytes and decoded back, beside a
 * memcpy of the encoded size. Encoding changes the message each time (one
 * user-data byte is set by copy through a new block) so that the cached
 * image is not simply handed out again.
 */
#include <cstring>
#include <vector>

#include "benchMain.h"
#include "wireMessage.h"

#include "velclient/velClientMsg.h"

namespace {

void Encode(benchmark::State &state)
{
    velClient_opaqueMsg_pt m = velbench::makeWireMessage();
    std::uint8_t toggle = 0;
    for (auto _ : state) {
        velClient_msg_setXmlPtr(m, &toggle, 1); /* marks the message changed */
        velClient_bufInfo_t info;
        velClient_opaqueDatablock_pt b = nullptr;
        velClient_msg_encodeToVWF(m, &info, &b);
        benchmark::DoNotOptimize(info.buf_p);
        velClient_datablock_free(&b);
    }
    velClient_msg_free(&m);
}

/* The wire message encoded once, freed when it goes. */
struct EncodedMessage {
    velClient_opaqueMsg_pt m = velbench::makeWireMessage();
    velClient_bufInfo_t info{};
    velClient_opaqueDatablock_pt b = nullptr;
    EncodedMessage() { velClient_msg_encodeToVWF(m, &info, &b); }
    ~EncodedMessage()
    {
        velClient_datablock_free(&b);
        velClient_msg_free(&m);
    }
};

void DecodeAndReadOneProperty(benchmark::State &state)
{
    EncodedMessage e;
    velClient_int32_t got = 0;
    for (auto _ : state)
        got += velbench::decodeAndReadP1(&e.info);
    if (got != static_cast<velClient_int32_t>(state.iterations()))
        state.SkipWithError("property p1 was not read back");
    state.counters["bytes"] = e.info.bufSize;
}

void MemcpyOfTheEncodedSize(benchmark::State &state)
{
    EncodedMessage e;
    std::vector<std::uint8_t> out(e.info.bufSize);
    for (auto _ : state) {
        std::memcpy(out.data(), e.info.buf_p, e.info.bufSize);
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
}

} // namespace

BENCHMARK(Encode);
BENCHMARK(DecodeAndReadOneProperty);
BENCHMARK(MemcpyOfTheEncodedSize);

VEL_BENCHMARK_MAIN()
