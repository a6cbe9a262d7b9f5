#include "bench/harness.h"

#include <curl/curl.h>
#include <dirent.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <sstream>

#include "core/utility/kiv_log.h"

namespace kiv_bench {
namespace {

bool g_quick = false;
std::map<std::string, double> g_args;
double g_busy0 = 0, g_own0 = 0;  // at the start of the current phase
int64_t g_wall0 = 0;

std::string slurp(const char* path) {
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

// CPU seconds all cores spent busy: the first line of /proc/stat is user nice system idle iowait
// irq softirq steal, in clock ticks.
double machine_busy_seconds() {
    unsigned long long v[8] = {};
    sscanf(slurp("/proc/stat").c_str(), "cpu %llu %llu %llu %llu %llu %llu %llu %llu", &v[0], &v[1],
           &v[2], &v[3], &v[4], &v[5], &v[6], &v[7]);
    return static_cast<double>(v[0] + v[1] + v[2] + v[5] + v[6] + v[7]) / sysconf(_SC_CLK_TCK);
}

double own_seconds() {
    rusage self{}, children{};
    getrusage(RUSAGE_SELF, &self);
    getrusage(RUSAGE_CHILDREN, &children);
    auto s = [](const timeval& t) { return static_cast<double>(t.tv_sec) + t.tv_usec * 1e-6; };
    return s(self.ru_utime) + s(self.ru_stime) + s(children.ru_utime) + s(children.ru_stime);
}

}  // namespace

void start(int argc, char** argv, bool curl) {
    for (int i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "--quick") == 0) {
            g_quick = true;
        } else if (strncmp(argv[i], "--", 2) == 0 && i + 1 < argc) {
            g_args[argv[i] + 2] = atof(argv[i + 1]);
            ++i;
        } else {
            fprintf(stderr, "usage: %s [--quick] [--NAME VALUE]... (see its source)\n", argv[0]);
            exit(2);
        }
    }
    if (curl) {
        curl_global_init(CURL_GLOBAL_ALL);
    }
    kiv::set_log_level(2);
    begin_phase();
}

double arg(const char* name, double full, double quick_value) {
    auto it = g_args.find(name);
    return it != g_args.end() ? it->second : g_quick ? quick_value : full;
}

int64_t now_ns() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

void sleep_until_ns(int64_t deadline) {
    const timespec ts{static_cast<time_t>(deadline / 1000000000), deadline % 1000000000};
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &ts, nullptr) != 0) {
    }
}

void sleep_ms(double ms) {
    sleep_until_ns(now_ns() + static_cast<int64_t>(ms * 1e6));
}

double quantile(std::vector<double> values, double q) {
    if (values.empty()) {
        return 0;
    }
    const size_t n = values.size();
    const size_t rank = std::min(std::max<size_t>(static_cast<size_t>(std::ceil(q * n)), 1), n);
    std::nth_element(values.begin(), values.begin() + static_cast<long>(rank - 1), values.end());
    return values[rank - 1];
}

double process_cpu_seconds() {
    return thread_cpu_seconds(0);
}

double thread_cpu_seconds(pthread_t thread) {
    clockid_t clock = CLOCK_PROCESS_CPUTIME_ID;
    timespec ts{};
    if (thread != 0 && pthread_getcpuclockid(thread, &clock) != 0) {
        return 0;
    }
    clock_gettime(clock, &ts);
    return static_cast<double>(ts.tv_sec) + ts.tv_nsec * 1e-9;
}

long rss_kib() {
    long size = 0, resident = 0;
    sscanf(slurp("/proc/self/statm").c_str(), "%ld %ld", &size, &resident);
    return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

int thread_count() {
    const std::string status = slurp("/proc/self/status");
    const size_t at = status.find("\nThreads:");
    return at == std::string::npos ? 0 : atoi(status.c_str() + at + 9);
}

rlim_t raise_nofile(rlim_t want) {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    const rlim_t most = std::max(want, limit.rlim_max);
    const rlimit raised{most, most};
    if (setrlimit(RLIMIT_NOFILE, &raised) != 0) {  // a hard limit rises only with privilege
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &limit);
    }
    getrlimit(RLIMIT_NOFILE, &limit);
    return limit.rlim_cur;
}

int open_files() {
    DIR* dir = opendir("/proc/self/fd");
    int entries = 0;
    while (dir && readdir(dir)) {
        ++entries;
    }
    if (dir) {
        closedir(dir);
    }
    return entries - 3;  // ".", ".." and the directory's own descriptor
}

void begin_phase() {
    if (g_wall0 != 0 && now_ns() - g_wall0 < 1000000000) {
        return;
    }
    g_busy0 = machine_busy_seconds();
    g_own0 = own_seconds();
    g_wall0 = now_ns();
}

double others_pct() {
    const double seconds = static_cast<double>(now_ns() - g_wall0) * 1e-9;
    const double others = (machine_busy_seconds() - g_busy0) - (own_seconds() - g_own0);
    return std::min(100.0, std::max(0.0, 100.0 * others / (seconds * cpu_count())));
}

void result(const char* name, double layer, double raw, const char* unit, const std::string& extra,
            double others) {
    const std::string ratio = raw != 0 ? fmt("%.3f", layer / raw) : "-";
    printf("RESULT %s layer=%.4g raw=%.4g ratio=%s unit=%s others=%.0f%%%s\n", name, layer, raw,
           ratio.c_str(), unit, others < 0 ? others_pct() : others, extra.c_str());
    fflush(stdout);
}

void result_tails(const std::string& name, const std::vector<double> (&sides)[2], const char* unit,
                  const std::string& extra) {
    for (double q : {0.5, 0.99}) {
        const double l = quantile(sides[0], q), r = quantile(sides[1], q);
        result(fmt("%s_p%.0f", name.c_str(), q * 100).c_str(), l, r, unit,
               fmt(" samples=%zu+%zu diff=%.4g", sides[0].size(), sides[1].size(), l - r) + extra);
    }
}

std::string fmt(const char* format, ...) {
    char buf[512];
    va_list ap;
    va_start(ap, format);
    vsnprintf(buf, sizeof buf, format, ap);
    va_end(ap);
    return buf;
}

}  // namespace kiv_bench
