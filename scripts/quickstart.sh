#!/usr/bin/env bash
# Sets everything up on a fresh machine, builds the library and runs the
# example program: a message sent on a loopback session, received, read back
# and dumped; its wire bytes are then dumped again by velclient-dump. Only
# those two programs are built (the test suite is left to scripts/test.sh,
# which reuses the same build directory).
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh
cmake --preset default >/dev/null
cmake --build --preset default -j"$(nproc)" --target example_message velclient-dump
./build/default/examples/example_message build/default/message.vwf
./build/default/velclient-dump --sizes build/default/message.vwf
