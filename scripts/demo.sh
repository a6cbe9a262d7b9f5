#!/usr/bin/env bash
# Installs the dependencies, builds the kiv-http tool and runs its live demo: synthesized speech
# streams up through a chunked upload while the recognition results stream back down.
# Extra arguments go to `kiv-http demo` (for example --fast, --https, --text "call mom").
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
cmake -S . -B build/demo -G Ninja -DCMAKE_BUILD_TYPE=Release -DKIV_HTTP_BUILD_TESTS=OFF \
    -DKIV_HTTP_BUILD_BENCH=OFF >/dev/null
cmake --build build/demo -j "${JOBS:-2}" --target kiv-http
exec build/demo/tools/kiv-http demo "$@"
