#!/usr/bin/env bash
# Builds two small programs against the library, one through find_package after an install and
# one through add_subdirectory, and runs them.
set -euo pipefail
source_dir=$1
build_dir=$2
work="$build_dir/consumer-check"
rm -rf "$work"
mkdir -p "$work"
cmake --install "$build_dir" --prefix "$work/prefix" >/dev/null
cmake -S "$source_dir/tests/consumer/installed" -B "$work/installed" -G Ninja \
    -DCMAKE_PREFIX_PATH="$work/prefix" >/dev/null
cmake --build "$work/installed" >/dev/null
"$work/installed/consumer"
cmake -S "$source_dir/tests/consumer/subdir" -B "$work/subdir" -G Ninja \
    -DKIV_HTTP_SOURCE_DIR="$source_dir" >/dev/null
cmake --build "$work/subdir" >/dev/null
"$work/subdir/consumer"
# A parent project must not get the library's tests, benchmarks or tools.
if [ -d "$work/subdir/kiv_http/tests" ] || [ -d "$work/subdir/kiv_http/bench" ]; then
    echo "tests or benchmarks were configured in a parent project" >&2
    exit 1
fi
echo "consumers built and ran"
