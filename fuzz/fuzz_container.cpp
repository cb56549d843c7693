/*
 * fuzz_container.cpp - libFuzzer target: arbitrary bytes opened as a map and
 * as a stream and walked field by field with every getter and nested
 * sub-containers, changed, and dumped inside a message.
 */
#include "containerWalk.h"
#include "fuzzSetup.h"

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    velfuzz::startLibrary();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    velfuzz::walkContainer(data, size);
    return 0;
}
