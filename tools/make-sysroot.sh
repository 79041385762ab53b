#!/usr/bin/env bash
# Makes build/sysroot-ARCH, the target root the ARM cross builds compile, link
# and run their tests against: Qt 5 and zlib with their headers, and every
# shared library they and the C++ runtime need, from Debian bookworm for ARCH.
#
#   tools/make-sysroot.sh armhf|armel
#
# The packages are fetched and unpacked by mmdebstrap with an apt of its own;
# this machine's dpkg never learns about the foreign architecture (the security
# archive's ARM indexes are not reachable from every machine this runs on).
# Nothing is configured: no maintainer script of a foreign package could run
# here without emulation, and a compile and a qemu-user run need only the files.
# A complete sysroot of the same package set is left alone.
set -euo pipefail

arch=${1:-}
case "$arch" in
    armhf|armel) ;;
    *) echo "usage: $0 armhf|armel" >&2; exit 2 ;;
esac

root_dir=$(cd "$(dirname "$0")/.." && pwd)
sysroot="$root_dir/build/sysroot-$arch"
stamp="$sysroot/.opx-sysroot"

packages=(
    libc6-dev libstdc++-12-dev               # the target's C library and C++ runtime, matching its Qt
    qtbase5-dev libqt5test5 zlib1g-dev        # offscreen platform plugin comes with libqt5gui5
)
mirrors=(
    "deb http://deb.debian.org/debian bookworm main"
    "deb http://deb.debian.org/debian bookworm-updates main"
)
# What the sysroot was made from; a change of either makes it again.
wanted="$arch ${packages[*]} | ${mirrors[*]}"

case "$arch" in
    armhf) triplet=arm-linux-gnueabihf ;;
    armel) triplet=arm-linux-gnueabi ;;
esac
shim_source="$root_dir/tools/sysroot/qemu-forkfd.c"
shim="usr/lib/$triplet/opx/libqemu-forkfd.so"

# The shim that lets Qt start processes under qemu-user 7.2 (see its source),
# preloaded by the target's loader alone: host programs never read the
# sysroot's /etc/ld.so.preload.
install_shim() {
    local sysroot_dir=$1
    mkdir -p "$sysroot_dir/$(dirname "$shim")"
    "$triplet-gcc" --sysroot="$sysroot_dir" -O2 -Wall -Wextra -Werror -shared -fPIC \
        -o "$sysroot_dir/$shim" "$shim_source" -ldl
    echo "/$shim" > "$sysroot_dir/etc/ld.so.preload"
}

if [ -f "$stamp" ] && [ "$(cat "$stamp")" = "$wanted" ]; then
    if [ "$shim_source" -nt "$sysroot/$shim" ]; then
        install_shim "$sysroot"
    fi
    exit 0
fi

bash "$root_dir/tools/install-deps.sh" arm

# Made beside the final place and moved in only when whole, so an interrupted
# run never leaves a sysroot that looks complete.
work="$sysroot.new"
rm -rf "$work"
mkdir -p "$root_dir/build"
include=$(IFS=,; echo "${packages[*]}")
echo "Making the $arch sysroot in $sysroot"
mmdebstrap --quiet --variant=extract --architectures="$arch" \
    --include="$include" bookworm "$work" "${mirrors[@]}"

# Absolute links name the target's own files: point them inside the sysroot,
# or the compiler, the linker and qemu would follow them into this machine.
while IFS= read -r -d '' link; do
    target=$(readlink "$link")
    case "$target" in
        /*) ln -sfn "$(realpath -ms --relative-to="$(dirname "$link")" "$work$target")" "$link" ;;
    esac
done < <(find "$work" -type l -print0)

# qemu-user looks up every absolute path a program opens or examines in the
# sysroot first. The device nodes mmdebstrap makes and empty directories of the
# machine's own tree (tmp, proc, run ...) would hide the real ones from the
# emulated tests; only directories holding the target's files stay.
rm -rf "$work/dev" "$work/var/cache" "$work/var/log" "$work/var/lib/apt"
find "$work" -mindepth 1 -maxdepth 1 -type d -empty -delete

install_shim "$work"

echo "$wanted" > "$work/.opx-sysroot"
rm -rf "$sysroot"
mv "$work" "$sysroot"
