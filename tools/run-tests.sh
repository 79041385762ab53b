#!/usr/bin/env bash
# The whole test suite: installs what is missing, then builds and tests the
# package twice, once normally and once with AddressSanitizer and
# UndefinedBehaviorSanitizer (leaks reported too), then cross-built for the
# panel's two processors (ARMv7 armhf, ARMv5 armel) under qemu-user; fuzzes
# every reader of stick and panel data for a short while, runs the README's
# demo in its unattended form natively and on both ARM builds, and checks that
# the panel build still compiles against the vendor declarations. Each step
# says when it starts, in minutes and seconds since the start.
set -euo pipefail
cd "$(dirname "$0")/.."

step() { printf '=== [%d:%02d] %s\n' $((SECONDS / 60)) $((SECONDS % 60)) "$*"; }

tools/install-deps.sh

jobs=$(nproc)
for preset in default sanitize; do
    step "build: $preset"
    cmake --preset "$preset" >/dev/null
    cmake --build --preset "$preset" -j "$jobs"
    step "test: $preset"
    ctest --preset "$preset" -j "$jobs"
done

for arch in armhf armel; do
    step "build: $arch (sysroot, cross build)"
    tools/make-sysroot.sh "$arch"
    cmake --preset "$arch" >/dev/null
    cmake --build --preset "$arch" -j "$jobs"
    step "test: $arch under qemu-user"
    ctest --preset "$arch" -j "$jobs"
done

step "fuzz: every reader of stick and panel data, 20 s each"
tools/fuzz.sh 20

step "demo: unattended download on a simulated panel"
DISPLAY= tools/demo.sh --direct
for arch in armhf armel; do
    step "demo: unattended download, $arch build under qemu-user"
    DISPLAY= tools/demo.sh --arch "$arch"
done

step "panel build: compile check"
cmake --preset panel >/dev/null 2>&1
cmake --build --preset panel -j "$jobs" --target opx_platform opx_core opx_gui
step "done"
