#!/usr/bin/env bash
# Fuzzes every reader of what a stick or a panel holds: builds the "fuzz"
# preset (libFuzzer, AddressSanitizer, UndefinedBehaviorSanitizer) and runs
# each target for SECONDS (default 30), as many at once as there are cores.
#
#   tools/fuzz.sh [SECONDS] [TARGET...]     TARGET: text package runtime
#                                           scramble elf md5sum unpack
#
# Each target starts from its seeds in tests/fuzz/corpus/ and from what
# earlier runs found (build/fuzz/corpus/, kept between runs). An input may
# use 512 MB of memory, allocate 256 MB at once and take 5 s. Any crash,
# sanitizer finding, leak, time-out or over-limit allocation fails the run;
# the input that caused it is left in build/fuzz/artifacts/TARGET/, and
# "build/fuzz/tests/fuzz/fuzz_TARGET FILE" replays it.
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=${1:-30}
shift || true
targets=("$@")
[ ${#targets[@]} -gt 0 ] || targets=(text package runtime scramble elf md5sum unpack)
case "$seconds" in
    ''|*[!0-9]*) echo "usage: $0 [SECONDS] [TARGET...]" >&2; exit 2 ;;
esac

tools/install-deps.sh fuzz
cmake --preset fuzz >/dev/null
cmake --build --preset fuzz -j "$(nproc)"

root=$PWD/build/fuzz
# AddressSanitizer holds freed memory back (256 MB by default) to catch late
# uses; that alone would take a long run to the memory limit. 64 MB still
# catches a use right after a free.
export ASAN_OPTIONS=detect_leaks=1:quarantine_size_mb=64
export LSAN_OPTIONS=suppressions=$PWD/tests/lsan.supp:print_suppressions=0
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1

run() {
    local target=$1
    local corpus=$root/corpus/$target artifacts=$root/artifacts/$target/ log=$root/logs/$target.log
    mkdir -p "$corpus" "$artifacts" "$root/logs"
    local status=0
    "$root/tests/fuzz/fuzz_$target" -max_total_time="$seconds" -rss_limit_mb=512 -malloc_limit_mb=256 \
        -timeout=5 -print_final_stats=1 -artifact_prefix="$artifacts" \
        "$corpus" "$PWD/tests/fuzz/corpus/$target" >"$log" 2>&1 || status=$?
    echo "$status" >"$root/logs/$target.status"
}

for target in "${targets[@]}"; do
    [ -x "$root/tests/fuzz/fuzz_$target" ] || { echo "fuzz.sh: no target $target" >&2; exit 2; }
    while [ "$(jobs -rp | wc -l)" -ge "$(nproc)" ]; do wait -n || true; done
    echo "=== fuzz_$target: ${seconds} s"
    run "$target" &
done
wait

failed=0
for target in "${targets[@]}"; do
    log=$root/logs/$target.log
    status=$(cat "$root/logs/$target.status")
    runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log")
    rate=$(sed -n 's/^stat::average_exec_per_sec: *//p' "$log")
    rss=$(sed -n 's/^stat::peak_rss_mb: *//p' "$log")
    if [ "$status" -eq 0 ]; then
        printf '%-9s ok      %9s runs %6s/s  peak %s MB\n' "$target" "${runs:-?}" "${rate:-?}" "${rss:-?}"
    else
        failed=1
        printf '%-9s FAILED  exit %s, log %s\n' "$target" "$status" "$log"
        grep -E '^(==[0-9]+==|SUMMARY|.*runtime error|artifact_prefix|Test unit written)' "$log" | head -20 || true
    fi
done
exit "$failed"
