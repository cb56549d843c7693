/*
 * fuzz_container.cpp - libFuzzer target: arbitrary bytes opened as a map and
 * as a stream and walked field by field with every getter and nested
 * sub-containers, changed, and dumped inside a message.
 */
#include "containerWalk.h"
#include "fuzzSetup.h"

VELFUZZ_TARGET([](const std::uint8_t *data, std::size_t size) {
    velfuzz::walkContainer(data, size);
    return true;
})
