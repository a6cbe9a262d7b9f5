#!/usr/bin/env bash
# Soak: runs the streaming, timer, pool and reference suites the given number of times (default
# 200) in the ThreadSanitizer build and the AddressSanitizer + UndefinedBehaviorSanitizer build
# (build/tsan and build/asan, configured as scripts/test.sh does when they do not exist yet),
# both builds side by side with a busy loop beside them, so that threads are preempted at
# arbitrary points. Every repeat is a fresh process per suite. Prints one line per test with its
# runs and failures (a crash, a sanitizer report or a hang counts against the test that was
# running), keeps the log of every failed run under build/soak/, and exits non-zero on any
# failure.
#
# The stress tests of these suites are left out (they run for tens of seconds each under a
# sanitizer, and are repeated loops themselves): the 2000-cancel delivery race and the
# concurrent reference stress; the 12 s download timeout tests live in other executables.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
repeats=${1:-200}
jobs=${JOBS:-2}
limit=${SOAK_RUN_TIMEOUT:-300}  # seconds one suite run may take before it counts as hung

if ! [[ $repeats =~ ^[1-9][0-9]*$ ]]; then
    echo "usage: $0 [repeats]" >&2
    exit 1
fi

suites=(test_kiv_HttpTask_impl test_RefreshTimer test_GlobalThreadPool test_kiv_shared_ptr)
exclude="StreamingEdgeTest.NoDeliveryStartsAfterCancelReturns"
exclude+=":SharedPtrTest.ConcurrentCopyConvertReleaseStress"

bash scripts/install-deps.sh

export ASAN_OPTIONS=halt_on_error=1:detect_leaks=1:abort_on_error=0
export UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1
export TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1
export LSAN_OPTIONS=suppressions=$root/tests/lsan.supp

# Configures a build only when it does not exist (an existing one keeps its settings), then
# builds just the suites and the helper processes they start.
build() {
    local dir=$1
    shift
    if [ ! -f "$dir/CMakeCache.txt" ]; then
        cmake -S "$root" -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
            -DKIV_HTTP_BUILD_BENCH=OFF "$@" >/dev/null
    fi
    cmake --build "$dir" -j "$jobs" --target "${suites[@]}" streaming_child pool_exit_child
}
build build/tsan -DKIV_HTTP_SANITIZE=thread -DKIV_HTTP_BUILD_TOOLS=OFF
build build/asan -DKIV_HTTP_SANITIZE=address

out=$root/build/soak
rm -rf "$out"
mkdir -p "$out"

# One line per finished test: "<build> <test> ok|fail". A run that ends without a result for the
# test it was running (a sanitizer abort, a crash, a hang) fails that test; a run that fails with
# no test running (start-up, exit) fails "<suite>.(process)".
record() {
    local name=$1 suite=$2 log=$3 rc=$4
    awk -v build="$name" -v suite="$suite" -v rc="$rc" '
        { sub(/,$/, "", $4) }
        /^\[ RUN      \] / { running = $4 }
        /^\[       OK \] / { print build, $4, "ok"; running = "" }
        /^\[  SKIPPED \] / { running = "" }
        /^\[  FAILED  \] .* \([0-9]+ ms\)$/ { print build, $4, "fail"; running = ""; failed = 1 }
        END {
            if (running != "") { print build, running, "fail" }
            else if (rc != 0 && !failed) { print build, suite ".(process)", "fail" }
        }' "$log"
}

# All repeats of every suite in one build.
soak() {
    local name=$1 dir=$root/build/$1
    local results=$out/$name.results
    : >"$results"
    for ((i = 1; i <= repeats; i++)); do
        for suite in "${suites[@]}"; do
            local log=$out/$name-$suite-$i.log rc=0
            (cd "$dir/tests" && timeout -s KILL "$limit" "./$suite" --gtest_filter="-$exclude" \
                >"$log" 2>&1) || rc=$?
            record "$name" "$suite" "$log" "$rc" >>"$results"
            if [ "$rc" -eq 0 ]; then
                rm -f "$log"
            fi
        done
    done
}

# A busy loop on one core while the suites run.
busy() {
    while :; do :; done
}

echo "== soak: $repeats repeats of ${suites[*]} in the tsan and asan builds, with a busy loop"
start=$SECONDS
busy &
busy_pid=$!
trap 'kill "$busy_pid" 2>/dev/null || true' EXIT
soak tsan &
tsan_pid=$!
soak asan &
asan_pid=$!
wait "$tsan_pid" "$asan_pid"
kill "$busy_pid" 2>/dev/null || true
wait "$busy_pid" 2>/dev/null || true
trap - EXIT

echo "== soak results: build, test, runs, failures ($((SECONDS - start)) s)"
cat "$out"/tsan.results "$out"/asan.results | awk '
    { key = $1 " " $2; runs[key]++; if ($3 == "fail") fails[key]++ }
    END {
        for (key in runs) { printf "%-90s %5d %5d\n", key, runs[key], fails[key] + 0 }
    }' | sort >"$out/summary"
cat "$out/summary"
failures=$(awk '{ sum += $NF } END { print sum + 0 }' "$out/summary")
if [ "$failures" -ne 0 ]; then
    echo "== soak: $failures failed runs; their logs are in build/soak/"
    exit 1
fi
echo "== soak: no failures"
