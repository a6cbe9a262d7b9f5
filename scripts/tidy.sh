#!/usr/bin/env bash
# Runs clang-tidy (checks in .clang-tidy) over the sources of core/ and tools/, two files at a
# time, with the compile commands of a clang build in build/tidy. Fails on any finding.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
cmake -S . -B build/tidy -G Ninja -DCMAKE_BUILD_TYPE=Debug -DCMAKE_C_COMPILER=clang \
    -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_EXPORT_COMPILE_COMMANDS=ON -DKIV_HTTP_BUILD_TESTS=OFF \
    -DKIV_HTTP_BUILD_BENCH=OFF >/dev/null
git ls-files 'core/*.cpp' 'tools/*.cpp' |
    xargs -P "${JOBS:-2}" -n 1 clang-tidy -p build/tidy --quiet 2>/dev/null
echo "clang-tidy: no findings"
