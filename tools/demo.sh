#!/usr/bin/env bash
# The package on this PC: installs what is missing, builds, packs the sample
# project onto a stick with opxpack, makes a simulated panel with opxpanel and
# runs the package on them.
#
#   tools/demo.sh [--direct] [--arch armhf|armel]
#
# With a display (DISPLAY set) the operator's window opens: start note,
# password, main window, download or upload. Without one, or with --direct,
# the project is downloaded unattended, and the result report and the panel's
# new project are printed; the exit status is 0 only when the download
# succeeded.
#
# With --arch the package is the ARM build of that panel family (armhf: ARMv7,
# platform 10; armel: ARMv5, platform 5), packed for it and run unattended
# under qemu-user on a panel of that family.
#
# Everything is made below build/demo (or OPX_DEMO_DIR) and made anew on each
# run; nothing outside it is touched.
set -euo pipefail
cd "$(dirname "$0")/.."

usage() { echo "usage: $0 [--direct] [--arch armhf|armel]" >&2; exit 2; }
mode=interactive
[ -n "${DISPLAY:-}" ] || mode=direct
arch=
while [ $# -gt 0 ]; do
    case "$1" in
        --direct) mode=direct ;;
        --arch) [ $# -ge 2 ] || usage; arch=$2; shift ;;
        *) usage ;;
    esac
    shift
done

tools/install-deps.sh
cmake --preset default >/dev/null
cmake --build --preset default -j "$(nproc)" --target opxupdateu_proj opxupdateu_helper opxpack opxpanel

build=build/default
package=$build
platform=10
run=()
case "$arch" in
    "") ;;
    armhf|armel)
        mode=direct
        [ "$arch" = armel ] && platform=5
        tools/make-sysroot.sh "$arch"
        cmake --preset "$arch" >/dev/null
        cmake --build --preset "$arch" -j "$(nproc)" --target opxupdateu_proj opxupdateu_helper
        package=build/$arch
        # The emulator as the ARM tests run under it: qemu-user on the
        # family's processor, with the family's libraries.
        sysroot=$(realpath "build/sysroot-$arch")
        cpu=$(sed -n 's/^set(OPX_ARM_CPU \(.*\))$/\1/p' "cmake/toolchain-$arch.cmake")
        run=("$PWD/cmake/arm-emulator.sh" "$sysroot" "$cpu")
        ;;
    *) usage ;;
esac
demo=$(realpath -m "${OPX_DEMO_DIR:-build/demo}")
panel=$demo/panel
stick=$demo/stick
out=$demo/out
rm -rf "$demo"
mkdir -p "$out"

panel_options=()
if [ "$mode" = interactive ]; then
    # The whole operator's path: a password to type and a runtime to stop.
    panel_options=(--password 1234 --running)
fi
"$build/tools/opxpanel/opxpanel" --root "$panel" --arch "$platform" "${panel_options[@]}" >"$demo/panel.txt"
"$build/tools/opxpack/opxpack" --project examples/sample --name sample --out "$stick" \
    --clear recipe --platform "$platform" \
    --executable "$package/opxupdateu_proj.bin" --helper "$package/helper/opxupdateu_helper.bin"

echo
echo "Simulated panel: $panel"
echo "USB stick:       $stick"
echo

cd "$stick"
if [ "$mode" = interactive ]; then
    runtime_pid=$(cat "$panel/var/run/kavo_app.pid")
    echo "The start note opens. Password: 1234. After a download the panel"
    echo "counts down and 'reboots': the package ends and the panel keeps the project."
    status=0
    KAVO_PANEL_ROOT=$panel ./opxupdateu/opxupdateu_proj.bin || status=$?
    # The stand-in runtime is ours; the package has usually stopped it already.
    kill "$runtime_pid" 2>/dev/null || true
    exit "$status"
fi

# The package finds its options anywhere inside an argument: a report
# directory whose path holds "-s" or "-p" (a clone in ~/my-stuff, say) would be
# read as another option. The report is written to a plain directory first.
report_dir=$(mktemp -d /tmp/opxdemo_XXXXXX)
KAVO_PANEL_ROOT=$panel QT_QPA_PLATFORM=offscreen \
    "${run[@]}" ./opxupdateu/opxupdateu_proj.bin "-s sample" "-p $report_dir" >/dev/null \
    2> >(grep -v '^Unknown property font-margin$' >&2)
mv "$report_dir"/* "$out"/ 2>/dev/null || true
rmdir "$report_dir"
echo "Result report ($out/pro_update_result.log):"
echo "----"
cat "$out/pro_update_result.log"
echo "----"
echo "The panel's project now ($panel/usr/kavo_app/project):"
(cd "$panel/usr/kavo_app/project" && find . -type f | sort | sed 's|^\./|  |')
echo "The panel's user file area ($panel/data/userfile):"
(cd "$panel/data/userfile" && find . -type f | sort | sed 's|^\./|  |')
if [ -f "$panel/var/run/reboot-requested" ]; then
    echo "The panel was asked to reboot after the countdown."
fi
head -n 1 "$out/pro_update_result.log" | grep -qx '\[成功\]'
