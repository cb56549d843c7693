#!/usr/bin/env bash
# Runs the whole test suite of the plain build under valgrind's memcheck:
# both test programs, the examples and the dump tool on the example's
# output. Fails on any memory error or definite leak.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh valgrind
cmake --preset default >/dev/null
cmake --build --preset default -j"$(nproc)"
vg=(valgrind --quiet --error-exitcode=1 --leak-check=full --errors-for-leak-kinds=definite
    --show-leak-kinds=definite)
b=build/default
"${vg[@]}" "$b/tests/velclient_tests"
"${vg[@]}" "$b/tests/velclient_internal_tests"
"${vg[@]}" "$b/examples/example_message" "$b/valgrind-message.vwf" >/dev/null
"${vg[@]}" "$b/examples/example_message_cpp" "$b/valgrind-message-cpp.vwf" >/dev/null
"${vg[@]}" "$b/examples/example_pool" >/dev/null
"${vg[@]}" "$b/velclient-dump" "$b/valgrind-message.vwf" >/dev/null
echo "memcheck: no errors, no definite leaks"
