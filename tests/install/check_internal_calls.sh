#!/bin/sh
# Fails if any object of the library refers to an exported function: exports
# resolve their handles and call internal functions, nothing inside the library
# calls an export. The objects are position-independent, so even a call within
# one translation unit leaves a relocation against the exported symbol.
# Usage: check_internal_calls.sh INCLUDE_DIR OBJECT...
set -eu
inc=$1
shift
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
grep -h 'VELCLIENT_API' "$inc"/*.h | grep -o 'velClient_[A-Za-z0-9_]*(' | tr -d '(' | sort -u >"$tmp/declared"
status=0
for obj in "$@"; do
    # Relocation sections of code and data only; debug and unwind tables
    # name every function without calling it.
    readelf -rW "$obj" | awk -v q="'" '
        /^Relocation section/ { s = $3; gsub(q, "", s); keep = (s !~ /^\.rela?\.(debug|eh_frame)/); next }
        keep && NF >= 5 { sub(/[+-].*$/, "", $5); print $5 }' | sort -u >"$tmp/refs"
    comm -12 "$tmp/refs" "$tmp/declared" >"$tmp/hits"
    if [ -s "$tmp/hits" ]; then
        echo "$(basename "$obj") calls exported functions:"
        sed 's/^/    /' "$tmp/hits"
        status=1
    fi
done
[ "$status" -eq 0 ] && echo "$# objects, none refers to an exported function"
exit "$status"
