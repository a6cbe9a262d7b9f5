// Many concurrent streaming pairs (one chunked upload + one chunked download each), the layer
// against raw libcurl with one thread per transfer:
//
//  - real time: every pair uploads a 1280-byte frame every 40 ms through send_data (raw: the
//    plain queue), and the server sends every download a 32-byte piece every 200 ms. Frames and
//    pieces carry their scheduled time; one is late when it reaches the server (a whole frame)
//    or the caller's callback (a piece) more than 200 ms after it. Figures: client CPU (the
//    process less the server thread, % of one core), late or missing frames and pieces, p99
//    lateness of each;
//  - idle: the same pairs connected with nothing flowing: client CPU;
//  - memory per pair: resident growth from connecting the pairs, over a warmed-up baseline;
//  - capacity: doubling from 64 pairs, the largest N a side carries with nothing late or
//    missing, every final delivery clean and client CPU under 80% of all cores; each side stops
//    at its first failure, and the reason is printed (lateness, missing, CPU, connections that
//    never came up, thread creation, the open-file limit).
//
// Every measurement runs in a fresh process of this program (`--step`, bounded by alarm()), so
// that neither side's threads, allocator caches or memory linger in the other's figures.
//
// Usage: bench_scale [--quick] [--pairs 500] [--seconds 10] [--idle 3] [--rounds 2]
//                    [--scan-seconds 5] [--max-pairs 4096]

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "bench/harness.h"
#include "bench/loopback_server.h"
#include "bench/streams.h"

namespace {

using namespace kiv_bench;

const int64_t kFramePeriod = 40 * 1000000LL;
const int64_t kPiecePeriod = 200 * 1000000LL;
const double kLateMs = 200;

// What one step process measured.
struct Step {
    int pairs = 0;
    double cpu = 0, server_cpu = 0, idle_cpu = 0, kib = 0, others = 0;  // CPU in % of one core
    long frames = 0, frames_seen = 0, frames_late = 0, pieces = 0, pieces_seen = 0, pieces_late = 0,
         finals_bad = 0, threads = 0, files = 0;
    double frame_p99 = 0, piece_p99 = 0;
    char fail[200] = "";

    long late() const { return frames_late + pieces_late; }
    long missing() const { return (frames - frames_seen) + (pieces - pieces_seen); }
    // Why the step was not carried; empty when it was.
    std::string why() const {
        if (fail[0]) {
            return fail;
        }
        std::string why;
        if (late() || missing()) {
            why += fmt("%ld late and %ld missing of %ld frames and pieces; ", late(), missing(),
                       frames + pieces);
        }
        if (finals_bad) {
            why += fmt("%ld transfers without a clean final delivery; ", finals_bad);
        }
        if (cpu >= 80.0 * cpu_count()) {
            why += fmt("client CPU %.0f%% of one core is over 80%% of all cores; ", cpu);
        }
        return why.empty() ? why : why.substr(0, why.size() - 2);
    }
};

// The pairs of one side: the layer's two tasks each, or raw libcurl's two threads blocked in
// curl_easy_perform. Both sides allocate the same Pair, so that it weighs alike in their memory.
struct Fleet {
    struct Pair {
        kiv_shared_ptr<LayerStream> up{new LayerStream}, down{new LayerStream};
        kiv_shared_ptr<kiv_http_request_maker> up_task, down_task;
        PlainQueue queue;
        long up_status = 0, down_status = 0;
        std::thread up_thread, down_thread;
    };
    explicit Fleet(bool layer_side) : layer(layer_side) {}
    const bool layer;
    std::deque<Pair> pairs;
    kiv_shared_ptr<unsigned char> buffer = kiv::Memory::make_shared_array<unsigned char>(kFrame);

