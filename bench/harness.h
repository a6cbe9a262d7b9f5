// What every benchmark shares: the command line (--quick), rounds that alternate the layer with
// its baseline, one quantile rule, clocks, CPU and memory readings, and the one-line result
// format
//
//   RESULT name layer=<x> raw=<y> ratio=<x/y> unit=<u> others=<load> [more fields]
//
// where `raw` is the baseline doing the same work in the same run (raw libcurl for the
// transport, std::thread, memcpy or a plain mutex for the parts), and `others` is the share of
// the machine's cores that other processes used while the figure was measured: the machine is
// shared, and a ratio taken under load should be read with that load in mind.

#ifndef KIV_BENCH_HARNESS_H
#define KIV_BENCH_HARNESS_H

#include <pthread.h>
#include <sys/resource.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

namespace kiv_bench {

// Parses the common flags (--quick, --NAME VALUE), starts libcurl when `curl` (once, before any
// thread) and keeps the library's log at errors. Exits on an unknown flag.
void start(int argc, char** argv, bool curl);
// The value of `--name V`, or `full` / `quick_value` as the mode says.
double arg(const char* name, double full, double quick_value);

int64_t now_ns();
void sleep_until_ns(int64_t deadline);
void sleep_ms(double ms);

// Nearest rank: the smallest value with at least a fraction `q` of all values at or below it
// (q = 0.5: the lower median). 0 for no values.
double quantile(std::vector<double> values, double q);

// CPU seconds (user + system) of the whole process, every thread included, and of one thread.
double process_cpu_seconds();
double thread_cpu_seconds(pthread_t thread);
long rss_kib();
int thread_count();
int open_files();
inline unsigned cpu_count() {
    return std::max(1u, std::thread::hardware_concurrency());
}
// Raises the open-file limit to `want` (the hard limit too, where privileged), else as far as
// the hard limit allows; returns the new soft limit.
rlim_t raise_nofile(rlim_t want);

// Runs `rounds` rounds of both sides, the first side alternating (layer-raw, raw-layer, ...),
// so that a change in the machine's load hits both alike. side(true) runs the layer.
template <typename Side>
void alternate(int rounds, Side&& side) {
    for (int r = 0; r < rounds; ++r) {
        side(r % 2 == 0);
        side(r % 2 != 0);
    }
}

// Share of all cores (percent) that other processes used since the last begin_phase() (or
// start()): busy time from /proc/stat minus this process's and its reaped children's CPU time.
// /proc/stat counts clock ticks, so begin_phase() keeps a window younger than a second open.
void begin_phase();
double others_pct();

// Prints one RESULT line; `ratio` is layer / raw ("-" when raw is 0). `extra` is appended as is
// (" key=value ..."). `others` < 0 takes others_pct().
void result(const char* name, double layer, double raw, const char* unit,
            const std::string& extra = std::string(), double others = -1);

// RESULT <name>_p50 and <name>_p99 of the samples of each side ([0] layer, [1] raw), with their
// difference.
void result_tails(const std::string& name, const std::vector<double> (&sides)[2], const char* unit,
                  const std::string& extra = std::string());

// printf into a std::string, for the `extra` fields.
std::string fmt(const char* format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace kiv_bench

#endif
