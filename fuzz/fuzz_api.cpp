/*
 * fuzz_api.cpp - libFuzzer target: the input is a program of public API calls
 * (apiWalk.h) that builds, grows, closes, deletes from, duplicates, encodes,
 * sends and frees messages and containers. The library runs with tiny data
 * block classes and no pooling, so that every growth takes a fresh block and
 * any use of the old bytes is a use after free.
 */
#include "apiWalk.h"
#include "fuzzSetup.h"

VELFUZZ_TARGET(velfuzz::runProgram)
