/*
 * bench_container.cpp - building and reading structured data: a map of 16
 * mixed fields (4 int32, 4 int64, 4 strings of 16 characters, 2 doubles,
 * 2 booleans; names field00..field15) in application memory and in a
 * message's binary attachment, one of 256 fields, lookups and iteration.
 * Rates are fields (or reads) per second.
 */
#include <cstdio>
#include <vector>

#include "benchMain.h"

#include "velclient/velClientMsg.h"

namespace {

const char *const kString = "abcdefghijklmnop";

struct Names {
    std::vector<std::string> names;
    explicit Names(int n)
    {
        char buf[16];
        for (int i = 0; i < n; ++i) {
            std::snprintf(buf, sizeof buf, "field%02d", i);
            names.emplace_back(buf);
        }
    }
};

const Names kNames16(16), kNames256(256);

/* The 16-field pattern, repeated for larger maps. */
void fill(velClient_opaqueContainer_pt map, const Names &n)
{
    for (std::size_t i = 0; i < n.names.size(); ++i) {
        const char *name = n.names[i].c_str();
        switch (i % 16) {
        case 0: case 1: case 2: case 3: velClient_container_addInt32(map, static_cast<int>(i), name); break;
        case 4: case 5: case 6: case 7: velClient_container_addInt64(map, static_cast<long long>(i) << 33, name); break;
        case 8: case 9: case 10: case 11: velClient_container_addString(map, kString, name); break;
        case 12: case 13: velClient_container_addDouble(map, 1.5 * static_cast<double>(i), name); break;
        default: velClient_container_addBoolean(map, i & 1, name); break;
        }
    }
}

/* The 16-field map in application memory that the read benchmarks use. */
struct FilledMap {
    std::vector<char> mem = std::vector<char>(4096);
    velClient_opaqueContainer_pt map = nullptr;
    FilledMap()
    {
        velClient_container_createMap(&map, mem.data(), mem.size());
        fill(map, kNames16);
    }
    ~FilledMap() { velClient_container_closeMapStream(&map); }
};

void BuildInMemory(benchmark::State &state)
{
    const Names &n = state.range(0) == 16 ? kNames16 : kNames256;
    std::vector<char> mem(16384);
    for (auto _ : state) {
        velClient_opaqueContainer_pt map = nullptr;
        velClient_container_createMap(&map, mem.data(), mem.size());
        fill(map, n);
        velClient_container_closeMapStream(&map);
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

void BuildInMessage(benchmark::State &state)
{
    const Names &n = state.range(0) == 16 ? kNames16 : kNames256;
    velClient_opaqueMsg_pt m = nullptr;
    velClient_msg_alloc(&m);
    for (auto _ : state) {
        velClient_opaqueContainer_pt map = nullptr;
        velClient_msg_createBinaryAttachmentMap(m, &map, 256);
        fill(map, n);
        velClient_container_closeMapStream(&map);
    }
    velClient_msg_free(&m);
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

/* Look up 4 names, then iterate all 16 fields once: 20 reads. */
void ReadLookupAndIterate(benchmark::State &state)
{
    FilledMap filled;
    velClient_opaqueContainer_pt map = filled.map;
    for (auto _ : state) {
        velClient_int32_t i32;
        velClient_int64_t i64;
        const char *s;
        double d;
        velClient_container_getInt32(map, &i32, "field02");
        velClient_container_getInt64(map, &i64, "field05");
        velClient_container_getStringPtr(map, &s, "field09");
        velClient_container_getDouble(map, &d, "field13");
        velClient_container_rewind(map);
        velClient_field_t f;
        const char *name;
        while (velClient_container_getNextField(map, &f, sizeof f, &name) == VELCLIENT_OK)
            benchmark::DoNotOptimize(f);
        benchmark::DoNotOptimize(i32 + i64 + d);
        benchmark::DoNotOptimize(s);
    }
    state.SetItemsProcessed(state.iterations() * 20);
}

void ReadOneValueByName(benchmark::State &state)
{
    FilledMap filled;
    for (auto _ : state) {
        velClient_int32_t v;
        velClient_container_getInt32(filled.map, &v, "field03");
        benchmark::DoNotOptimize(v);
    }
    state.SetItemsProcessed(state.iterations());
}

} // namespace

BENCHMARK(BuildInMemory)->Arg(16)->Arg(256);
BENCHMARK(BuildInMessage)->Arg(16)->Arg(256);
BENCHMARK(ReadLookupAndIterate);
BENCHMARK(ReadOneValueByName);

VEL_BENCHMARK_MAIN()
