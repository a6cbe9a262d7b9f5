// The live demo's two service-level numbers, measured end to end on loopback through the layer's
// public API (the same StreamClient and the same order of operations as `kiv-http demo`):
//
//  1. Latency, one utterance at a time over the example sentences (synthesized once up front):
//     from the moment the last audio frame is handed to send_data to the moment the final
//     result arrives on the results download (p50 and p99; target p50 < 50 ms), and from the
//     first frame carrying speech to the first partial. Several rounds, first at real-time pace
//     (a 40 ms frame every 40 ms), then as fast as possible. The server's decoder time inside
//     the same window is sampled too, so a slow final can be attributed to decoding or to the
//     transport.
//  2. Scale: N concurrent sessions at real-time pace (starts spread over the first second), each
//     streaming one sentence; a step passes when every final arrives within 200 ms of its last
//     audio frame. N grows until a step fails; target: at least 50. CPU per second of audio is
//     the whole process's CPU time (client, transport, server and decoders all live here)
//     during the step, divided by the audio streamed. To say where a failing step's time went,
//     each step also splits CPU by thread role (server connection threads, the layer's workers,
//     the session threads), reports how long threads sat runnable without a CPU, and counts the
//     server threads queued on the decoder library's set-up lock (its address is learnt up front
//     by building decoders from several threads at once).
//
// The whole run is bounded: every wait has a limit, and the default parameters take about 80 s.
// Numbers are noisy when another job shares the two cores: the load average is printed with
// each section.
//
// Usage: bench_demo [rounds=3] [steps=10,25,50,75,100] [stagger_ms=1000] [fast_rounds=rounds]

#include <curl/curl.h>
#include <dirent.h>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "core/utility/kiv_log.h"
#include "tools/cli/ndjson.h"
#include "tools/cli/stream_client.h"
#include "tools/server/command_grammar.h"
#include "tools/server/gzip_stream.h"
#include "tools/server/recognition_server.h"
#include "tools/server/recognizer.h"
#include "tools/server/speech.h"

