/*
 * fuzz_api.cpp - libFuzzer target: the input is a program of public API calls
 * (apiWalk.h) that builds, grows, closes, deletes from, duplicates, encodes,
 * sends and frees messages and containers. The library runs with tiny data
 * block classes and no pooling, so that every growth takes a fresh block and
 * any use of the old bytes is a use after free.
 */
#include "apiWalk.h"
#include "fuzzSetup.h"

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    velfuzz::startLibrary();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    if (!velfuzz::runProgram(data, size))
        __builtin_trap();
    return 0;
}
