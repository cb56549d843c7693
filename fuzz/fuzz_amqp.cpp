/*
 * fuzz_amqp.cpp - libFuzzer target: arbitrary bytes decoded as one AMQP 1.0
 * message; an accepted message is read through every getter, dumped,
 * encoded again, and the new encoding must decode.
 */
#include "amqpWalk.h"
#include "fuzzSetup.h"

VELFUZZ_TARGET(velfuzz::walkAmqp)
