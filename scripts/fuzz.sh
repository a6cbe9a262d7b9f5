#!/usr/bin/env bash
# Builds the libFuzzer targets in fuzz/ with clang (ASan + UBSan, build/fuzz) and runs each one
# for the given number of seconds (default 60) over a scratch copy of its seed corpus, at most
# $JOBS (default 2) at a time. Prints executions, coverage and crashes per target; exits
# non-zero if any target crashed, leaked, timed out or ran out of memory. Reproduce a crash
# with: build/fuzz/fuzz/fuzz_<name> <artifact>.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
seconds=${1:-60}
jobs=${JOBS:-2}
build=$root/build/fuzz

if ! [[ $seconds =~ ^[1-9][0-9]*$ ]]; then
    echo "usage: $0 [seconds per target]" >&2
    exit 1
fi

bash scripts/install-deps.sh

cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ -DKIV_HTTP_BUILD_FUZZERS=ON \
    -DKIV_HTTP_BUILD_TESTS=OFF -DKIV_HTTP_BUILD_BENCH=OFF -DKIV_HTTP_BUILD_TOOLS=OFF >/dev/null
cmake --build "$build" -j "$jobs"

export ASAN_OPTIONS=halt_on_error=1:detect_leaks=1
export UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1

# One run: a fresh scratch corpus (new inputs land there, never in fuzz/corpus), its own
# artifact directory, and the exit status beside the log.
run_target() {
    local name=$1 dir=$build/runs/$1
    rm -rf "$dir"
    mkdir -p "$dir/artifacts"
    cp -r "$root/fuzz/corpus/$name" "$dir/corpus"
    local dict=()
    if [ -f "$root/fuzz/$name.dict" ]; then
        dict=(-dict="$root/fuzz/$name.dict")
    fi
    set +e
    "$build/fuzz/fuzz_$name" -max_total_time="$seconds" -print_final_stats=1 -timeout=10 \
        -rss_limit_mb=2048 -artifact_prefix="$dir/artifacts/" "${dict[@]}" "$dir/corpus" \
        >"$dir/log" 2>&1
    echo $? >"$dir/rc"
}

targets=()
for corpus in "$root"/fuzz/corpus/*/; do
    name=$(basename "$corpus")
    if [ ! -x "$build/fuzz/fuzz_$name" ]; then
        echo "no fuzz target built for fuzz/corpus/$name" >&2
        exit 1
    fi
    targets+=("$name")
done

echo "== fuzzing ${#targets[@]} targets for ${seconds} s each, $jobs at a time"
running=0
for name in "${targets[@]}"; do
    if [ "$running" -ge "$jobs" ]; then
        wait -n
        running=$((running - 1))
    fi
    run_target "$name" &
    running=$((running + 1))
done
wait

failed=0
printf '%-16s %12s %8s %8s %8s\n' target executions cov ft crashes
for name in "${targets[@]}"; do
    dir=$build/runs/$name
    execs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$dir/log" | tail -n 1)
    cov=$(grep -o 'cov: [0-9]*' "$dir/log" | tail -n 1 | cut -d' ' -f2)
    ft=$(grep -o 'ft: [0-9]*' "$dir/log" | tail -n 1 | cut -d' ' -f2)
    crashes=$(find "$dir/artifacts" -type f \
        \( -name 'crash-*' -o -name 'leak-*' -o -name 'timeout-*' -o -name 'oom-*' \) | wc -l)
    rc=$(cat "$dir/rc")
    printf '%-16s %12s %8s %8s %8s\n' "$name" "${execs:-?}" "${cov:-?}" "${ft:-?}" "$crashes"
    if [ "$rc" -ne 0 ] || [ "$crashes" -ne 0 ]; then
        failed=1
        echo "-- $name failed (exit status $rc); log $dir/log, artifacts:" >&2
        find "$dir/artifacts" -type f >&2
        tail -n 40 "$dir/log" >&2
    fi
done
exit $failed
