#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <mutex>
#include <stdexcept>
#include <thread>

#include "tests/support/temp_dir.h"
#include "tests/support/tls_cert.h"
#include "tools/cli/commands.h"
#include "tools/cli/ndjson.h"
#include "tools/cli/stream_client.h"
#include "tools/server/gzip_stream.h"
#include "tools/server/recognition_server.h"
#include "tools/server/speech.h"

namespace kiv {
namespace cli {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

namespace {

const char kPinnedAddress[] = "127.0.0.2";
const char kPinnedHost[] = "asr.kiv-demo.test";  // made up: no resolver knows it

std::atomic<bool> g_stop{false};
void on_signal(int) {
    g_stop = true;
}

bool read_text_file(const std::string& path, std::string* text) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        return false;
    }
    text->assign(std::istreambuf_iterator<char>(in), {});
    return true;
}

std::vector<std::string> words_of(const std::string& text) {
    std::vector<std::string> words;
    std::string word;
    for (char c : text + " ") {
        if (std::isalnum(static_cast<unsigned char>(c)) || c == '\'') {
            word += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        } else if (!word.empty()) {
            words.push_back(word);
            word.clear();
        }
    }
    return words;
}

// Word-level edit distance: substitutions, insertions and deletions.
size_t word_errors(const std::vector<std::string>& ref, const std::vector<std::string>& hyp) {
    std::vector<size_t> row(hyp.size() + 1);
    for (size_t j = 0; j <= hyp.size(); ++j) {
        row[j] = j;
    }
    for (size_t i = 1; i <= ref.size(); ++i) {
        size_t diagonal = row[0];
        row[0] = i;
        for (size_t j = 1; j <= hyp.size(); ++j) {
            size_t above = row[j];
            row[j] = std::min(
                {row[j] + 1, row[j - 1] + 1, diagonal + (ref[i - 1] == hyp[j - 1] ? 0 : 1)});
            diagonal = above;
        }
    }
    return row[hyp.size()];
}

struct Utterance {
    std::string text;  // what was spoken; empty for a WAV file
    std::vector<int16_t> samples;
};

struct Endpoint {
    std::string base;         // what the transport connects to
    std::string origin_base;  // host-name form for HTTPS pinning, else empty
    TlsOptions tls;           // HTTPS: verified against the demo's own throw-away CA
};

// What one utterance's results stream delivered, filled on the layer's worker thread.
struct Results {
    std::mutex mutex;
    std::string pending;              // bytes of an event line not complete yet
    std::vector<std::string> finals;  // one per utterance the server heard
    bool final_seen = false;
    Clock::time_point final_at;
    Clock::time_point first_partial_at;
    bool partial_seen = false;
    size_t partials = 0;
};

struct UtteranceReport {
    bool ok = false;
    std::vector<std::string> finals;
    double last_frame_to_final_ms = 0;
    double first_frame_to_partial_ms = -1;
    uint64_t bytes_up = 0;
    uint64_t pieces_down = 0;
};

UtteranceReport run_utterance(const Endpoint& endpoint, const std::string& session,
                              const Utterance& utterance, bool fast, size_t index, size_t count) {
    UtteranceReport report;
    const std::string results_path = "/v1/sessions/" + session + "/results";
    const std::string audio_path = "/v1/sessions/" + session + "/audio";
    auto origin = [&](const std::string& path) {
        return endpoint.origin_base.empty() ? std::string() : endpoint.origin_base + path;
    };

    Results results;
    StreamClient down;
    down.start_download(
        endpoint.base + results_path, origin(results_path),
        [&results](const char* data, size_t size) {
            std::lock_guard<std::mutex> lock(results.mutex);
            results.pending.append(data, size);
            size_t newline;
            while ((newline = results.pending.find('\n')) != std::string::npos) {
                std::string line = results.pending.substr(0, newline);
                results.pending.erase(0, newline + 1);
                const ResultEvent event = parse_result_event(line);
                if (event.type == "partial") {
                    if (!results.partial_seen) {
                        results.partial_seen = true;
                        results.first_partial_at = Clock::now();
                    }
                    ++results.partials;
                    printf("    partial: %s\n", event.text.c_str());
                    fflush(stdout);
                } else if (event.type == "final") {
                    results.finals.push_back(event.text);
                    results.final_seen = true;
                    results.final_at = Clock::now();
                }
            }
        },
        endpoint.tls);

    StreamClient up;
    up.start_upload(endpoint.base + audio_path, origin(audio_path), endpoint.tls);
    demo::GzipWriter gzip;
    constexpr size_t kFrameSamples = 640;  // 40 ms at 16 kHz
    const bool progress = stderr_is_terminal();
    const Clock::time_point start = Clock::now();
    size_t frames = 0;
    for (size_t at = 0; at < utterance.samples.size(); at += kFrameSamples, ++frames) {
        if (!fast) {
            std::this_thread::sleep_until(start + milliseconds(40 * frames));
        }
        size_t n = std::min(kFrameSamples, utterance.samples.size() - at);
        up.send(gzip.push(reinterpret_cast<const uint8_t*>(&utterance.samples[at]), n * 2), false);
        if (progress) {
            double elapsed = std::chrono::duration<double>(Clock::now() - start).count();
            fprintf(stderr, "\r  [%zu/%zu] sent %llu bytes, %.1f KB/s, %.1f s   ", index, count,
                    static_cast<unsigned long long>(up.bytes_sent()),
                    elapsed > 0 ? static_cast<double>(up.bytes_sent()) / 1024.0 / elapsed : 0.0,
                    elapsed);
        }
    }
    const Clock::time_point last_frame = Clock::now();
    up.send(gzip.finish(), true);
    const double elapsed = std::chrono::duration<double>(last_frame - start).count();
    if (progress) {
        fputc('\n', stderr);
    } else {
        fprintf(stderr, "[%zu/%zu] sent %llu bytes in %zu frames in %.2f s (%.1f KB/s)\n", index,
                count, static_cast<unsigned long long>(up.bytes_sent()), frames, elapsed,
                elapsed > 0 ? static_cast<double>(up.bytes_sent()) / 1024.0 / elapsed : 0.0);
    }

    // The results stream ends after the upload's last final (a long recording can hold many).
    StreamEnd up_end;
    StreamEnd down_end;
    up.wait_end(std::chrono::seconds(30), &up_end);
    down.wait_end(std::chrono::seconds(30), &down_end);
    {
        std::unique_lock<std::mutex> lock(results.mutex);
        report.ok = results.final_seen;
        report.finals = results.finals;
        if (results.final_seen) {
            report.last_frame_to_final_ms =
                std::chrono::duration<double, std::milli>(results.final_at - last_frame).count();
        }
        if (results.partial_seen) {
            report.first_frame_to_partial_ms =
                std::chrono::duration<double, std::milli>(results.first_partial_at - start).count();
        }
    }
    if (up_end.status != 200 || down_end.status != 200) {
        fprintf(stderr, "  upload ended with status %d (error %d), results with %d (error %d)\n",
                up_end.status, static_cast<int>(up_end.error), down_end.status,
                static_cast<int>(down_end.error));
        report.ok = false;
    }
    report.bytes_up = up.bytes_sent();
    report.pieces_down = down.pieces();
    return report;
}

bool start_server(demo::RecognitionServer& server, bool https, Endpoint* endpoint) {
    if (!https) {
        if (!server.start("127.0.0.1", 0)) {
            fprintf(stderr, "kiv-http: cannot start the server: %s\n", server.last_error().c_str());
            return false;
        }
        endpoint->base = "http://127.0.0.1:" + std::to_string(server.port());
        return true;
    }
    // A CA of the demo's own, made for this run and trusted by this run only: the server's
    // certificate is signed by it, and the client verifies the chain and the name against it.
    test::TlsCert cert;
    static test::TempDir caDir;  // lives until the process ends
    endpoint->tls.cacert = caDir.file("demo-ca.pem");
    try {
        const test::TlsCert ca = test::make_ca("kiv-http demo CA");
        cert = test::make_signed_cert(ca, kPinnedHost, false);
        test::write_file(endpoint->tls.cacert, ca.cert_pem);
    } catch (const std::exception& e) {
        fprintf(stderr, "kiv-http: cannot make a certificate: %s\n", e.what());
        return false;
    }
    if (!server.start(kPinnedAddress, 443, cert.cert_pem, cert.key_pem)) {
        fprintf(stderr,
                "kiv-http: cannot serve HTTPS on %s:443 (%s); binding port 443 needs root\n",
                kPinnedAddress, server.last_error().c_str());
        return false;
    }
    endpoint->base = std::string("https://") + kPinnedAddress;
    endpoint->origin_base = std::string("https://") + kPinnedHost;
    return true;
}

}  // namespace