    bool open(LoopbackServer& server) {
        Pair& p = pairs.emplace_back();
        p.down->sink.records = true;
        const std::string up = server.url("/up/frames"), down = server.url("/stream");
        if (layer) {
            p.up_task = LayerStream::start(up, true, p.up);
            p.down_task = LayerStream::start(down, false, p.down);
            return true;
        }
        try {
            p.up_thread = std::thread([&p, up] { p.up_status = raw_upload(up, &p.queue); });
            p.down_thread =
                std::thread([&p, down] { p.down_status = raw_download(down, &p.down->sink); });
        } catch (const std::system_error&) {
            return false;
        }
        return true;
    }
    // send_data copies the bytes, so one buffer serves every frame.
    void send(size_t i, const unsigned char* frame, size_t len, bool last) {
        if (layer) {
            std::copy(frame, frame + len, buffer.getPTR());
            pairs[i].up_task->send_data(buffer, static_cast<long>(len), last);
        } else {
            pairs[i].queue.push(frame, len, last);
        }
    }
    bool wait(size_t i, int64_t deadline) {  // raw: bounded by the step's alarm
        Pair& p = pairs[i];
        const int left = static_cast<int>((deadline - now_ns()) / 1000000);
        if (layer) {
            return p.up->wait_ok(left) && p.down->wait_ok(left);
        }
        p.up_thread.join();
        p.down_thread.join();
        return p.up_status == 200 && p.down_status == 200;
    }
};

double client_cpu(LoopbackServer& server) {
    return process_cpu_seconds() - server.cpu_seconds();
}

// Connects `n` pairs and waits for the server to see them all; false with `why` filled when
// they did not all come up.
bool bring_up(Fleet& fleet, LoopbackServer& server, int n, char (&why)[200]) {
    for (int i = 0; i < n; ++i) {
        if (!fleet.open(server)) {
            snprintf(why, sizeof why, "thread creation failed at pair %d (%d threads)", i + 1,
                     thread_count());
            return false;
        }
    }
    int ups = 0, downs = 0;
    const int64_t deadline = now_ns() + (10000 + 5LL * n) * 1000000;
    while (server.count(&ups, &downs), (ups < n || downs < n) && now_ns() < deadline) {
        sleep_ms(20);
    }
    if (ups < n || downs < n) {
        snprintf(why, sizeof why,
                 "only %d of %d uploads and %d of %d downloads came up (%d threads and %d open "
                 "files in the process)",
                 ups, n, downs, n, thread_count(), open_files());
        return false;
    }
    return true;
}

// Sends every pair a frame every 40 ms for `seconds`, the pairs spread over the period; each
// frame starts with its scheduled time. Returns the number of frames.
long produce(Fleet& fleet, size_t n, int64_t start, double seconds) {
    unsigned char frame[kFrame];
    memset(frame, 'f', sizeof frame);
    const int64_t end = start + static_cast<int64_t>(seconds * 1e9);
    long e = 0;
    for (;; ++e) {
        const int64_t at = start + e * kFramePeriod / static_cast<int64_t>(n);
        if (at >= end) {
            return e;
        }
        if (at > now_ns()) {
            sleep_until_ns(at);
        }
        memcpy(frame, &at, sizeof at);
        fleet.send(static_cast<size_t>(e) % n, frame, kFrame, false);
    }
}

// Streams on every pair for `seconds`, then ends every transfer cleanly (the last upload chunk,
// the last download chunk) and fills the streaming figures of `s`.
void stream(Fleet& fleet, LoopbackServer& server, double seconds, Step& s) {
    const int64_t start = now_ns() + 5000000;
    server.go(start, kPiecePeriod);
    const double cpu0 = client_cpu(server), server0 = server.cpu_seconds();
    s.frames = produce(fleet, fleet.pairs.size(), start, seconds);
    const double wall = static_cast<double>(now_ns() - start) * 1e-9;
    s.cpu = 100 * (client_cpu(server) - cpu0) / wall;
    s.server_cpu = 100 * (server.cpu_seconds() - server0) / wall;
    s.others = others_pct();
    sleep_ms(kLateMs + 100);  // frames in flight get their allowance
    LoopbackServer::Figures figures = server.stop();
    for (size_t i = 0; i < fleet.pairs.size(); ++i) {
        fleet.send(i, nullptr, 0, true);
    }
    const int64_t deadline = now_ns() + 15000000000LL;
    std::vector<double> pieces;
    for (size_t i = 0; i < fleet.pairs.size(); ++i) {
        s.finals_bad += fleet.wait(i, deadline) ? 0 : 1;
        for (float d : fleet.pairs[i].down->sink.delay_ms) {
            pieces.push_back(d);
            s.pieces_late += d > kLateMs;
        }
    }
    for (double d : figures.frame_delay_ms) {
        s.frames_late += d > kLateMs;
    }
    s.frames_seen = static_cast<long>(figures.frame_delay_ms.size());
    s.pieces = static_cast<long>(figures.pieces_sent);
    s.pieces_seen = static_cast<long>(pieces.size());
    s.frame_p99 = quantile(figures.frame_delay_ms, 0.99);
    s.piece_p99 = quantile(pieces, 0.99);
}

// The fleets are never freed: the process ends with _exit, and after a failed step threads may
// still run transfers (or start queued ones) that use their pairs.
void measure(bool layer, LoopbackServer& server, int n, double seconds, double idle, Step& s) {
    Step warm;  // pool, timer thread, allocator and libcurl first-use costs go into the baseline
    Fleet* few = new Fleet(layer);
    if (bring_up(*few, server, 4, warm.fail)) {
        stream(*few, server, 0.1, warm);
    }
    sleep_ms(200);
    const long rss0 = rss_kib();
    Fleet& fleet = *new Fleet(layer);
    const bool up = bring_up(fleet, server, n, s.fail);
    s.threads = thread_count();
    s.files = open_files();
    if (!up) {
        return;
    }
    sleep_ms(500);
    begin_phase();
    const double cpu0 = client_cpu(server);
    sleep_ms(idle * 1000);
    s.idle_cpu = 100 * (client_cpu(server) - cpu0) / idle;
    s.kib = static_cast<double>(rss_kib() - rss0) / n;
    stream(fleet, server, seconds, s);
}

// The step process: measures one side once and writes its Step to the parent through stdout.
int run_step(bool layer, int n, double seconds, double idle) {
    alarm(static_cast<unsigned>(60 + seconds + idle + n / 50));
    Step s;
    s.pairs = n;
    // Each transfer holds its socket and libcurl's wake-up socket pair, and the server, in this
    // process, its end of the connection: eight descriptors a pair.
    const rlim_t need = 8 * static_cast<rlim_t>(n) + 64, limit = raise_nofile(need);
    if (need > limit) {
        snprintf(s.fail, sizeof s.fail, "%d pairs need %lu descriptors; the open-file limit is %lu",
                 n, static_cast<unsigned long>(need), static_cast<unsigned long>(limit));
    } else {
        start(1, nullptr, true);
        LoopbackServer server;
        measure(layer, server, n, seconds, idle, s);
    }
    fwrite(&s, sizeof s, 1, stdout);
    fflush(stdout);
    _exit(0);  // threads may still be blocked in transfers that never came up
}

// Runs one step in a new process of this program.
Step spawn(bool layer, int n, double seconds, double idle) {
    char self[4096] = {};
    if (readlink("/proc/self/exe", self, sizeof self - 1) <= 0) {
        perror("/proc/self/exe");
        exit(1);
    }
    FILE* child = popen(
        fmt("'%s' --step %s %d %g %g", self, layer ? "layer" : "raw", n, seconds, idle).c_str(),
        "r");
    Step s;
    s.pairs = n;
    const bool read = child && fread(&s, sizeof s, 1, child) == 1;
    const int status = child ? pclose(child) : -1;
    if (!read) {  // SIGALRM (14) is the step's time bound
        snprintf(s.fail, sizeof s.fail, "the step process ended without its figures (%s %d)",
                 WIFSIGNALED(status) ? "signal" : "status",
                 WIFSIGNALED(status) ? WTERMSIG(status) : WEXITSTATUS(status));
    }
    const std::string why = s.why();
    printf(
        "  %-5s %4d pairs: client CPU %5.1f%% of a core (server %.1f%%), idle %.2f%%, "
        "%.0f KiB per pair, %ld threads, %ld files, p99 piece %.2f ms frame %.2f ms, others "
        "%.0f%%: %s\n",
        layer ? "layer" : "raw", n, s.cpu, s.server_cpu, s.idle_cpu, s.kib, s.threads, s.files,
        s.piece_p99, s.frame_p99, s.others,
        why.empty() ? "carried" : ("NOT carried: " + why).c_str());
    fflush(stdout);
    return s;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 6 && strcmp(argv[1], "--step") == 0) {
        return run_step(strcmp(argv[2], "layer") == 0, atoi(argv[3]), atof(argv[4]), atof(argv[5]));
    }
    start(argc, argv, false);
    const int pairs = static_cast<int>(arg("pairs", 500, 100));
    const double seconds = arg("seconds", 10, 2);
    const double idle = arg("idle", 3, 1);
    const int rounds = static_cast<int>(arg("rounds", 2, 1));
    const double scan_seconds = arg("scan-seconds", 5, 1);
    const int max_pairs = static_cast<int>(arg("max-pairs", 4096, 128));

