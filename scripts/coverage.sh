#!/usr/bin/env bash
# Builds the coverage preset (gcov), runs the whole test suite and reports the
# line and branch coverage of the library's own code (impl/). The summary
# goes to standard output; build/coverage/coverage.txt has it file by file.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh gcovr
cmake --preset coverage >/dev/null
cmake --build --preset coverage -j"$(nproc)"
find build/coverage -name '*.gcda' -delete
ctest --preset coverage -j"$(nproc)" >/dev/null
gcovr -r . --object-directory build/coverage -f 'impl/' --exclude-unreachable-branches --exclude-throw-branches \
  --print-summary -o build/coverage/coverage.txt