int run_demo(const DemoOptions& options) {
    std::vector<Utterance> utterances;
    if (!options.wav.empty()) {
        std::string error;
        Utterance u;
        u.samples = demo::read_wav16k(options.wav, &error);
        if (u.samples.empty()) {
            fprintf(stderr, "kiv-http: %s: %s\n", options.wav.c_str(), error.c_str());
            return kExitUsage;
        }
        utterances.push_back(std::move(u));
    } else {
        std::vector<std::string> texts = options.texts;
        if (texts.empty()) {
            texts = {"turn on the lights in the kitchen", "what is the weather tomorrow",
                     "set a timer for five minutes", "call mom", "nine eight seven six"};
        }
        fprintf(stderr, "synthesizing %zu sentences with espeak-ng...\n", texts.size());
        for (const std::string& text : texts) {
            std::string error;
            Utterance u;
            u.text = text;
            u.samples = demo::synthesize(text, &error);
            if (u.samples.empty()) {
                fprintf(stderr, "kiv-http: cannot synthesize \"%s\": %s\n", text.c_str(),
                        error.c_str());
                return kExitLocalError;
            }
            utterances.push_back(std::move(u));
        }
    }

    demo::RecognitionServer server;
    Endpoint endpoint;
    if (!start_server(server, options.https, &endpoint)) {
        return kExitLocalError;
    }
    printf("recognition server on %s%s%s, audio %s\n", endpoint.base.c_str(),
           endpoint.origin_base.empty() ? "" : " as ",
           endpoint.origin_base.empty() ? "" : endpoint.origin_base.c_str(),
           options.fast ? "as fast as possible" : "at real-time pace");

    size_t words = 0;
    size_t errors = 0;
    size_t exact = 0;
    size_t failed = 0;
    std::vector<double> latencies;
    for (size_t i = 0; i < utterances.size(); ++i) {
        const Utterance& u = utterances[i];
        printf("[%zu/%zu] %s%s%s (%.2f s of audio)\n", i + 1, utterances.size(),
               u.text.empty() ? "" : "\"", u.text.empty() ? options.wav.c_str() : u.text.c_str(),
               u.text.empty() ? "" : "\"", static_cast<double>(u.samples.size()) / 16000.0);
        fflush(stdout);
        const std::string session = "demo-" + std::to_string(getpid()) + "-" + std::to_string(i);
        UtteranceReport r =
            run_utterance(endpoint, session, u, options.fast, i + 1, utterances.size());
        std::string heard;
        if (!r.ok) {
            ++failed;
            printf("    final:   (none)\n");
        } else {
            for (const std::string& text : r.finals) {
                printf("    final:   %s\n", text.c_str());
                heard += (heard.empty() ? "" : " ") + text;
            }
            latencies.push_back(r.last_frame_to_final_ms);
        }
        printf(
            "    transport: %llu bytes up, %llu pieces down, final result %.1f ms after the "
            "last audio frame",
            static_cast<unsigned long long>(r.bytes_up),
            static_cast<unsigned long long>(r.pieces_down), r.last_frame_to_final_ms);
        if (r.first_frame_to_partial_ms >= 0) {
            printf(", first partial %.0f ms after the first frame", r.first_frame_to_partial_ms);
        }
        printf("\n");
        fflush(stdout);
        if (!u.text.empty()) {
            std::vector<std::string> ref = words_of(u.text);
            size_t e = word_errors(ref, words_of(heard));
            words += ref.size();
            errors += std::min(e, ref.size());
            exact += e == 0 && r.ok ? 1 : 0;
        }
    }
    if (words > 0) {
        printf("summary: %zu of %zu utterances exact, word accuracy %.1f%%\n", exact,
               utterances.size(),
               100.0 * static_cast<double>(words - errors) / static_cast<double>(words));
    }
    server.stop();
    return failed == 0 ? kExitOk : kExitLocalError;
}