    printf("real time: %d pairs, %d rounds of %g s per side\n", pairs, rounds, seconds);
    std::vector<Step> sides[2];  // [0] layer, [1] raw
    alternate(rounds, [&](bool layer) {
        sides[layer ? 0 : 1].push_back(spawn(layer, pairs, seconds, idle));
    });
    std::vector<double> others;
    long late[2] = {0, 0}, missing[2] = {0, 0};
    for (int k = 0; k < 2; ++k) {
        for (const Step& s : sides[k]) {
            others.push_back(s.others);
            late[k] += s.late();
            missing[k] += s.missing() + s.finals_bad;
        }
    }
    const double load = quantile(others, 0.5);
    const std::string n = fmt(" pairs=%d", pairs);
    auto both = [&](const char* name, double Step::*field, const char* unit) {  // medians
        std::vector<double> v[2];
        for (int k = 0; k < 2; ++k) {
            for (const Step& s : sides[k]) {
                v[k].push_back(s.*field);
            }
        }
        const double l = quantile(v[0], 0.5), r = quantile(v[1], 0.5);
        result(name, l, r, unit, n + fmt(" diff=%.3f", l - r), load);
    };
    both("scale_rt_client_cpu", &Step::cpu, "%core");
    result("scale_rt_late", static_cast<double>(late[0]), static_cast<double>(late[1]), "count",
           n + fmt(" late_ms=%.0f", kLateMs), load);
    result("scale_rt_missing", static_cast<double>(missing[0]), static_cast<double>(missing[1]),
           "count", n + " of=frames+pieces+finals", load);
    both("scale_rt_piece_p99", &Step::piece_p99, "ms");
    both("scale_rt_frame_p99", &Step::frame_p99, "ms");
    both("scale_idle_client_cpu", &Step::idle_cpu, "%core");
    both("scale_memory_per_pair", &Step::kib, "KiB");

