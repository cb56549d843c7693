/*
 * fuzz_metadata.cpp - libFuzzer target: arbitrary bytes as a message's binary
 * metadata (the header map and user property map of a received message),
 * read through every getter, changed, encoded and decoded again.
 */
#include "metadataWalk.h"
#include "fuzzSetup.h"

VELFUZZ_TARGET(velfuzz::walkMetadata)
