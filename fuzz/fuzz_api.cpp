/*
 * fuzz_api.cpp - libFuzzer target: the input is a program of public API calls
 * (api_walk.h) that builds, grows, closes, deletes from, duplicates, encodes,
 * sends and frees messages and containers. The library runs with tiny data
 * block classes and no pooling, so that every growth takes a fresh block and
 * any use of the old bytes is a use after free.
 */
#include "api_walk.h"

/* VELFUZZ_DEFAULT_CLASSES set: the default classes and pool instead, to see whether a finding needs the
 * tiny ones. */
extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    bool defaults = std::getenv("VELFUZZ_DEFAULT_CLASSES") != nullptr;
    velClient_initialize(VELCLIENT_LOG_EMERGENCY, defaults ? nullptr : velfuzz::tinyClasses);
    velClient_log_setFilterLevel(VELCLIENT_LOG_CATEGORY_ALL, VELCLIENT_LOG_EMERGENCY);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    if (!velfuzz::runProgram(data, size))
        __builtin_trap();
    return 0;
}
