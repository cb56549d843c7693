#!/bin/sh
# Builds and runs the consumer project with the velclient source tree taken in
# through add_subdirectory, the way a parent project or FetchContent does,
# with GoogleTest and Google Benchmark made unfindable: velclient must need
# neither and register no test of its own. Usage:
# subdirectory_test.sh VELCLIENT_SOURCE_DIR WORK_DIR CONSUMER_SOURCE_DIR
set -eu
velclient=$1
work=$2
src=$3
rm -rf "$work"
cmake -S "$src" -B "$work" --no-warn-unused-cli -DVELCLIENT_SUBDIRECTORY="$velclient" \
    -DCMAKE_DISABLE_FIND_PACKAGE_GTest=ON -DCMAKE_DISABLE_FIND_PACKAGE_benchmark=ON >/dev/null
cmake --build "$work" -j2 >/dev/null
for exe in consumer_c consumer_cpp consumer_c_static; do
    "$work/$exe"
done
tests=$(ctest --test-dir "$work" -N | sed -n 's/^Total Tests: //p')
if [ "$tests" != 0 ]; then
    echo "velclient as a subdirectory registered $tests tests"
    exit 1
fi
