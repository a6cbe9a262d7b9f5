// Chunked upload over loopback, in the same run and alternating round by round:
//  - the layer (HTTP_REQUEST_METHOD_CHUNK_UP) fed by send_data in 64 KiB pieces from a producer
//    thread;
//  - plain libcurl with the same options, fed the same way through a mutex + condition-variable
//    queue (the code a user would otherwise write);
//  - plain libcurl whose read callback copies straight from a preallocated buffer (the ceiling).
// The producers keep at most `window` (1 MiB) ahead of what the server has read, as a live source
// would, so that both queues stay small and the measurement is of the hand-off, not of queue
// growth. (A larger window costs the layer more: its ring buffer grows to the window and every
// byte then cycles through memory that no longer fits the cache, while the plain queue reuses
// the same few freed pieces.)
// The server decodes the chunked framing, counts the bytes, and answers "100 Continue" at once
// and 200 at the end. Time to first body byte is measured on short uploads of their own.
//
// Then latency: one byte through send_data, the server stamps its arrival, 20 ms idle, repeat;
// the same through the plain queue for reference.
//
// Usage: bench_upload [rounds=32] [mib_per_round=64] [latency_samples=500] [verbose=0] [pin=1]
//                     [window_kib=1024]

#include <curl/curl.h>

#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "bench/bench_server.h"
#include "core/utility/kiv_log.h"

namespace {

using namespace kiv_bench;
using kiv::Networking::HTTP_REQUEST_METHOD_CHUNK_UP;

const size_t kPiece = 64 * 1024;
// How far a producer may run ahead of the server (argv; 1 MiB by default).
uint64_t g_window = 1 << 20;

// What the server saw of the current upload.
struct UploadState {
    std::mutex mutex;
    std::condition_variable changed;
    bool notify_each = false;  // latency mode: publish every arrival under the lock
    bool head_seen = false;
    bool done = false;
    int64_t first_byte_ns = 0;
    int64_t last_arrival_ns = 0;
    double server_cpu = 0;  // CPU seconds of the server thread for this upload
    std::atomic<uint64_t> bytes{0};

