#!/bin/sh
# Compares the shared library's exported symbols with the functions the
# public headers declare. Usage: check_exports.sh LIBRARY INCLUDE_DIR
set -eu
lib=$1
inc=$2
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
nm -D --defined-only "$lib" | awk '{print $3}' | sort -u >"$tmp/exported"
grep -h 'VELCLIENT_API' "$inc"/*.h | grep -o 'velClient_[A-Za-z0-9_]*(' | tr -d '(' | sort -u >"$tmp/declared"
if ! cmp -s "$tmp/exported" "$tmp/declared"; then
    echo "exported but not declared (<) / declared but not exported (>):"
    diff "$tmp/exported" "$tmp/declared" || true
    exit 1
fi
echo "$(wc -l <"$tmp/exported") symbols, all declared in the public headers"
