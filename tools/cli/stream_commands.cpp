#include <chrono>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <thread>

#include "tools/cli/commands.h"
#include "tools/cli/stream_client.h"
#include "tools/server/gzip_stream.h"

namespace kiv {
namespace cli {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

namespace {

double seconds_since(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// Reports how a stream ended and maps it to an exit status.
int report_end(const char* what, const StreamEnd& end) {
    if (end.status != 0) {
        fprintf(stderr, "%s: server answered %d\n", what, end.status);
        return end.status >= 200 && end.status <= 299 ? kExitOk : kExitHttpError;
    }
    // libcurl's reason first: it names what failed (a refused connection, a TLS problem).
    fprintf(stderr, "%s: failed: %s (libcurl code %d; local error %d)\n", what,
            end.curl_error.empty() ? end.message.c_str() : end.curl_error.c_str(), end.curl_code,
            static_cast<int>(end.error));
    return kExitLocalError;
}

}  // namespace

int run_upload(const StreamOptions& options) {
    std::ifstream in(options.file, std::ios::binary);
    std::string bytes(std::istreambuf_iterator<char>(in), {});
    if (!in && !in.eof()) {
        fprintf(stderr, "kiv-http: cannot read %s\n", options.file.c_str());
        return kExitUsage;
    }
    // A frame of 16 kHz, 16-bit mono audio lasts frame_ms.
    const size_t frame = static_cast<size_t>(options.frame_ms) * 32;
    const bool progress = stderr_is_terminal();
    StreamClient client;
    client.start_upload(options.url, options.origin_url, options.tls);
    demo::GzipWriter gzip;
    const Clock::time_point start = Clock::now();
    size_t frames = 0;
    for (size_t at = 0; at < bytes.size(); at += frame, ++frames) {
        if (options.realtime) {
            std::this_thread::sleep_until(start + milliseconds(frames * options.frame_ms));
        }
        size_t size = std::min(frame, bytes.size() - at);
        client.send(gzip.push(reinterpret_cast<const uint8_t*>(bytes.data()) + at, size), false);
        if (progress) {
            double elapsed = seconds_since(start);
            fprintf(stderr, "\rsent %zu of %zu bytes (%llu compressed), %.0f KB/s, %.1f s   ",
                    at + size, bytes.size(), static_cast<unsigned long long>(client.bytes_sent()),
                    elapsed > 0 ? (at + size) / 1024.0 / elapsed : 0.0, elapsed);
        }
    }
    client.send(gzip.finish(), true);
    if (progress) {
        fputc('\n', stderr);
    }
    StreamEnd end;
    if (!client.wait_end(std::chrono::seconds(60), &end)) {
        fprintf(stderr, "upload: no final answer within 60 s\n");
        return kExitLocalError;
    }
    fprintf(stderr, "upload: %zu bytes in %zu frames (%llu bytes gzip) in %.2f s\n", bytes.size(),
            frames, static_cast<unsigned long long>(client.bytes_sent()), seconds_since(start));
    return report_end("upload", end);
}

int run_download(const StreamOptions& options) {
    StreamClient client;
    uint64_t received = 0;
    const Clock::time_point start = Clock::now();
    client.start_download(
        options.url, options.origin_url,
        [&](const char* data, size_t size) {
            fwrite(data, 1, size, stdout);
            fflush(stdout);
            received += size;  // worker thread only; read after the end
        },
        options.tls);
    StreamEnd end;
    // A download ends on its own: at the server's end of body, a failure, or 12 s of silence.
    while (!client.wait_end(std::chrono::seconds(3600), &end)) {
    }
    fprintf(stderr, "download: %llu bytes in %llu pieces in %.2f s\n",
            static_cast<unsigned long long>(received),
            static_cast<unsigned long long>(client.pieces()), seconds_since(start));
    return report_end("download", end);
}

}  // namespace cli
}  // namespace kiv
