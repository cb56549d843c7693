/*
 * fuzz_vwf.cpp - libFuzzer target: arbitrary bytes decoded as a wire frame;
 * an accepted message is read through every getter, dumped, encoded again,
 * and the new encoding must decode.
 */
#include "vwfWalk.h"
#include "fuzzSetup.h"

VELFUZZ_TARGET(velfuzz::walkFrame)
