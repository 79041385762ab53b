#!/usr/bin/env bash
# Installs the Debian packages the package needs to build, test and run its demo,
# with "coverage" also those of tools/coverage.sh, with "fuzz" those of
# tools/fuzz.sh, with "arm" those of the ARM cross builds (tools/make-sysroot.sh and
# the armhf and armel presets).
# Only what is missing is installed; a machine that has everything is not touched.
set -euo pipefail

packages=(
    cmake g++ make pkg-config
    qtbase5-dev zlib1g-dev
    xvfb xauth xdotool fonts-wqy-microhei      # screens rendered and driven headless, with a CJK font
    libc6-armhf-cross libc6-armel-cross        # real ARM C libraries for the platform-code reader
)
for group in "$@"; do
    case "$group" in
        coverage) packages+=(gcovr) ;;
        fuzz) packages+=(clang libclang-rt-dev llvm) ;;
        bench) packages+=(linux-perf time bc) ;;  # poll tracepoints, peak memory, arithmetic  # libFuzzer, the sanitizers' runtimes, llvm-symbolizer
        # Cross compilers for the panel's two processors, the target's Debian
        # packages fetched without touching this machine's dpkg, and the emulator
        # the cross-built tests run under.
        arm) packages+=(g++-arm-linux-gnueabihf g++-arm-linux-gnueabi mmdebstrap qemu-user-static) ;;
        *) echo "install-deps.sh: unknown group $group" >&2; exit 2 ;;
    esac
done

missing=()
for package in "${packages[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed"; then
        missing+=("$package")
    fi
done
[ ${#missing[@]} -eq 0 ] && exit 0

sudo=()
[ "$(id -u)" -ne 0 ] && sudo=(sudo)
echo "Installing: ${missing[*]}"
"${sudo[@]}" apt-get update -qq
DEBIAN_FRONTEND=noninteractive "${sudo[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}"