int run_serve(const ServeOptions& options) {
    size_t colon = options.listen.rfind(':');
    if (colon == std::string::npos) {
        fprintf(stderr, "kiv-http: --listen wants ADDRESS:PORT\n");
        return kExitUsage;
    }
    const std::string address = options.listen.substr(0, colon);
    const int port = atoi(options.listen.c_str() + colon + 1);
    if (port < 0 || port > 65535) {
        fprintf(stderr, "kiv-http: bad port in --listen\n");
        return kExitUsage;
    }
    std::string cert;
    std::string key;
    if (options.https &&
        (!read_text_file(options.cert, &cert) || !read_text_file(options.key, &key))) {
        fprintf(stderr, "kiv-http: --https needs readable --cert and --key PEM files\n");
        return kExitUsage;
    }
    demo::RecognitionServer server;
    if (!server.start(address, static_cast<uint16_t>(port), cert, key)) {
        fprintf(stderr, "kiv-http: cannot listen on %s: %s\n", options.listen.c_str(),
                server.last_error().c_str());
        return kExitLocalError;
    }
    printf("serving on %s://%s:%u (Ctrl-C to stop)\n", options.https ? "https" : "http",
           address.c_str(), server.port());
    fflush(stdout);
    signal(SIGINT, on_signal);
    signal(SIGTERM, on_signal);
    while (!g_stop.load()) {
        std::this_thread::sleep_for(milliseconds(100));
    }
    server.stop();
    return kExitOk;
}

}  // namespace cli
}  // namespace kiv