namespace {

using kiv::cli::json_string;

using Clock = std::chrono::steady_clock;
using kiv::cli::StreamClient;
using kiv::cli::StreamEnd;
using std::chrono::milliseconds;

constexpr size_t kFrameSamples = 640;  // 40 ms at 16 kHz
constexpr auto kFramePeriod = milliseconds(40);
// A frame louder than this RMS (about -36 dBFS) counts as speech: espeak-ng's output is clean,
// so its leading silence is digital near-silence and the threshold is not delicate.
constexpr double kSpeechRms = 500.0;
constexpr auto kFinalWait = std::chrono::seconds(10);
constexpr auto kEndWait = std::chrono::seconds(5);
constexpr double kLatencyTargetMs = 50.0;
constexpr double kScaleDeadlineMs = 200.0;
constexpr size_t kScaleTarget = 50;

double ms_between(Clock::time_point from, Clock::time_point to) {
    return std::chrono::duration<double, std::milli>(to - from).count();
}

double thread_cpu_seconds() {
    timespec ts{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return ts.tv_sec + ts.tv_nsec / 1e9;
}

// Other jobs on the machine skew every number here; the load average is printed with each
// section so a noisy run can be recognised.
std::string load_average() {
    char buf[64] = {0};
    FILE* f = fopen("/proc/loadavg", "r");
    if (f) {
        if (!fgets(buf, sizeof buf, f)) {
            buf[0] = 0;
        }
        fclose(f);
    }
    std::string text = buf;
    size_t end = 0;
    for (int field = 0; field < 3 && end != std::string::npos; ++field) {
        end = text.find(' ', end + (field ? 1 : 0));
    }
    return end == std::string::npos ? text : text.substr(0, end);
}

// Threads of this process asleep in futex(), by the futex address they wait on: many threads on
// one address means a queue on one lock. Reads /proc/self/task/*/syscall, whose first fields
// are the system call number and its first argument; `name_prefix` filters on the thread name.
std::map<unsigned long long, size_t> futex_waiters(const std::string& name_prefix) {
    std::map<unsigned long long, size_t> waiters;
    DIR* dir = opendir("/proc/self/task");
    if (!dir) {
        return waiters;
    }
    while (dirent* entry = readdir(dir)) {
        if (atol(entry->d_name) <= 0) {
            continue;
        }
        const std::string base = std::string("/proc/self/task/") + entry->d_name;
        char name[64] = {0};
        FILE* f = fopen((base + "/comm").c_str(), "r");
        if (f) {
            if (!fgets(name, sizeof name, f)) {
                name[0] = 0;
            }
            fclose(f);
        }
        if (std::string(name).compare(0, name_prefix.size(), name_prefix) != 0) {
            continue;
        }
        f = fopen((base + "/syscall").c_str(), "r");
        if (!f) {
            continue;
        }
        long number = -1;
        unsigned long long address = 0;
        if (fscanf(f, "%ld %llx", &number, &address) == 2 && number == SYS_futex) {
            ++waiters[address];
        }
        fclose(f);
    }
    closedir(dir);
    return waiters;
}

// The address of the lock that serialises decoder set-up, learnt while several threads of ours
// build decoders at once (0 while unknown). The scale steps count server threads queued on it.
std::atomic<unsigned long long> g_setup_lock{0};

double cpu_seconds() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_utime.tv_sec + usage.ru_stime.tv_sec +
           (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

// Nearest-rank percentile; with a few dozen samples p99 is the largest one.
double percentile(std::vector<double> values, double p) {
    if (values.empty()) {
        return NAN;
    }
    std::sort(values.begin(), values.end());
    size_t rank = static_cast<size_t>(std::ceil(p / 100.0 * values.size()));
    return values[std::min(values.size(), std::max<size_t>(rank, 1)) - 1];
}

std::string normalized(const std::string& text) {
    std::string out;
    bool space = false;
    for (char c : text) {
        if (std::isalnum(static_cast<unsigned char>(c)) || c == '\'') {
            if (space && !out.empty()) {
                out += ' ';
            }
            out += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
            space = false;
        } else {
            space = true;
        }
    }
    return out;
}

struct Sentence {
    std::string text;
    std::vector<int16_t> samples;
    size_t speech_frame = 0;  // index of the first 40 ms frame louder than kSpeechRms
    double audio_s = 0;
};

size_t first_speech_frame(const std::vector<int16_t>& samples) {
    for (size_t at = 0, frame = 0; at < samples.size(); at += kFrameSamples, ++frame) {
        const size_t n = std::min(kFrameSamples, samples.size() - at);
        double energy = 0;
        for (size_t i = 0; i < n; ++i) {
            energy += double(samples[at + i]) * samples[at + i];
        }
        if (std::sqrt(energy / n) >= kSpeechRms) {
            return frame;
        }
    }
    return 0;
}

// What one session's results download delivered; filled on the layer's worker thread.
struct Results {
    std::mutex mutex;
    std::condition_variable changed;
    std::string pending;
    bool partial_seen = false;
    Clock::time_point first_partial_at;
    bool final_seen = false;
    bool error_seen = false;
    Clock::time_point final_at;
    std::string final_text;
    std::string error_line;
};

struct SessionReport {
    bool ok = false;                     // final received, both transfers ended with 200
    bool exact = false;                  // final transcript equals the sentence
    double final_ms = -1;                // last audio frame sent -> final result received
    double partial_from_speech_ms = -1;  // first speech frame sent -> first partial received
    double partial_from_start_ms = -1;   // first frame sent -> first partial received
    double tail_decode_ms = -1;  // server decoder time in the final_ms window (sequential only)
    double max_lag_ms = 0;       // how late the worst frame left against its real-time slot
    std::string final_text;
    std::string problem;
};

// One utterance exactly as the demo streams it: the results download opened first, then the
// upload, gzip-compressed 40 ms frames through send_data, the gzip trailer with last=true, and
// a wait for the final event. `start_at` is when the first frame goes out. `server` is given only
// when no other session runs, so its decoder counter belongs to this session alone.
SessionReport run_session(const std::string& base, const std::string& id, const Sentence& sentence,
                          bool fast, Clock::time_point start_at,
                          const kiv::demo::RecognitionServer* server) {
    SessionReport report;
    Results results;
    StreamClient down;
    down.start_download(base + "/v1/sessions/" + id + "/results", "",
                        [&results](const char* data, size_t size) {
                            std::lock_guard<std::mutex> lock(results.mutex);
                            results.pending.append(data, size);
                            size_t newline;
                            while ((newline = results.pending.find('\n')) != std::string::npos) {
                                const std::string line = results.pending.substr(0, newline);
                                results.pending.erase(0, newline + 1);
                                const std::string type = json_string(line, "type");
                                if (type == "partial" && !results.partial_seen) {
                                    results.partial_seen = true;
                                    results.first_partial_at = Clock::now();
                                } else if (type == "final") {
                                    results.final_seen = true;
                                    results.final_at = Clock::now();
                                    results.final_text = json_string(line, "text");
                                    results.changed.notify_all();
                                } else if (type == "error") {
                                    results.error_seen = true;
                                    results.error_line = line;
                                    results.changed.notify_all();
                                }
                            }
                        });

    StreamClient up;
    up.start_upload(base + "/v1/sessions/" + id + "/audio", "");
    kiv::demo::GzipWriter gzip;
    std::this_thread::sleep_until(start_at);
    const Clock::time_point first_sent = Clock::now();
    Clock::time_point speech_sent = first_sent;
    const std::vector<int16_t>& pcm = sentence.samples;
    size_t frame = 0;
    for (size_t at = 0; at < pcm.size(); at += kFrameSamples, ++frame) {
        if (!fast) {
            const Clock::time_point slot = first_sent + kFramePeriod * frame;
            std::this_thread::sleep_until(slot);
            report.max_lag_ms = std::max(report.max_lag_ms, ms_between(slot, Clock::now()));
        }
        if (frame == sentence.speech_frame) {
            speech_sent = Clock::now();
        }
        const size_t n = std::min(kFrameSamples, pcm.size() - at);
        up.send(gzip.push(reinterpret_cast<const uint8_t*>(&pcm[at]), n * 2), false);
    }
    const uint64_t decode_before = server ? server->stats().decode_us : 0;
    const Clock::time_point last_sent = Clock::now();
    up.send(gzip.finish(), true);

    {
        std::unique_lock<std::mutex> lock(results.mutex);
        results.changed.wait_for(lock, kFinalWait,
                                 [&] { return results.final_seen || results.error_seen; });
        if (results.final_seen) {
            report.final_ms = ms_between(last_sent, results.final_at);
            report.final_text = results.final_text;
            report.exact = normalized(results.final_text) == normalized(sentence.text);
        } else if (results.error_seen) {
            report.problem = "error event " + results.error_line;
        } else {
            report.problem = "no final within 10 s";
        }
        if (results.partial_seen) {
            report.partial_from_speech_ms = ms_between(speech_sent, results.first_partial_at);
            report.partial_from_start_ms = ms_between(first_sent, results.first_partial_at);
        }
    }
    if (server && report.final_ms >= 0) {
        report.tail_decode_ms = (server->stats().decode_us - decode_before) / 1000.0;
    }
    StreamEnd up_end;
    StreamEnd down_end;
    up.wait_end(kEndWait, &up_end);
    down.wait_end(kEndWait, &down_end);
    if (report.problem.empty() && (up_end.status != 200 || down_end.status != 200)) {
        report.problem = "upload ended " + std::to_string(up_end.status) + ", results ended " +
                         std::to_string(down_end.status);
    }
    report.ok = report.final_ms >= 0 && report.problem.empty();
    return report;
}

// The decoder alone, on this thread, fed exactly as the server feeds it (one 40 ms frame at a
// time, the hypothesis read while in speech, then the end of the utterance): its CPU time per
// second of audio bounds how many real-time sessions two cores can carry before any transport
// cost is counted.
struct DecoderCost {
    double create_ms = 0;        // per decoder
    double cpu_per_audio_s = 0;  // process() and hypothesis()
    double finish_ms_p50 = 0;    // end of utterance, as after the last frame
    double finish_ms_max = 0;
    size_t burst = 0;          // decoders created from that many threads at once
    double burst_wall_ms = 0;  // ... took this long in all
    bool ok = false;
};

DecoderCost measure_decoder(const std::vector<Sentence>& sentences, int rounds) {
    DecoderCost cost;
    std::string error;
    kiv::demo::Decoder::set_library_log(false);
    std::unique_ptr<kiv::demo::DecoderFiles> files =
        kiv::demo::DecoderFiles::prepare(kiv::demo::ModelPaths(), &error);
    if (!files) {
        fprintf(stderr, "bench_demo: decoder files: %s\n", error.c_str());
        return cost;
    }
    double create_s = 0;
    double process_s = 0;
    double audio_s = 0;
    size_t decoders = 0;
    std::vector<double> finish_ms;
    for (int round = 0; round < rounds; ++round) {
        for (const Sentence& s : sentences) {
            double t = thread_cpu_seconds();
            std::unique_ptr<kiv::demo::Decoder> decoder =
                kiv::demo::Decoder::create(*files, &error);
            create_s += thread_cpu_seconds() - t;
            if (!decoder) {
                fprintf(stderr, "bench_demo: decoder: %s\n", error.c_str());
                return cost;
            }
            ++decoders;
            t = thread_cpu_seconds();
            for (size_t at = 0; at < s.samples.size(); at += kFrameSamples) {
                decoder->process(&s.samples[at], std::min(kFrameSamples, s.samples.size() - at));
                if (decoder->in_speech()) {
                    (void)decoder->hypothesis();
                }
            }
            process_s += thread_cpu_seconds() - t;
            audio_s += s.audio_s;
            t = thread_cpu_seconds();
            decoder->finish();
            finish_ms.push_back((thread_cpu_seconds() - t) * 1000);
        }
    }
    cost.create_ms = create_s * 1000 / decoders;
    cost.cpu_per_audio_s = process_s / audio_s;

    // Session starts arrive in bursts; decoders built in parallel show whether building them
    // scales over the cores or queues (the decoder library's set-up is process-wide state).
    cost.burst = 24;
    std::vector<std::unique_ptr<kiv::demo::Decoder>> built(cost.burst);
    std::vector<std::thread> builders;
    std::atomic<size_t> done{0};
    const Clock::time_point burst_start = Clock::now();
    for (size_t i = 0; i < cost.burst; ++i) {
        builders.emplace_back([&, i] {
            pthread_setname_np(pthread_self(), "bench-builder");
            std::string e;
            built[i] = kiv::demo::Decoder::create(*files, &e);
            ++done;
        });
    }
    // While they queue, the address most of them sleep on is the set-up lock.
    size_t most = 0;
    while (done.load() < cost.burst && Clock::now() - burst_start < std::chrono::seconds(10)) {
        for (const auto& entry : futex_waiters("bench-builder")) {
            if (entry.second > most && entry.second >= 2) {
                most = entry.second;
                g_setup_lock = entry.first;
            }
        }
        std::this_thread::sleep_for(milliseconds(2));
    }
    for (std::thread& t : builders) {
        t.join();
    }
    cost.burst_wall_ms = ms_between(burst_start, Clock::now());
    built.clear();
    cost.finish_ms_p50 = percentile(finish_ms, 50);
    cost.finish_ms_max = percentile(finish_ms, 100);
    cost.ok = true;
    return cost;
}

struct LatencySummary {
    std::vector<double> final_ms;
    std::vector<double> partial_ms;
    std::vector<double> tail_decode_ms;
    size_t failed = 0;
    size_t inexact = 0;
};

LatencySummary latency_pass(const std::string& base, kiv::demo::RecognitionServer& server,
                            const std::vector<Sentence>& sentences, int rounds, bool fast,
                            int* next_id) {
    printf("\n== latency, %s, %d round%s over %zu sentences (one session at a time; load %s)\n",
           fast ? "as fast as possible" : "real-time pace", rounds, rounds == 1 ? "" : "s",
           sentences.size(), load_average().c_str());
    printf(
        "   per sentence: final = last frame sent -> final received (server decoder time in\n"
        "   that window); partial = first speech frame sent -> first partial received\n");
    LatencySummary summary;
    std::vector<std::vector<SessionReport>> by_sentence(sentences.size());
    for (int round = 0; round < rounds; ++round) {
        for (size_t i = 0; i < sentences.size(); ++i) {
            const std::string id =
                "bench-" + std::to_string(getpid()) + "-" + std::to_string((*next_id)++);
            SessionReport r = run_session(base, id, sentences[i], fast, Clock::now(), &server);
            if (!r.ok) {
                ++summary.failed;
                fprintf(stderr, "   session %s failed: %s\n", id.c_str(), r.problem.c_str());
            } else {
                summary.final_ms.push_back(r.final_ms);
                summary.tail_decode_ms.push_back(r.tail_decode_ms);
                if (!r.exact) {
                    ++summary.inexact;
                }
            }
            if (r.partial_from_speech_ms >= 0) {
                summary.partial_ms.push_back(r.partial_from_speech_ms);
            }
            by_sentence[i].push_back(r);
            // The server ends a session once its final is delivered; wait for that so the next
            // session starts on a quiet server.
            server.wait_for_session_count(0, std::chrono::seconds(2));
        }
    }
    for (size_t i = 0; i < sentences.size(); ++i) {
        const Sentence& s = sentences[i];
        std::string finals;
        std::string partials;
        bool all_exact = true;
        char buf[64];
        for (const SessionReport& r : by_sentence[i]) {
            snprintf(buf, sizeof buf, "%s%.1f(%.1f)", finals.empty() ? "" : " ", r.final_ms,
                     r.tail_decode_ms);
            finals += buf;
            snprintf(buf, sizeof buf, "%s%.0f", partials.empty() ? "" : " ",
                     r.partial_from_speech_ms);
            partials += buf;
            all_exact = all_exact && r.ok && r.exact;
        }
        printf("   [%2zu] %-36.36s %4.2f s  final ms %s  partial ms %s%s\n", i + 1, s.text.c_str(),
               s.audio_s, finals.c_str(), partials.c_str(),
               all_exact ? "" : ("  heard: \"" + by_sentence[i].back().final_text + "\"").c_str());
    }
    printf(
        "   summary: final p50 %.1f ms, p99 %.1f ms, max %.1f ms (decoder in window p50 %.1f "
        "ms, p99 %.1f ms); first partial after speech p50 %.0f ms, p99 %.0f ms; %zu failed, "
        "%zu inexact transcripts of %zu\n",
        percentile(summary.final_ms, 50), percentile(summary.final_ms, 99),
        percentile(summary.final_ms, 100), percentile(summary.tail_decode_ms, 50),
        percentile(summary.tail_decode_ms, 99), percentile(summary.partial_ms, 50),
        percentile(summary.partial_ms, 99), summary.failed, summary.inexact,
        sentences.size() * rounds);
    fflush(stdout);
    return summary;
}

// CPU time by thread role during a scale step, from /proc/self/task/*/schedstat (nanoseconds on
// CPU, exact, unlike the tick-rounded counters of /proc/.../stat). Server connection threads
// exit when their connection closes, taking their counters with them, so the threads are read
// every 100 ms and each one's last reading is kept: at most the last 100 ms of a thread that
// exits is missed, which for a connection thread is its idle wait plus the reply.
class ThreadCpuSampler {
public:
    enum Role { kServer, kTransport, kApp, kRoles };  // MHD-*, kiv-pool-*/kiv-timer, the rest

    void start() {
        baseline_ = read_all();
        stop_ = false;
        thread_ = std::thread([this] {
            pthread_setname_np(pthread_self(), "bench-sampler");
            const auto limit = Clock::now() + std::chrono::seconds(60);
            Clock::time_point last = Clock::now();
            while (!stop_.load() && Clock::now() < limit) {
                merge(read_all());
                const unsigned long long lock = g_setup_lock.load();
                if (lock != 0) {
                    const auto waiters = futex_waiters("MHD-");
                    const auto at = waiters.find(lock);
                    const size_t queued = at == waiters.end() ? 0 : at->second;
                    max_queued_ = std::max(max_queued_, queued);
                    const Clock::time_point now = Clock::now();
                    queued_thread_s_ += queued * std::chrono::duration<double>(now - last).count();
                    last = now;
                }
                std::this_thread::sleep_for(milliseconds(100));
            }
            own_cpu_s_ = thread_cpu_seconds();
        });
    }

    // Server threads found waiting on the decoder set-up lock: the most at one sample, and
    // thread-seconds (each sample stands for the time since the previous one). Valid after
    // stop().
    size_t max_queued() const { return max_queued_; }
    double queued_thread_s() const { return queued_thread_s_; }

    // Seconds on CPU and seconds runnable but waiting for a CPU, per role since start();
    // `sampler_s` is the sampler's own cost.
    void stop(double seconds[kRoles], double waiting[kRoles], double* sampler_s) {
        stop_ = true;
        thread_.join();
        merge(read_all());
        for (int r = 0; r < kRoles; ++r) {
            seconds[r] = retired_[r];
            waiting[r] = retired_wait_[r];
        }
        for (const auto& entry : latest_) {
            seconds[entry.second.role] += since_baseline(entry.first, entry.second);
            waiting[entry.second.role] += wait_since_baseline(entry.first, entry.second);
        }
        *sampler_s = own_cpu_s_;
    }

private:
    struct Reading {
        Role role;
        std::string name;
        double cpu_s;
        double wait_s;  // runnable, waiting for a CPU
    };

    static Role role_of(const std::string& name) {
        if (name.compare(0, 4, "MHD-") == 0) {
            return kServer;
        }
        if (name.compare(0, 4, "kiv-") == 0) {
            return kTransport;
        }
        return kApp;
    }

    static std::map<long, Reading> read_all() {
        std::map<long, Reading> out;
        DIR* dir = opendir("/proc/self/task");
        if (!dir) {
            return out;
        }
        while (dirent* entry = readdir(dir)) {
            const long tid = atol(entry->d_name);
            if (tid <= 0) {
                continue;
            }
            const std::string base = std::string("/proc/self/task/") + entry->d_name;
            char name[64] = {0};
            unsigned long long ns = 0;
            unsigned long long wait_ns = 0;
            FILE* f = fopen((base + "/comm").c_str(), "r");
            if (f) {
                if (!fgets(name, sizeof name, f)) {
                    name[0] = 0;
                }
                fclose(f);
            }
            f = fopen((base + "/schedstat").c_str(), "r");
            if (!f) {
                continue;
            }
            const bool ok = fscanf(f, "%llu %llu", &ns, &wait_ns) == 2;
            fclose(f);
            std::string n = name;
            if (!n.empty() && n.back() == '\n') {
                n.pop_back();
            }
            if (ok && n != "bench-sampler") {
                out[tid] = Reading{role_of(n), n, ns / 1e9, wait_ns / 1e9};
            }
        }
        closedir(dir);
        return out;
    }

    double since_baseline(long tid, const Reading& r) const {
        auto base = baseline_.find(tid);
        if (base != baseline_.end() && base->second.name == r.name &&
            base->second.cpu_s <= r.cpu_s) {
            return r.cpu_s - base->second.cpu_s;
        }
        return r.cpu_s;
    }

    double wait_since_baseline(long tid, const Reading& r) const {
        auto base = baseline_.find(tid);
        if (base != baseline_.end() && base->second.name == r.name &&
            base->second.cpu_s <= r.cpu_s) {
            return r.wait_s - base->second.wait_s;
        }
        return r.wait_s;
    }

    void merge(const std::map<long, Reading>& now) {
        for (const auto& entry : now) {
            auto old = latest_.find(entry.first);
            // A thread id taken over by a new thread: keep what the old one used.
            if (old != latest_.end() &&
                (old->second.name != entry.second.name || old->second.cpu_s > entry.second.cpu_s)) {
                retired_[old->second.role] += since_baseline(old->first, old->second);
                retired_wait_[old->second.role] += wait_since_baseline(old->first, old->second);
                baseline_.erase(old->first);
            }
            latest_[entry.first] = entry.second;
        }
    }

    std::map<long, Reading> baseline_;
    std::map<long, Reading> latest_;
    double retired_[kRoles] = {0, 0, 0};
    double retired_wait_[kRoles] = {0, 0, 0};
    std::atomic<bool> stop_{false};
    std::thread thread_;
    double own_cpu_s_ = 0;
    size_t max_queued_ = 0;
    double queued_thread_s_ = 0;
};

struct StepResult {
    size_t sessions = 0;
    bool passed = false;
    double within_fraction = 0;
    double p50 = NAN;
    double p99 = NAN;
    double cpu_per_audio_s = 0;
    double decode_per_audio_s = 0;
    double role_per_audio_s[ThreadCpuSampler::kRoles] = {0, 0, 0};
    size_t max_setup_queue = 0;  // server threads waiting on the decoder set-up lock at once
};

StepResult scale_step(const std::string& base, kiv::demo::RecognitionServer& server,
                      const std::vector<Sentence>& sentences, size_t count, int stagger_ms,
                      int* next_id) {
    StepResult step;
    step.sessions = count;
    std::vector<SessionReport> reports(count);
    std::vector<std::thread> threads;
    threads.reserve(count);
    double audio_s = 0;
    const std::string load_before = load_average();
    const uint64_t decode_before = server.stats().decode_us;
    ThreadCpuSampler sampler;
    sampler.start();
    const double cpu_before = cpu_seconds();
    const Clock::time_point wall_before = Clock::now();
    // Every session is set up before the first one speaks, so connection set-up is not mixed
    // with the staggered starts; the first frame goes out 300 ms from now.
    const Clock::time_point t0 = wall_before + milliseconds(300);
    for (size_t i = 0; i < count; ++i) {
        const Sentence& s = sentences[i % sentences.size()];
        audio_s += s.audio_s;
        const std::string id =
            "bench-" + std::to_string(getpid()) + "-" + std::to_string((*next_id)++);
        const Clock::time_point start_at =
            t0 + milliseconds(stagger_ms * int64_t(i) / int64_t(count));
        threads.emplace_back([&, i, id, start_at] {
            reports[i] =
                run_session(base, id, sentences[i % sentences.size()], false, start_at, nullptr);
        });
    }
    for (std::thread& t : threads) {
        t.join();
    }
    double role_s[ThreadCpuSampler::kRoles];
    double role_wait_s[ThreadCpuSampler::kRoles];
    double sampler_s = 0;
    sampler.stop(role_s, role_wait_s, &sampler_s);
    // The sampler is the bench's own overhead, not the demo's.
    const double cpu_s = cpu_seconds() - cpu_before - sampler_s;
    const double wall_s = std::chrono::duration<double>(Clock::now() - wall_before).count();
    const double decode_s = (server.stats().decode_us - decode_before) / 1e6;
    server.wait_for_session_count(0, std::chrono::seconds(5));

    std::vector<double> latencies;
    size_t within = 0;
    size_t failed = 0;
    size_t inexact = 0;
    double max_lag = 0;
    for (const SessionReport& r : reports) {
        max_lag = std::max(max_lag, r.max_lag_ms);
        if (!r.ok) {
            ++failed;
            continue;
        }
        latencies.push_back(r.final_ms);
        within += r.final_ms <= kScaleDeadlineMs ? 1 : 0;
        inexact += r.exact ? 0 : 1;
    }
    step.within_fraction = double(within) / count;
    step.passed = within == count;
    step.p50 = percentile(latencies, 50);
    step.p99 = percentile(latencies, 99);
    step.cpu_per_audio_s = cpu_s / audio_s;
    step.decode_per_audio_s = decode_s / audio_s;
    step.max_setup_queue = sampler.max_queued();
    for (int r = 0; r < ThreadCpuSampler::kRoles; ++r) {
        step.role_per_audio_s[r] = role_s[r] / audio_s;
    }
    printf(
        "   %3zu sessions: %5.1f%% finals within %.0f ms, p50 %.1f ms, p99 %.1f ms, max %.1f "
        "ms; CPU %.3f s per audio s (decoder wall %.3f s), %.1f s audio in %.1f s wall, CPU "
        "%.0f%% of one core; worst frame %.0f ms late; %zu failed, %zu inexact; load %s -> %s\n",
        count, 100.0 * step.within_fraction, kScaleDeadlineMs, step.p50, step.p99,
        percentile(latencies, 100), step.cpu_per_audio_s, step.decode_per_audio_s, audio_s, wall_s,
        100.0 * cpu_s / wall_s, max_lag, failed, inexact, load_before.c_str(),
        step.passed ? "pass" : "FAIL");
    printf(
        "                  CPU s per audio s by thread: server %.4f (libmicrohttpd connection "
        "threads: HTTP, inflate, decoders), transport %.4f (the layer's workers: libcurl), "
        "sessions %.4f (pacing, gzip, send_data); sampler overhead %.3f s excluded\n",
        step.role_per_audio_s[ThreadCpuSampler::kServer],
        step.role_per_audio_s[ThreadCpuSampler::kTransport],
        step.role_per_audio_s[ThreadCpuSampler::kApp], sampler_s);
    printf(
        "                  runnable but waiting for a CPU: server threads %.2f s, transport "
        "%.2f s, sessions %.2f s (in %.1f s wall)\n",
        role_wait_s[ThreadCpuSampler::kServer], role_wait_s[ThreadCpuSampler::kTransport],
        role_wait_s[ThreadCpuSampler::kApp], wall_s);
    if (g_setup_lock.load() != 0) {
        printf(
            "                  server threads queued on the decoder set-up lock: up to %zu at "
            "once, %.1f thread-seconds in all\n",
            sampler.max_queued(), sampler.queued_thread_s());
    }
    // Which sessions were late says whether it was their own start (set-up) or the crowd.
    if (!step.passed) {
        size_t shown = 0;
        for (size_t i = 0; i < count; ++i) {
            const SessionReport& r = reports[i];
            if (r.ok && r.final_ms <= kScaleDeadlineMs) {
                continue;
            }
            if (shown++ < 12) {
                printf(
                    "                  late: #%-3zu starts +%4lld ms, %4.2f s audio, ends +%4.0f "
                    "ms, final %6.1f ms, first partial %4.0f ms after speech (at +%4.0f ms)\n",
                    i, static_cast<long long>(stagger_ms * int64_t(i) / int64_t(count)),
                    sentences[i % sentences.size()].audio_s,
                    stagger_ms * double(i) / count + 1000 * sentences[i % sentences.size()].audio_s,
                    r.final_ms, r.partial_from_speech_ms,
                    stagger_ms * double(i) / count + r.partial_from_start_ms);
            }
        }
    }
    for (size_t i = 0; i < count && failed > 0; ++i) {
        if (!reports[i].ok) {
            fprintf(stderr, "     session %zu: %s\n", i, reports[i].problem.c_str());
        }
    }
    fflush(stdout);
    return step;
}

std::vector<size_t> parse_steps(const char* text) {
    std::vector<size_t> steps;
    const std::string s = text;
    size_t at = 0;
    while (at < s.size()) {
        size_t comma = s.find(',', at);
        if (comma == std::string::npos) {
            comma = s.size();
        }
        const long n = atol(s.substr(at, comma - at).c_str());
        if (n > 0 && n <= 200) {
            steps.push_back(static_cast<size_t>(n));
        }
        at = comma + 1;
    }
    return steps;
}

}  // namespace

int main(int argc, char** argv) {
    const int rounds = std::max(1, argc > 1 ? atoi(argv[1]) : 3);
    const std::vector<size_t> steps = parse_steps(argc > 2 ? argv[2] : "10,25,50,75,100");
    const int stagger_ms = std::max(0, argc > 3 ? atoi(argv[3]) : 1000);
    const int fast_rounds = argc > 4 ? std::max(0, atoi(argv[4])) : rounds;
    if (argc > 5) {
        fprintf(stderr,
                "usage: %s [rounds=3] [steps=10,25,50,75,100] [stagger_ms=1000] "
                "[fast_rounds=rounds]\n",
                argv[0]);
        return 2;
    }
    curl_global_init(CURL_GLOBAL_ALL);
    kiv::set_log_level(2);
    const Clock::time_point bench_start = Clock::now();

    std::vector<Sentence> sentences;
    double total_audio = 0;
    for (const std::string& text : kiv::demo::example_phrases()) {
        std::string error;
        Sentence s;
        s.text = text;
        s.samples = kiv::demo::synthesize(text, &error);
        if (s.samples.empty()) {
            fprintf(stderr, "bench_demo: cannot synthesize \"%s\": %s\n", text.c_str(),
                    error.c_str());
            return 1;
        }
        s.speech_frame = first_speech_frame(s.samples);
        s.audio_s = double(s.samples.size()) / kiv::demo::kSampleRate;
        total_audio += s.audio_s;
        sentences.push_back(std::move(s));
    }
    printf(
        "bench_demo: %zu sentences, %.1f s of audio in all (speech starts %zu-%zu ms in), "
        "%u CPUs online\n",
        sentences.size(), total_audio,
        std::min_element(
            sentences.begin(), sentences.end(),
            [](const Sentence& a, const Sentence& b) {
                return a.speech_frame < b.speech_frame;
            })->speech_frame *
            40,
        std::max_element(
            sentences.begin(), sentences.end(),
            [](const Sentence& a, const Sentence& b) {
                return a.speech_frame < b.speech_frame;
            })->speech_frame *
            40,
        static_cast<unsigned>(sysconf(_SC_NPROCESSORS_ONLN)));

    const DecoderCost decoder_cost = measure_decoder(sentences, 2);
    if (decoder_cost.ok) {
        printf(
            "decoder alone (thread CPU, load %s): %.4f s per audio s (%.0fx real time on one "
            "core), %.1f ms to create, end of utterance p50 %.2f ms, max %.2f ms\n",
            load_average().c_str(), decoder_cost.cpu_per_audio_s,
            1.0 / decoder_cost.cpu_per_audio_s, decoder_cost.create_ms, decoder_cost.finish_ms_p50,
            decoder_cost.finish_ms_max);
        printf(
            "decoder set-up in a burst: %zu decoders built from %zu threads at once took %.0f "
            "ms (%.1f ms each; one after another would be %.0f ms, spread over 2 cores %.0f "
            "ms)\n",
            decoder_cost.burst, decoder_cost.burst, decoder_cost.burst_wall_ms,
            decoder_cost.burst_wall_ms / decoder_cost.burst,
            decoder_cost.create_ms * decoder_cost.burst,
            decoder_cost.create_ms * decoder_cost.burst / 2);
    }

    kiv::demo::RecognitionServer server;
    if (!server.start("127.0.0.1", 0)) {
        fprintf(stderr, "bench_demo: cannot start the server: %s\n", server.last_error().c_str());
        return 1;
    }
    const std::string base = "http://127.0.0.1:" + std::to_string(server.port());
    int next_id = 0;

    // One unmeasured session first: the first decoder load reads the model files from disk.
    run_session(base, "bench-warmup-" + std::to_string(getpid()), sentences[0], true, Clock::now(),
                nullptr);
    server.wait_for_session_count(0, std::chrono::seconds(2));

    const LatencySummary live = latency_pass(base, server, sentences, rounds, false, &next_id);
    LatencySummary fast;
    if (fast_rounds > 0) {
        fast = latency_pass(base, server, sentences, fast_rounds, true, &next_id);
    }

    printf(
        "\n== scale: concurrent real-time sessions, starts spread over %d ms, every final "
        "within %.0f ms of its last frame\n",
        stagger_ms, kScaleDeadlineMs);
    std::vector<StepResult> results;
    size_t carried = 0;
    for (size_t count : steps) {
        StepResult step = scale_step(base, server, sentences, count, stagger_ms, &next_id);
        results.push_back(step);
        if (!step.passed) {
            break;
        }
        carried = std::max(carried, count);
        std::this_thread::sleep_for(milliseconds(500));  // let pool workers and sockets settle
    }
    server.stop();
    const kiv::demo::ServerStats stats = server.stats();

    const double live_p50 = percentile(live.final_ms, 50);
    const bool latency_met = live.failed == 0 && live_p50 < kLatencyTargetMs;
    const bool scale_met = carried >= kScaleTarget;
    const StepResult* at_carried = nullptr;
    for (const StepResult& r : results) {
        if (r.sessions == carried) {
            at_carried = &r;
        }
    }
    printf("\n== summary (%.0f s; %llu sessions, %.1f s of audio decoded, decoder wall %.2f s)\n",
           std::chrono::duration<double>(Clock::now() - bench_start).count(),
           static_cast<unsigned long long>(stats.sessions_created), stats.audio_ms / 1000.0,
           stats.decode_us / 1e6);
    printf(
        "   last frame -> final, real-time: p50 %.1f ms, p99 %.1f ms (target p50 < %.0f ms): "
        "%s\n",
        live_p50, percentile(live.final_ms, 99), kLatencyTargetMs, latency_met ? "met" : "NOT MET");
    if (fast_rounds > 0) {
        printf(
            "   last frame -> final, fast:      p50 %.1f ms, p99 %.1f ms (decoder in window p50 "
            "%.1f ms)\n",
            percentile(fast.final_ms, 50), percentile(fast.final_ms, 99),
            percentile(fast.tail_decode_ms, 50));
    }
    printf("   first speech frame -> first partial, real-time: p50 %.0f ms, p99 %.0f ms\n",
           percentile(live.partial_ms, 50), percentile(live.partial_ms, 99));
    printf(
        "   concurrent real-time sessions with every final within %.0f ms: %zu%s (target >= "
        "%zu): %s\n",
        kScaleDeadlineMs, carried,
        !results.empty() && results.back().passed ? " (largest step tried)" : "", kScaleTarget,
        scale_met ? "met" : "NOT MET");
    if (at_carried) {
        printf("   CPU per audio second at %zu sessions: %.3f s (decoder wall %.3f s)\n", carried,
               at_carried->cpu_per_audio_s, at_carried->decode_per_audio_s);
    }
    if (!results.empty() && !results.back().passed) {
        const StepResult& failed = results.back();
        printf(
            "   first failing step: %zu sessions, %.0f%% of finals within %.0f ms (p99 %.0f ms); "
            "up to %zu server threads queued on the decoder set-up lock\n",
            failed.sessions, 100 * failed.within_fraction, kScaleDeadlineMs, failed.p99,
            failed.max_setup_queue);
    }
    // What two cores could carry if CPU were the only limit: a session costs its CPU per audio
    // second of every wall second it runs.
    const double cores = double(sysconf(_SC_NPROCESSORS_ONLN));
    if (!results.empty()) {
        const StepResult& last = results.back();
        printf(
            "   sustained CPU ceiling on %.0f cores: %.0f sessions at the last step's cost "
            "(%.3f s per audio s, %zu sessions)",
            cores, cores / last.cpu_per_audio_s, last.cpu_per_audio_s, last.sessions);
        if (decoder_cost.ok) {
            printf(", %.0f for the decoders alone (%.4f s per audio s)",
                   cores / decoder_cost.cpu_per_audio_s, decoder_cost.cpu_per_audio_s);
        }
        printf("\n");
    }
    curl_global_cleanup();
    return latency_met && scale_met ? 0 : 1;
}
