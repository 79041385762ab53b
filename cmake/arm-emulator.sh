#!/bin/sh
# Runs an ARM program of the cross builds under qemu-user, together with every
# ARM program it starts in turn: the test programs start the package's
# executable, the package its runtime updater, the updater the package again.
#
#   arm-emulator.sh SYSROOT CPU PROGRAM [ARGUMENT...]
#
# The program runs in a user and mount namespace of its own in which ARM
# executables are registered with binfmt_misc for qemu-arm-static; that
# registration is private to the namespace (Linux 6.7 and later), so the machine
# itself never learns to run ARM programs. qemu finds the target's libraries
# through QEMU_LD_PREFIX, which the started programs inherit. Where no such
# namespace can be made, the program alone runs under qemu, and ARM programs it
# starts fail to start.
set -eu
[ $# -ge 3 ] || { echo "usage: $0 SYSROOT CPU PROGRAM [ARGUMENT...]" >&2; exit 2; }
sysroot=$1
cpu=$2
shift 2
qemu=$(command -v qemu-arm-static) || { echo "$0: qemu-arm-static is missing (tools/install-deps.sh arm)" >&2; exit 2; }
export QEMU_LD_PREFIX="$sysroot" QEMU_CPU="$cpu"

# Already inside such a namespace (a program started through this script in turn).
if [ "${OPX_ARM_BINFMT:-}" = "$sysroot" ]; then
    exec "$@"
fi

# ELF, 32 bits, little endian, executable or shared object, machine ARM (40).
magic='\x7fELF\x01\x01\x01\x00\x00\x00\x00\x00\x00\x00\x00\x00\x02\x00\x28\x00'
mask='\xff\xff\xff\xff\xff\xff\xff\x00\xff\xff\xff\xff\xff\xff\xff\xff\xfe\xff\xff\xff'
register=":opx-arm:M::$magic:$mask:$qemu:F"
# shellcheck disable=SC2016
if unshare --user --map-root-user --mount sh -c \
        'mount -t binfmt_misc binfmt_misc /proc/sys/fs/binfmt_misc && printf %s "$1" > /proc/sys/fs/binfmt_misc/register' \
        sh "$register" 2>/dev/null; then
    export OPX_ARM_BINFMT="$sysroot"
    exec unshare --user --map-root-user --mount sh -c \
        'mount -t binfmt_misc binfmt_misc /proc/sys/fs/binfmt_misc && printf %s "$1" > /proc/sys/fs/binfmt_misc/register && shift && exec "$@"' \
        sh "$register" "$@"
fi
echo "$0: no private binfmt_misc here; ARM programs that $1 starts will not run" >&2
exec "$qemu" "$@"