    void reset(bool latency) {
        std::lock_guard<std::mutex> lock(mutex);
        notify_each = latency;
        head_seen = done = false;
        first_byte_ns = last_arrival_ns = 0;
        server_cpu = 0;
        bytes = 0;
    }
};

UploadState g_state;

void serve_upload(int fd) {
    const double cpu_start = thread_cpu_seconds();
    RequestHead head;
    if (!read_request_head(fd, head) || !head.chunked) {
        return;
    }
    if (head.expect_continue && !send_all(fd, kContinue, sizeof kContinue - 1)) {
        return;
    }
    bool notify_each;
    {
        std::lock_guard<std::mutex> lock(g_state.mutex);
        g_state.head_seen = true;
        notify_each = g_state.notify_each;
    }
    g_state.changed.notify_all();
    ChunkedDecoder decoder;
    uint64_t bytes = 0;
    auto count = [&](const char*, size_t n) { bytes += n; };
    std::vector<char> buf(256 * 1024);
    decoder.feed(head.rest.data(), head.rest.size(), count);
    while (!decoder.done() && !decoder.bad()) {
        ssize_t n = recv(fd, buf.data(), buf.size(), 0);
        if (n <= 0) {
            return;
        }
        const uint64_t before = bytes;
        decoder.feed(buf.data(), static_cast<size_t>(n), count);
        if (bytes == before) {
            continue;
        }
        const int64_t now = now_ns();
        if (before == 0) {
            std::lock_guard<std::mutex> lock(g_state.mutex);
            g_state.first_byte_ns = now;
        }
        if (notify_each) {
            {
                std::lock_guard<std::mutex> lock(g_state.mutex);
                g_state.last_arrival_ns = now;
                g_state.bytes.store(bytes);
            }
            g_state.changed.notify_all();
        } else {
            g_state.bytes.store(bytes, std::memory_order_relaxed);
        }
    }
    if (decoder.bad()) {
        fprintf(stderr, "server: bad chunked framing\n");
        return;
    }
    {
        std::lock_guard<std::mutex> lock(g_state.mutex);
        g_state.bytes.store(bytes);
        g_state.server_cpu = thread_cpu_seconds() - cpu_start;
        g_state.done = true;
    }
    g_state.changed.notify_all();
    if (send_all(fd, kEmptyOk, sizeof kEmptyOk - 1)) {
        drain_until_close(fd);
    }
}

// Feeds `total` bytes in 64 KiB pieces through `feed(data, len, is_last)`, staying within the
// window of what the server has read.
const std::vector<unsigned char>& pattern() {
    static const std::vector<unsigned char> bytes = [] {
        std::vector<unsigned char> p(kPiece);
        for (size_t i = 0; i < p.size(); ++i) {
            p[i] = static_cast<unsigned char>(i * 131);
        }
        return p;
    }();
    return bytes;
}

template <typename Feed>
void produce(uint64_t total, Feed&& feed) {
    const int64_t give_up = now_ns() + 60LL * 1000000000LL;
    uint64_t sent = 0;
    while (sent < total) {
        while (sent - g_state.bytes.load(std::memory_order_relaxed) > g_window) {
            if (now_ns() > give_up) {
                fprintf(stderr, "producer: server stalled\n");
                exit(1);
            }
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
        const size_t n = static_cast<size_t>(std::min<uint64_t>(kPiece, total - sent));
        sent += n;
        feed(pattern().data(), n, sent == total);
    }
}

struct Run {
    double seconds = 0;
    double client_cpu = 0;  // process CPU minus the server thread's
    long switches = 0;      // context switches of the whole process (server included)
};

long context_switches() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_nvcsw + usage.ru_nivcsw;
}

Run finish_run(int64_t start, double cpu_start, long switches_start, uint64_t total,
               const char* name) {
    Run run;
    run.seconds = static_cast<double>(now_ns() - start) * 1e-9;
    const double cpu = process_cpu_seconds() - cpu_start;
    std::lock_guard<std::mutex> lock(g_state.mutex);
    if (!g_state.done || g_state.bytes.load() != total) {
        fprintf(stderr, "%s: server got %" PRIu64 " of %" PRIu64 " bytes\n", name,
                g_state.bytes.load(), total);
        exit(1);
    }
    run.client_cpu = cpu - g_state.server_cpu;
    run.switches = context_switches() - switches_start;
    return run;
}

Run layer_upload(const std::string& url, uint64_t total) {
    g_state.reset(false);
    kiv_shared_ptr<StreamCaller> param(new StreamCaller);
    const double cpu_start = process_cpu_seconds();
    // The producer keeps one buffer holding the pattern: send_data copies the bytes into the
    // task's queue, as the plain queue's push copies them into a new piece, so each side copies
    // each byte once on the way in.
    kiv_shared_ptr<unsigned char> buffer = kiv::Memory::make_shared_array<unsigned char>(kPiece);
    memcpy(buffer.getPTR(), pattern().data(), kPiece);
    const long switches_start = context_switches();
    const int64_t start = now_ns();
    kiv_shared_ptr<kiv_http_request_maker> task =
        start_stream(url, HTTP_REQUEST_METHOD_CHUNK_UP, param);
    std::thread producer([&] {
        produce(total, [&](const unsigned char*, size_t len, bool last) {
            task->send_data(buffer, static_cast<long>(len), last);
        });
    });
    producer.join();
    if (!param->wait_final(std::chrono::seconds(60)) || param->final_status != 200) {
        fprintf(stderr, "layer upload: final status %d error %d\n", param->final_status,
                static_cast<int>(param->final_error));
        exit(1);
    }
    return finish_run(start, cpu_start, switches_start, total, "layer upload");
}

// Plain libcurl on the calling thread with `read` / `data` as the body source.
void raw_perform(const std::string& url, curl_read_callback read, void* data, const char* name) {
    std::atomic<bool> cancelled{false};
    CURL* curl = curl_easy_init();
    curl_slist* headers = raw_upload_options(curl, url, read, data, &cancelled);
    CURLcode code = curl_easy_perform(curl);
    long status = 0;
    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
    curl_easy_cleanup(curl);
    curl_slist_free_all(headers);
    if (code != CURLE_OK || status != 200) {
        fprintf(stderr, "%s: code %d status %ld\n", name, static_cast<int>(code), status);
        exit(1);
    }
}

Run raw_queue_upload(const std::string& url, uint64_t total) {
    g_state.reset(false);
    PlainByteQueue queue;
    const double cpu_start = process_cpu_seconds();
    const long switches_start = context_switches();
    const int64_t start = now_ns();
    std::thread producer([&] {
        produce(total, [&](const unsigned char* data, size_t len, bool last) {
            queue.push(data, len, last);
        });
    });
    raw_perform(url, &PlainByteQueue::read, &queue, "raw queue upload");
    producer.join();
    return finish_run(start, cpu_start, switches_start, total, "raw queue upload");
}

// Read callback copying straight from memory.
struct MemorySource {
    std::vector<char> block = std::vector<char>(1 << 20, 'm');
    uint64_t left = 0;
    size_t offset = 0;

