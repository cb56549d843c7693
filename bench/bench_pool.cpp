/*
 * bench_pool.cpp - the pool's hot paths beside the system allocator, in the
 * same binary and run: message alloc+free against malloc+memset+free of the
 * record, data-block alloc+free against malloc+free of the same size, and
 * message dup+free; each on one thread and on two.
 */
#include <cstdlib>
#include <cstring>

#include "benchMain.h"

#include "velClientMsg/velClientMsgPrivate.h"
#include "velclient/velClientMsg.h"

namespace {

void MsgAllocFree(benchmark::State &state)
{
    for (auto _ : state) {
        velClient_opaqueMsg_pt m = nullptr;
        velClient_msg_alloc(&m);
        benchmark::DoNotOptimize(m);
        velClient_msg_free(&m);
    }
}

void MallocMemsetFreeOfARecord(benchmark::State &state)
{
    for (auto _ : state) {
        void *p = std::malloc(sizeof(_velClient_msg));
        std::memset(p, 0, sizeof(_velClient_msg));
        benchmark::DoNotOptimize(p);
        std::free(p);
    }
}

void BlockAllocFree(benchmark::State &state)
{
    auto size = static_cast<velClient_uint32_t>(state.range(0));
    for (auto _ : state) {
        velClient_opaqueDatablock_pt b = nullptr;
        velClient_datablock_alloc(&b, size);
        benchmark::DoNotOptimize(b);
        velClient_datablock_free(&b);
    }
}

void MallocFree(benchmark::State &state)
{
    auto size = static_cast<std::size_t>(state.range(0));
    for (auto _ : state) {
        void *p = std::malloc(size);
        benchmark::DoNotOptimize(p);
        std::free(p);
    }
}

void MsgDupFree(benchmark::State &state)
{
    velClient_opaqueMsg_pt m = nullptr;
    velClient_msg_alloc(&m);
    velClient_msg_setUserData(m, "0123456789", 10);
    for (auto _ : state) {
        velClient_opaqueMsg_pt d = nullptr;
        velClient_msg_dup(m, &d);
        benchmark::DoNotOptimize(d);
        velClient_msg_free(&d);
    }
    velClient_msg_free(&m);
}

} // namespace

BENCHMARK(MsgAllocFree)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(MallocMemsetFreeOfARecord)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(BlockAllocFree)->Arg(100)->Arg(100000)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(MallocFree)->Arg(100)->Arg(100000)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(MsgDupFree)->Threads(1)->Threads(2)->UseRealTime();

VEL_BENCHMARK_MAIN()
