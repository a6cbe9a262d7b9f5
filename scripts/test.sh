#!/usr/bin/env bash
# Installs the dependencies, then builds and runs the whole test suite three times: an optimised
# build (which also checks that an installed copy works through find_package and that the
# library works through add_subdirectory), an AddressSanitizer + UndefinedBehaviorSanitizer
# build that halts on the first error, and a ThreadSanitizer build.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
jobs=${JOBS:-2}

bash scripts/install-deps.sh

export ASAN_OPTIONS=halt_on_error=1:detect_leaks=1:abort_on_error=0
export UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1
export TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1

run_suite() {
    local dir=$1; shift
    cmake -S "$root" -B "$dir" -G Ninja "$@" >/dev/null
    cmake --build "$dir" -j "$jobs"
    ctest --test-dir "$dir" -j "$jobs" --output-on-failure --timeout 300 ${CTEST_ARGS:-}
}

echo "== optimised build"
run_suite build/release -DCMAKE_BUILD_TYPE=Release -DKIV_HTTP_CONSUMER_TESTS=ON

echo "== benchmarks, quick form (a smoke test: they run and print their figures)"
BENCH_BUILD_DIR=build/release bash scripts/bench.sh --quick

echo "== AddressSanitizer + UndefinedBehaviorSanitizer build"
run_suite build/asan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKIV_HTTP_SANITIZE=address \
    -DKIV_HTTP_BUILD_BENCH=OFF

echo "== ThreadSanitizer build"
CTEST_ARGS="-LE demo" run_suite build/tsan -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DKIV_HTTP_SANITIZE=thread -DKIV_HTTP_BUILD_BENCH=OFF -DKIV_HTTP_BUILD_TOOLS=OFF

echo "== soak, short form: the concurrency suites 3 times in both sanitizer builds beside a busy loop"
bash scripts/soak.sh 3

echo "== clang build: lock annotations checked (-Wthread-safety -Werror), everything compiled"
cmake -S "$root" -B build/clang -G Ninja -DCMAKE_BUILD_TYPE=Debug -DCMAKE_C_COMPILER=clang \
    -DCMAKE_CXX_COMPILER=clang++ -DKIV_HTTP_BUILD_BENCH=OFF >/dev/null
cmake --build build/clang -j "$jobs"

echo "== clang-tidy over core/ and tools/"
bash scripts/tidy.sh

echo "== fuzzers, 20 s each"
bash scripts/fuzz.sh 20
