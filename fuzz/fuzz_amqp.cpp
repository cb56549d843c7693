/*
 * fuzz_amqp.cpp - libFuzzer target: arbitrary bytes decoded as one AMQP 1.0
 * message; an accepted message is read through every getter, dumped,
 * encoded again, and the new encoding must decode.
 */
#include <cstdlib>

#include "amqpWalk.h"
#include "fuzzSetup.h"

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    velfuzz::startLibrary();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    if (!velfuzz::walkAmqp(data, size))
        std::abort(); /* an accepted message whose encoding does not decode */
    return 0;
}
