#!/usr/bin/env bash
# The whole test suite: installs what is missing, then builds and tests the
# package twice, once normally and once with AddressSanitizer and
# UndefinedBehaviorSanitizer (leaks reported too), fuzzes every reader of
# stick and panel data for a short while, and checks that the panel build
# still compiles against the vendor declarations. The README's demo runs too,
# in its unattended form.
set -euo pipefail
cd "$(dirname "$0")/.."

tools/install-deps.sh

jobs=$(nproc)
for preset in default sanitize; do
    echo "=== build: $preset"
    cmake --preset "$preset" >/dev/null
    cmake --build --preset "$preset" -j "$jobs"
    echo "=== test: $preset"
    ctest --preset "$preset" -j "$jobs"
done

echo "=== fuzz: every reader of stick and panel data, 20 s each"
tools/fuzz.sh 20

echo "=== demo: unattended download on a simulated panel"
DISPLAY= tools/demo.sh --direct

echo "=== panel build: compile check"
cmake --preset panel >/dev/null 2>&1
cmake --build --preset panel -j "$jobs" --target opx_platform opx_core opx_gui
