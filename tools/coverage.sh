#!/usr/bin/env bash
# How much of the package the test suite exercises, and how large the suite is
# against the code: builds the coverage preset, runs the whole suite on it and
# prints three figures.
#
#   lines      line coverage of the package and the runtime updater
#   branches   branch coverage of the same, branches of exception throws left out
#   tests/code non-blank lines of the tests (.cpp .h .py .sh under tests/)
#              against those of the code (.cpp .h outside tests/, tools included)
#
# Counts of an earlier run are cleared first, so the figures are this run's.
set -euo pipefail
cd "$(dirname "$0")/.."

tools/install-deps.sh coverage

cmake --preset coverage >/dev/null
cmake --build --preset coverage -j "$(nproc)"
find build/coverage -name '*.gcda' -delete
# A failing test still counts what it ran; the figures say the rest.
ctest --preset coverage -j "$(nproc)" || echo "coverage.sh: some tests failed; the figures below include their runs" >&2

# The package and its updater: everything built from these folders.
filter='^(app|text|log|frame|frontend|download|upload|resource|platform|helper)/'
# gcovr replaces its output file rather than writing into it: it gets a
# scratch file of its own, never a device.
report=$(mktemp)
trap 'rm -f "$report"' EXIT
summary=$(gcovr --root . --object-directory build/coverage --filter "$filter" \
                --exclude-throw-branches --print-summary --output "$report")

nonblank() { grep -cv '^[[:space:]]*$' "$@" | awk -F: '{ n += $NF } END { print n + 0 }'; }
mapfile -t testFiles < <(git ls-files 'tests/*.cpp' 'tests/*.h' 'tests/*.py' 'tests/*.sh')
mapfile -t codeFiles < <(git ls-files '*.cpp' '*.h' | grep -v '^tests/')
tests=$(nonblank "${testFiles[@]}")
code=$(nonblank "${codeFiles[@]}")

echo "$summary" | sed -n 's/^lines: /lines:      /p; s/^branches: /branches:   /p'
awk -v t="$tests" -v c="$code" 'BEGIN { printf "tests/code: %.2f (%d test lines, %d code lines)\n", t / c, t, c }'
