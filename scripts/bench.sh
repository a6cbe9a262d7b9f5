#!/usr/bin/env bash
# Builds the optimised tree (only what changed) and runs every benchmark, each against raw libcurl
# or a plain alternative in the same run; every figure is one `RESULT name layer=... raw=...
# ratio=...` line (see bench/harness.h). With --quick each runs in its smoke-test size: about
# half a minute in all on a two-core machine, no thresholds.
set -euo pipefail
cd "$(dirname "$0")/.."
build=${BENCH_BUILD_DIR:-build/release}
case ${1:-} in
    --quick) mode=(--quick) limit=120 ;;
    "") mode=() limit=1800 ;;
    *) echo "usage: $0 [--quick]" >&2; exit 2 ;;
esac

cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DKIV_HTTP_BUILD_BENCH=ON >/dev/null
cmake --build "$build" -j "${JOBS:-2}" --target bench_transfer bench_parts bench_scale

failed=()
start=$SECONDS
for bench in transfer parts scale; do
    echo "== bench_$bench ${mode[*]:-} (load: $(cut -d' ' -f1-3 /proc/loadavg))"
    timeout "$limit" "$build/bench/bench_$bench" "${mode[@]}" || failed+=("bench_$bench")
done
echo "== benchmarks done in $((SECONDS - start)) s"
if ((${#failed[@]})); then
    echo "FAILED: ${failed[*]}" >&2
    exit 1
fi
