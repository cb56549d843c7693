#!/bin/sh
# Installs the build tree into a scratch prefix, then builds and runs a small
# consumer project against it: with find_package (C, C++, static C) and with
# pkg-config (C and C++); the installed commands answer --help.
# Usage: consumer_test.sh BUILD_DIR WORK_DIR SOURCE_DIR
set -eu
build=$1
work=$2
src=$3
rm -rf "$work"
mkdir -p "$work"
prefix="$work/prefix"
cmake --install "$build" --prefix "$prefix" >/dev/null
# The commands come with the library and run from the installed tree.
"$prefix/bin/velclient" --help >/dev/null
"$prefix/bin/velclient-dump" --help >/dev/null

cmake -S "$src" -B "$work/cmake" -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build "$work/cmake" >/dev/null
for exe in consumer_c consumer_cpp consumer_c_static; do
    "$work/cmake/$exe"
done

pc=$(find "$prefix" -name velclient.pc)
export PKG_CONFIG_PATH="$(dirname "$pc")"
libdir=$(pkg-config --variable=libdir velclient)
cc -std=c99 -Wall -Werror "$src/consumer.c" $(pkg-config --cflags --libs velclient) -Wl,-rpath,"$libdir" \
    -o "$work/pc_c"
c++ -std=c++17 -Wall -Werror "$src/consumer.cpp" $(pkg-config --cflags --libs velclient) -Wl,-rpath,"$libdir" \
    -o "$work/pc_cpp"
"$work/pc_c"
"$work/pc_cpp"
