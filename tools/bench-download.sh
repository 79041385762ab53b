#!/usr/bin/env bash
# How fast a download runs and how alive its screen stays, on a simulated
# panel:
#
#   tools/bench-download.sh [MiB]       (default 256)
#
# Packs a project of MiB (incompressible: one file of half the size for the
# panel's user file area, 500 small ones sharing the rest in the project area)
# and downloads it unattended onto a fresh panel in five rounds, each followed
# by `cp -a` of the project plus one CRC-32 pass over the source and one over
# the copy. Prints the median of the rounds' ratios of the two; what one call
# that processes events costs with either event dispatcher; the longest
# stretch in which the package's GUI thread did not poll for events (a download
# recorded with perf's poll tracepoints, checks included); the peak resident
# memory; the time of a second download of the unchanged project onto the same
# panel against the first; and the upload's unpacking against zlib's own
# inflate of the same container. Everything is made below build/bench.
#
# The replacement deletes the project area before it copies, so a second
# download can leave in place only what lies outside it. The re-download is
# therefore timed twice: for the project as packed, whose small files are
# copied again, and for the same files packed with all of them outside the
# project area (the small ones in the user file area too), where nothing needs
# copying and the figure is that of the skip rule alone.
set -euo pipefail
cd "$(dirname "$0")/.."

mib=${1:-256}
case "$mib" in ''|*[!0-9]*|0) echo "usage: $0 [MiB]" >&2; exit 2 ;; esac

tools/install-deps.sh bench
cmake --preset default >/dev/null
cmake --build --preset default -j "$(nproc)" \
    --target opxupdateu_proj opxupdateu_helper opxpack opxpanel opxbench_crc32 opxbench_inflate opxbench_watch opxbench_events >/dev/null

build=$PWD/build/default
bench=$PWD/build/bench
rm -rf "$bench"
mkdir -p "$bench/project/data" "$bench/project/DownLoadFile" "$bench/out"

# The project: incompressible data, as a packed project's files mostly are.
big=$((mib * 1024 * 1024 / 2))
small=$(((mib * 1024 * 1024 - big) / 500))
head -c "$big" /dev/urandom >"$bench/project/DownLoadFile/big.bin"
head -c $((small * 500)) /dev/urandom >"$bench/all-small"
split -a 3 -d -b "$small" "$bench/all-small" "$bench/project/data/f"
rm "$bench/all-small"
echo "bench context" >"$bench/project/context.dat"
"$build/tools/opxpack/opxpack" --project "$bench/project" --name bench --out "$bench/stick" >/dev/null
"$build/tools/opxpack/opxpack" --project "$bench/project" --name bench --out "$bench/stick-kept" \
    --dest 'data/*=/data/userfile' >/dev/null
"$build/tools/opxpanel/opxpanel" --root "$bench/panel-pristine" >/dev/null
source_dir=$bench/stick/bench/v7

# One unattended download from the stick $1 onto $bench/panel; prints "seconds-from-start
# seconds-of-the-sequence peak-KiB". The time runs to the last write of the
# result report: after it only the ten-second countdown to the reboot follows.
# The sequence begins when the start timer of 200 ms, which lets the dialog
# show itself first, has run out: its first step opens the panel's C library.
download() {
    local stick=$1 report start begun end watch
    shift
    report=$(mktemp -d /tmp/opxbench_XXXXXX)
    "$build/tools/bench/opxbench_watch" "$bench/panel/lib" >"$bench/watch.txt" &
    watch=$!
    until grep -q ready "$bench/watch.txt" 2>/dev/null; do sleep 0.01; done
    start=$(date +%s.%N)
    (cd "$stick" && KAVO_PANEL_ROOT=$bench/panel QT_QPA_PLATFORM=offscreen \
        /usr/bin/time -f '%M' -o "$bench/time.txt" "$@" ./opxupdateu/opxupdateu_proj.bin "-s bench" "-p $report" \
        >/dev/null 2>"$bench/out/stderr.txt")
    wait "$watch" || { echo "the download sequence was not seen to begin" >&2; exit 1; }
    head -n 1 "$report/pro_update_result.log" | grep -qx '\[成功\]' || { echo "download failed" >&2; exit 1; }
    begun=$(tail -n 1 "$bench/watch.txt")
    end=$(stat -c %.9Y "$report/pro_update_result.log")
    rm -rf "$report"
    echo "$(echo "$end - $start" | bc) $(echo "$end - $begun" | bc) $(cat "$bench/time.txt")"
}
fresh_panel() { rm -rf "$bench/panel"; cp -a "$bench/panel-pristine" "$bench/panel"; sync; }
baseline() {
    rm -rf "$bench/copy"
    sync
    local start end
    start=$(date +%s.%N)
    cp -a "$source_dir" "$bench/copy"
    "$build/tools/bench/opxbench_crc32" "$source_dir" >/dev/null
    "$build/tools/bench/opxbench_crc32" "$bench/copy" >/dev/null
    end=$(date +%s.%N)
    echo "$end - $start" | bc
}
median() { printf '%s\n' "$@" | sort -g | awk '{ v[NR] = $1 } END { print v[int((NR + 1) / 2)] }'; }

