#!/usr/bin/env bash
# Mutation testing: how many small faults planted in the library does the
# suite notice?
#
#   bash scripts/mutants.sh [count] [seed] [commit]
#
# (defaults: 60 mutants, seed 1, the working tree's tracked files; a commit,
# say HEAD, takes its files instead, which is steadier while others edit).
#
# scripts/mutants.py scans the core files of the library (message, VWF,
# session, handle and log modules) for mutation sites -- a flipped comparison,
# a dropped statement, an integer constant moved by one, a dropped "+ 1" /
# "- 1" -- and draws a fixed sample from the seed, so the same mutants come
# back for as long as the library's sources are unchanged. Each mutant is
# written into a copy of the tracked files (build/mutants/src; the working
# tree is never touched), the two test binaries are rebuilt in one reused
# build directory and run with a time limit. A failing, crashing or hanging
# run catches the mutant; one that does not compile is "not viable".
# Survivors go to build/mutants/survivors.txt. About 20 s a mutant on two
# cores (minutes for one in a widely included header, and for the first
# build); run it under `nice` on a shared machine.
set -euo pipefail
count=${1:-60}
seed=${2:-1}
rev=${3:-}
cd "$(dirname "$0")/.."
work=$PWD/build/mutants
src=$work/src
bld=$work/build
limit=120

# The tracked files of the working tree (or of the commit given as a third
# argument); only files that differ from the last run's copy are rewritten, so
# the reused build directory recompiles just those.
rm -rf "$work/snapshot" && mkdir -p "$work/snapshot" "$src"
if [ -n "$rev" ]; then
    git archive "$rev" | tar -xf - -C "$work/snapshot"
else
    git ls-files -z | tar --null --ignore-failed-read -T - -cf - 2>/dev/null | tar -xf - -C "$work/snapshot"
fi
python3 scripts/mutants.py sync "$work/snapshot" "$src"

build() { cmake --build "$bld" --target velclient_tests velclient_internal_tests -j"$(nproc)" >"$work/build.log" 2>&1; }
run_tests() { # the outer 2>/dev/null quiets the shell's own "Segmentation fault" notice
    { (cd "$bld/tests" && timeout -k 5 "$limit" ./velclient_tests && timeout -k 5 "$limit" ./velclient_internal_tests) \
        >"$work/test.log" 2>&1; } 2>/dev/null
}

cmake -S "$src" -B "$bld" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVELCLIENT_WERROR=OFF -DVELCLIENT_TEST_INSTALL=OFF \
    -DVELCLIENT_BUILD_EXAMPLES=OFF -DBUILD_TESTING=ON >"$work/configure.log"
build || { echo "the unmutated tree does not build: see $work/build.log"; exit 1; }
run_tests || { echo "the unmutated tree fails its tests: see $work/test.log"; exit 1; }

python3 scripts/mutants.py list "$src" "$count" "$seed" >"$work/sample.tsv"
total=$(wc -l <"$work/sample.tsv")
caught=0 viable=0 unviable=0
: >"$work/survivors.txt"
for k in $(seq 1 "$total"); do
    file=$(sed -n "${k}p" "$work/sample.tsv" | cut -f1)
    cp "$src/$file" "$work/original"
    IFS=$'\t' read -r where change < <(python3 scripts/mutants.py apply "$src" "$work/sample.tsv" "$k")
    if ! build; then
        verdict="not viable"; unviable=$((unviable + 1))
    elif run_tests; then
        verdict=survived; viable=$((viable + 1))
        echo "$where $change" >>"$work/survivors.txt"
    else
        verdict=caught; viable=$((viable + 1)); caught=$((caught + 1))
    fi
    cp "$work/original" "$src/$file" # a new time: the next build recompiles it
    printf '%3d/%d %s %s: %s\n' "$k" "$total" "$where" "$change" "$verdict"
done
echo "caught $caught of $viable viable mutants ($unviable not viable); survivors in build/mutants/survivors.txt"
echo "took $((SECONDS / 60)) min $((SECONDS % 60)) s"