    static size_t read(char* buffer, size_t size, size_t nitems, void* self_) {
        auto* self = static_cast<MemorySource*>(self_);
        size_t n = static_cast<size_t>(
            std::min<uint64_t>({size * nitems, self->left, self->block.size() - self->offset}));
        memcpy(buffer, self->block.data() + self->offset, n);
        self->offset = (self->offset + n) % self->block.size();
        self->left -= n;
        return n;
    }
};

Run raw_memory_upload(const std::string& url, uint64_t total) {
    g_state.reset(false);
    MemorySource source;
    source.left = total;
    const double cpu_start = process_cpu_seconds();
    const long switches_start = context_switches();
    const int64_t start = now_ns();
    raw_perform(url, &MemorySource::read, &source, "raw memory upload");
    return finish_run(start, cpu_start, switches_start, total, "raw memory upload");
}

// Sends `samples` single bytes through `send_one(is_last)` with 20 ms idle between them and
// returns the latencies (send call to server arrival) in microseconds.
template <typename Send>
std::vector<double> latency_samples(int samples, Send&& send_one) {
    std::vector<double> micros;
    {
        std::unique_lock<std::mutex> lock(g_state.mutex);
        if (!g_state.changed.wait_for(lock, std::chrono::seconds(3),
                                      [] { return g_state.head_seen; })) {
            fprintf(stderr, "latency: upload never reached the server\n");
            exit(1);
        }
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    for (int i = 0; i < samples; ++i) {
        const int64_t sent_at = now_ns();
        send_one(false);
        std::unique_lock<std::mutex> lock(g_state.mutex);
        if (!g_state.changed.wait_for(lock, std::chrono::seconds(1), [&] {
                return g_state.bytes.load() >= static_cast<uint64_t>(i + 1);
            })) {
            fprintf(stderr, "latency: byte %d never arrived\n", i);
            exit(1);
        }
        micros.push_back(static_cast<double>(g_state.last_arrival_ns - sent_at) / 1000.0);
        lock.unlock();
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return micros;
}

// Time to the first body byte: the transfer starts and 1 KiB is queued at once; the server
// answers "100 Continue" as soon as it has the head. Returns start -> first byte read, in us.
double layer_first_byte(const std::string& url) {
    g_state.reset(false);
    kiv_shared_ptr<StreamCaller> param(new StreamCaller);
    kiv_shared_ptr<unsigned char> piece = kiv::Memory::make_shared_array<unsigned char>(1024);
    const int64_t start = now_ns();
    kiv_shared_ptr<kiv_http_request_maker> task =
        start_stream(url, HTTP_REQUEST_METHOD_CHUNK_UP, param);
    task->send_data(piece, 1024, true);
    if (!param->wait_final(std::chrono::seconds(10)) || param->final_status != 200) {
        fprintf(stderr, "layer first byte: no 200\n");
        exit(1);
    }
    std::lock_guard<std::mutex> lock(g_state.mutex);
    return static_cast<double>(g_state.first_byte_ns - start) / 1000.0;
}

// The baseline runs libcurl on the calling thread with the piece already queued: a thread
// started per transfer would add its own start-up, which on a busy machine is milliseconds.
double raw_first_byte(const std::string& url) {
    g_state.reset(false);
    PlainByteQueue queue;
    const unsigned char piece[1024] = {};
    const int64_t start = now_ns();
    queue.push(piece, sizeof piece, true);
    raw_perform(url, &PlainByteQueue::read, &queue, "raw first byte");
    std::lock_guard<std::mutex> lock(g_state.mutex);
    return static_cast<double>(g_state.first_byte_ns - start) / 1000.0;
}

std::vector<double> layer_latency(const std::string& url, int samples) {
    g_state.reset(true);
    kiv_shared_ptr<StreamCaller> param(new StreamCaller);
    kiv_shared_ptr<kiv_http_request_maker> task =
        start_stream(url, HTTP_REQUEST_METHOD_CHUNK_UP, param);
    kiv_shared_ptr<unsigned char> byte = kiv::Memory::make_shared_array<unsigned char>(1);
    std::vector<double> micros =
        latency_samples(samples, [&](bool last) { task->send_data(byte, 1, last); });
    task->send_data(byte, 0, true);
    if (!param->wait_final(std::chrono::seconds(10)) || param->final_status != 200) {
        fprintf(stderr, "layer latency upload: no 200\n");
        exit(1);
    }
    return micros;
}

std::vector<double> raw_latency(const std::string& url, int samples) {
    g_state.reset(true);
    PlainByteQueue queue;
    std::thread client([&] { raw_perform(url, &PlainByteQueue::read, &queue, "raw latency"); });
    const unsigned char byte = 0;
    std::vector<double> micros =
        latency_samples(samples, [&](bool last) { queue.push(&byte, 1, last); });
    queue.push(&byte, 0, true);
    client.join();
    return micros;
}

}  // namespace

int main(int argc, char** argv) {
    ThroughputArgs args{32, 64, 500};
    if (argc > 6 && atoi(argv[6]) > 0) {
        g_window = static_cast<uint64_t>(atoi(argv[6])) << 10;
    }
    if (!start_throughput_bench(argc, argv, &args, 2)) {
        return 2;
    }
    const int rounds = args.rounds;
    const int mib = args.mib;
    const int samples = args.samples;
    const bool verbose = args.verbose;
    SerialServer server(&serve_upload, args.server_cpu);
    const std::string url = server.url("/up");
    const uint64_t total = static_cast<uint64_t>(mib) * 1024 * 1024;
    const int64_t bench_start = now_ns();

    layer_upload(url, 8 << 20);  // warm-up: pool, allocator, libcurl first-use costs
    raw_queue_upload(url, 8 << 20);
    raw_memory_upload(url, 8 << 20);

    printf("upload throughput: %d rounds x %d MiB per variant, 64 KiB pieces, window %" PRIu64
           " KiB\n",
           rounds, mib, g_window >> 10);
    using Runner = Run (*)(const std::string&, uint64_t);
    const Runner runners[3] = {&layer_upload, &raw_queue_upload, &raw_memory_upload};
    std::vector<double> rate[3], vs_queue, vs_memory;
    double total_s[3] = {0, 0, 0}, cpu[3] = {0, 0, 0}, switches[3] = {0, 0, 0};
    int done_rounds = 0;
    for (int round = 0; round < rounds; ++round) {
        Run runs[3];
        for (int k = 0; k < 3; ++k) {
            const int v = (round + k) % 3;  // rotate who goes first
            runs[v] = runners[v](url, total);
        }
        for (int v = 0; v < 3; ++v) {
            rate[v].push_back(static_cast<double>(total) / runs[v].seconds / 1e6);
            total_s[v] += runs[v].seconds;
            cpu[v] += runs[v].client_cpu;
            switches[v] += static_cast<double>(runs[v].switches);
        }
        vs_queue.push_back(runs[1].seconds / runs[0].seconds);
        vs_memory.push_back(runs[2].seconds / runs[0].seconds);
        ++done_rounds;
        if (verbose) {
            printf("  round %2d: layer %6.0f MB/s  raw queue %6.0f MB/s  raw memory %6.0f MB/s\n",
                   round + 1, rate[0].back(), rate[1].back(), rate[2].back());
        }
        if (now_ns() - bench_start > 35LL * 1000000000LL && round + 1 < rounds) {
            printf("  (stopping after %d rounds: time bound)\n", round + 1);
            break;
        }
    }

    unpin_all_threads();
    std::vector<double> ttfb[2];
    for (int i = 0; i < 40; ++i) {
        for (int turn = 0; turn < 2; ++turn) {
            if ((turn + i) % 2 == 0) {
                ttfb[0].push_back(layer_first_byte(url));
            } else {
                ttfb[1].push_back(raw_first_byte(url));
            }
        }
    }

    // Latency: alternating rounds, half of the samples per side each.
    std::vector<double> layer_lat, raw_lat;
    for (int round = 0; round < 2; ++round) {
        for (int turn = 0; turn < 2; ++turn) {
            if ((turn + round) % 2 == 0) {
                std::vector<double> m = layer_latency(url, samples / 2);
                layer_lat.insert(layer_lat.end(), m.begin(), m.end());
            } else {
                std::vector<double> m = raw_latency(url, samples / 2);
                raw_lat.insert(raw_lat.end(), m.begin(), m.end());
            }
        }
    }

    const double gib = static_cast<double>(total) * done_rounds / (1 << 30);
    printf("\nSUMMARY bench_upload (%.1f s)\n", static_cast<double>(now_ns() - bench_start) * 1e-9);
    printf(
        "upload throughput vs plain queue: layer %.0f MB/s, raw libcurl + mutex/condvar queue %.0f "
        "MB/s, ratio %.3f (median of %d rounds of %d MiB, quartiles %.3f..%.3f; totals ratio "
        "%.3f; target >= 0.90: %s)\n",
        median(rate[0]), median(rate[1]), median(vs_queue), done_rounds, mib,
        quantile(vs_queue, 0.25), quantile(vs_queue, 0.75), total_s[1] / total_s[0],
        median(vs_queue) >= 0.90 ? "met" : "NOT met");
    printf(
        "upload throughput vs memory: layer %.0f MB/s, raw libcurl reading from memory %.0f MB/s, "
        "ratio %.3f (quartiles %.3f..%.3f; totals ratio %.3f; %.2f GiB per variant)\n",
        median(rate[0]), median(rate[2]), median(vs_memory), quantile(vs_memory, 0.25),
        quantile(vs_memory, 0.75), total_s[2] / total_s[0], gib);
    printf(
        "upload client CPU per GiB (process minus server thread): layer %.0f ms, raw queue %.0f "
        "ms, raw memory %.0f ms; context switches per 64 KiB: layer %.2f, raw queue %.2f, raw "
        "memory %.2f\n",
        cpu[0] / gib * 1e3, cpu[1] / gib * 1e3, cpu[2] / gib * 1e3, switches[0] / (gib * 16384),
        switches[1] / (gib * 16384), switches[2] / (gib * 16384));
    printf(
        "upload time to first body byte (start through Expect/100 Continue to the server reading "
        "it): layer p50 %.0f us max %.0f us, raw queue p50 %.0f us max %.0f us (%zu each; a "
        "missed 100 Continue would cost 1 s)\n",
        median(ttfb[0]), max_of(ttfb[0]), median(ttfb[1]), max_of(ttfb[1]), ttfb[0].size());
    const double p99 = quantile(layer_lat, 0.99);
    printf(
        "upload idle latency send_data -> server: layer p50 %.1f us p99 %.1f us max %.1f us; raw "
        "queue p50 %.1f us p99 %.1f us (%zu + %zu bytes, 20 ms idle; target p99 < 1000 us: %s)\n",
        quantile(layer_lat, 0.5), p99, max_of(layer_lat), quantile(raw_lat, 0.5),
        quantile(raw_lat, 0.99), layer_lat.size(), raw_lat.size(), p99 < 1000 ? "met" : "NOT met");
    curl_global_cleanup();
    return 0;
}
