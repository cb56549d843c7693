#!/usr/bin/env bash
# Lines of test code against lines of library code: non-blank lines that are
# not comment-only (a // line, or a line inside or opening a /* ... */ block).
#   tests:   tests/**/*.{cpp,h,c}
#   library: impl/**/*.{cpp,h} + include/**/*.{h,hpp}
set -euo pipefail
cd "$(dirname "$0")/.."

count() {
    find "$@" -type f -print0 | sort -z | xargs -0 -r awk '
        FNR == 1 { inblock = 0 }
        {
            line = $0
            sub(/^[ \t]+/, "", line)
            if (inblock) {
                if (index(line, "*/")) {
                    inblock = 0
                    rest = substr(line, index(line, "*/") + 2)
                    sub(/^[ \t]+/, "", rest)
                    if (rest != "" && rest !~ /^\/\//) n++
                }
                next
            }
            if (line == "" || line ~ /^\/\//) next
            if (line ~ /^\/\*/) {
                end = index(substr(line, 3), "*/")
                if (!end) { inblock = 1; next }
                rest = substr(line, end + 4)
                sub(/^[ \t]+/, "", rest)
                if (rest == "" || rest ~ /^\/\//) next
            }
            n++
        }
        END { print n + 0 }'
}

tests=$(count tests \( -name '*.cpp' -o -name '*.h' -o -name '*.c' \))
lib=$(count impl include \( -name '*.cpp' -o -name '*.h' -o -name '*.hpp' \))
echo "tests:   $tests"
echo "library: $lib"
awk -v t="$tests" -v l="$lib" 'BEGIN { printf "ratio:   %.3f\n", (l ? t / l : 0) }'