    printf("capacity: doubling from 64 to %d pairs, %g s each\n", max_pairs, scan_seconds);
    int carried[2] = {0, 0}, stop[2] = {0, 0};
    std::string why[2];
    double kib[2] = {0, 0};
    int kib_pairs = 0;
    others.clear();
    for (int n = 64, i = 0; n <= max_pairs && (!stop[0] || !stop[1]); n *= 2, ++i) {
        Step step[2];
        for (int j = 0; j < 2; ++j) {
            const int k = (i + j) % 2;
            if (!stop[k]) {
                step[k] = spawn(k == 0, n, scan_seconds, 1);
                others.push_back(step[k].others);
                why[k] = step[k].why();
                (why[k].empty() ? carried[k] : stop[k]) = n;
            }
        }
        if (step[0].kib > 0 && step[1].kib > 0) {  // both connected
            kib[0] = step[0].kib;
            kib[1] = step[1].kib;
            kib_pairs = n;
        }
    }
    for (int k = 0; k < 2; ++k) {
        printf("capacity %s: carried %d pairs; %s\n", k ? "raw" : "layer", carried[k],
               stop[k] ? fmt("stopped at %d: %s", stop[k], why[k].c_str()).c_str()
                       : "no step failed up to the largest step tried");
    }
    result("scale_capacity", carried[0], carried[1], "pairs",
           fmt(" layer_stop=%d raw_stop=%d max=%d", stop[0], stop[1], max_pairs),
           quantile(others, 0.5));
    result("scale_memory_per_pair_max", kib[0], kib[1], "KiB", fmt(" pairs=%d", kib_pairs),
           quantile(others, 0.5));
    return 0;
}
