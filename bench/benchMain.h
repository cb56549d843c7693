/* The main() every benchmark program shares: the library is started before
 * the benchmarks run and stopped after. */
#pragma once

#include <benchmark/benchmark.h>

#include "velclient/velClient.h"

#define VEL_BENCHMARK_MAIN()                                                                                      \
    int main(int argc, char **argv)                                                                              \
    {                                                                                                            \
        velClient_initialize(VELCLIENT_LOG_ERROR, nullptr);                                                      \
        benchmark::Initialize(&argc, argv);                                                                      \
        benchmark::RunSpecifiedBenchmarks();                                                                     \
        benchmark::Shutdown();                                                                                   \
        velClient_cleanup();                                                                                     \
        return 0;                                                                                                \
    }
