/*
 * fuzz_metadata.cpp - libFuzzer target: arbitrary bytes as a message's binary
 * metadata (the header map and user property map of a received message),
 * read through every getter, changed, encoded and decoded again.
 */
#include <cstdlib>

#include "metadataWalk.h"
#include "fuzzSetup.h"

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    velfuzz::startLibrary();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    if (!velfuzz::walkMetadata(data, size))
        std::abort(); /* a message that encoded into bytes that do not decode */
    return 0;
}