# The disk is still busy with the packed sticks at first, which slowed the
# first round by half: one download and one baseline run before, not counted.
fresh_panel
download "$bench/stick" >/dev/null
baseline >/dev/null

# Each round times a download and its baseline one after the other; the
# ratio is the median of the rounds' ratios, which the disk's slower and
# faster moments affect least.
rounds=5
package_times=() whole_times=() baseline_times=() ratios=() again_times=() again_ratios=()
kept_times=() kept_again_times=() kept_ratios=() peak=0
ratio() { echo "$1 / $2" | bc -l; }
for round in $(seq "$rounds"); do
    fresh_panel
    read -r whole first kib < <(download "$bench/stick")
    whole_times+=("$whole")
    package_times+=("$first")
    [ "$kib" -gt "$peak" ] && peak=$kib
    read -r whole seconds kib < <(download "$bench/stick")
    again_times+=("$seconds")
    again_ratios+=("$(ratio "$seconds" "$first")")
    [ "$kib" -gt "$peak" ] && peak=$kib
    seconds=$(baseline)
    baseline_times+=("$seconds")
    ratios+=("$(ratio "$first" "$seconds")")
    fresh_panel
    read -r whole first kib < <(download "$bench/stick-kept")
    kept_times+=("$first")
    [ "$kib" -gt "$peak" ] && peak=$kib
    read -r whole seconds kib < <(download "$bench/stick-kept")
    kept_again_times+=("$seconds")
    kept_ratios+=("$(ratio "$seconds" "$first")")
    [ "$kib" -gt "$peak" ] && peak=$kib
done

# One more first download, its GUI thread's polls recorded: the longest
# stretch between leaving one poll and entering the next.
fresh_panel
download "$bench/stick" perf record -q -e 'syscalls:sys_enter_poll' -e 'syscalls:sys_exit_poll' \
    -e 'syscalls:sys_enter_ppoll' -e 'syscalls:sys_exit_ppoll' -o "$bench/perf.data" -- >/dev/null
gap=$(perf script -i "$bench/perf.data" -F comm,pid,tid,time,event 2>/dev/null | awk '
    $1 == "opxupdateu_proj" {
        split($2, ids, "/"); if (ids[1] != ids[2]) next
        t = $3 + 0
        if (first == "") first = t
        if ($4 ~ /enter/) { if (left != "" && t - left > longest) { longest = t - left; at = left - first } }
        else left = t
    }
    END { printf "%.0f %.2f\n", longest * 1000, at }')
read -r gap_ms gap_at <<<"$gap"

# The upload unpacks the packed project of the panel: here all of the
# project's data in one file.
cat "$bench/project/DownLoadFile/big.bin" "$bench/project/data/"* >"$bench/upload.bin"
inflate=$("$build/tools/bench/opxbench_inflate" "$bench/upload.bin" "$bench/out")
rm -f "$bench/upload.bin" "$bench/out/packed.bin" "$bench/out/out.bin"

events_qt=$(QT_NO_GLIB=1 QT_QPA_PLATFORM=offscreen "$build/tools/bench/opxbench_events" 2>/dev/null | cut -d' ' -f2)
events_glib=$(QT_QPA_PLATFORM=offscreen "$build/tools/bench/opxbench_events" 2>/dev/null | cut -d' ' -f2)

echo
echo "Download of $mib MiB (1 file of $((big / 1048576)) MiB, 500 of $((small / 1024)) KiB), $rounds rounds, alternating:"
list() { printf "$1 " "${@:2}"; }
printf '  package, first download     %.2f s   (median of %s)\n' "$(median "${package_times[@]}")" "$(list %.2f "${package_times[@]}")"
printf '    from the process start    %.2f s   (median of %s)\n' "$(median "${whole_times[@]}")" "$(list %.2f "${whole_times[@]}")"
printf '  cp -a + 2 CRC-32 passes     %.2f s   (median of %s)\n' "$(median "${baseline_times[@]}")" "$(list %.2f "${baseline_times[@]}")"
printf '  ratio                       %.2f     (median of %s; goal <= 1.4)\n' "$(median "${ratios[@]}")" "$(list %.2f "${ratios[@]}")"
printf '  longest time without polls  %s ms, %s s into the run   (goal <= 50)\n' "$gap_ms" "$gap_at"
printf '  peak resident memory        %.1f MiB   (goal <= 64)\n' "$(echo "$peak / 1024" | bc -l)"
printf '  one processEvents() call    %s ns with Qt'"'"'s own dispatcher, the package'"'"'s; %s ns with GLib'"'"'s\n' \
    "$events_qt" "$events_glib"
echo "Unchanged re-download onto the same panel, against the first download of the same (medians):"
printf '  small files in the project area, copied again   %.2f s = %.2f of the first\n' \
    "$(median "${again_times[@]}")" "$(median "${again_ratios[@]}")"
printf '  all files outside the project area, all kept    %.2f s = %.2f of the first   (goal <= 0.6)\n' \
    "$(median "${kept_again_times[@]}")" "$(median "${kept_ratios[@]}")"
echo "Upload: unpacking a project of $mib MiB, best of 3 each:"
echo "  $inflate   (goal >= 0.9)"
