/*
 * fuzz_vwf.cpp - libFuzzer target: arbitrary bytes decoded as a wire frame;
 * an accepted message is read through every getter, dumped, encoded again,
 * and the new encoding must decode.
 */
#include <cstdlib>

#include "vwfWalk.h"
#include "fuzzSetup.h"

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    velfuzz::startLibrary();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    if (!velfuzz::walkFrame(data, size))
        std::abort(); /* an accepted message whose encoding does not decode */
    return 0;
}
