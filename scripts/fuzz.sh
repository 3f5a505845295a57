#!/usr/bin/env bash
# Builds the libFuzzer targets (fuzz/) with clang in build-fuzz and runs each in turn (or only
# the TARGETs named) for SECONDS_PER_TARGET (default 60) on a working corpus under build-fuzz,
# seeded from fuzz/corpus/<target>; then prints per target the inputs run and what was found.
# The log and any saved input of a target are in build-fuzz/fuzz-work/<target>/.
# Exit status: 0 nothing found, 1 a target found a crash, leak, timeout or sanitizer report,
# 2 clang with libFuzzer is missing (nothing was run).
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/setup.sh fuzz

seconds=${1:-60}
build=build-fuzz
targets=(message loader platform filter_term bit_timing)
[ $# -gt 1 ] && targets=("${@:2}")

mkdir -p "$build"
probe='extern "C" int LLVMFuzzerTestOneInput(const unsigned char*, unsigned long) { return 0; }'
if ! command -v clang++ >/dev/null 2>&1 || ! echo "$probe" |
    clang++ -x c++ -fsanitize=fuzzer - -o "$build/libfuzzer-probe" >/dev/null 2>&1; then
    echo "fuzz: clang++ with libFuzzer (-fsanitize=fuzzer) is not available; nothing was run" >&2
    exit 2
fi
rm -f "$build/libfuzzer-probe"

cmake -S . -B "$build" -G Ninja -DCMAKE_CXX_COMPILER=clang++ -DCFGD_FUZZ=ON -DCFGD_TESTS=OFF \
    -DCFGD_BENCH=OFF >/dev/null
cmake --build "$build" -j2 --target fuzz_targets

# The targets' private directories on a memory file system where there is one: a disk file
# system may wait for the disk when a file is truncated and rewritten, as every run does.
if [ -d /dev/shm ] && [ -w /dev/shm ]; then export TMPDIR=/dev/shm; fi
export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1}
report=()
total_runs=0
total_saved=0
total_reports=0
total_failed=0
for target in "${targets[@]}"; do
    work=$build/fuzz-work/$target
    log=$work/fuzz.log
    # The working corpus grows from run to run; findings and the log are this run's only.
    rm -rf "$work/artifacts" "$log"
    mkdir -p "$work/corpus" "$work/artifacts"
    cp -L fuzz/corpus/"$target"/* "$work/corpus/"
    echo "== $target (${seconds}s)"
    status=0
    # -close_fd_mask=3 silences the daemon's own output; libFuzzer and the sanitizers still
    # report on a descriptor of their own.
    "$build/fuzz/fuzz_$target" -max_total_time="$seconds" -timeout=25 -print_final_stats=1 \
        -close_fd_mask=3 -artifact_prefix="$work/artifacts/" "$work/corpus" \
        >"$log" 2>&1 || status=$?
    runs=$(sed -n 's/^stat::number_of_executed_units: *\([0-9]*\).*/\1/p' "$log" | tail -n1)
    [ -n "$runs" ] || runs=$(sed -n 's/^Done \([0-9]*\) runs.*/\1/p' "$log" | tail -n1)
    runs=${runs:-0}
    # Inputs libFuzzer saved for a finding, and the sanitizers' and libFuzzer's SUMMARY lines
    # (undefined behaviour gives two: its own and libFuzzer's for the abort that follows).
    saved=$(find "$work/artifacts" -type f \( -name 'crash-*' -o -name 'leak-*' -o \
        -name 'timeout-*' -o -name 'oom-*' \) | wc -l)
    reports=$(grep -c '^SUMMARY: ' "$log" || true)
    failed=0
    if [ "$status" -ne 0 ] || [ "$saved" -ne 0 ] || [ "$reports" -ne 0 ]; then
        failed=1
        grep -E 'ERROR|runtime error|SUMMARY|Test unit written' "$log" | head -n 20 || true
        echo "   log: $log"
    fi
    report+=("$(printf '%-12s %12s runs  %3d inputs saved  %3d reports' "$target" "$runs" \
        "$saved" "$reports")")
    total_runs=$((total_runs + runs))
    total_saved=$((total_saved + saved))
    total_reports=$((total_reports + reports))
    total_failed=$((total_failed + failed))
done

echo "== summary"
printf '%s\n' "${report[@]}"
printf '%-12s %12s runs  %3d inputs saved  %3d reports\n' total "$total_runs" "$total_saved" \
    "$total_reports"
[ "$total_failed" -eq 0 ]
