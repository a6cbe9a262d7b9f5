#include <chrono>
#include <cstdio>
#include <fstream>

#include "tools/cli/commands.h"
#include "tools/cli/stream_client.h"
#include "tools/server/gzip_stream.h"

namespace kiv {
namespace cli {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

namespace {

// Compressed bytes an upload may hold queued beyond what libcurl has taken: enough to keep the
// connection busy, little enough that memory and progress follow the network, not the file.
constexpr uint64_t kUploadWindow = 1 << 20;

double seconds_since(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// Says why a stream failed, in one line, and maps its end to an exit status.
int report_end(const char* what, const StreamEnd& end) {
    if (end.status >= 200 && end.status <= 299) {
        return kExitOk;
    }
    if (end.status != 0) {
        const bool redirect = end.status >= 300 && end.status <= 399;
        fprintf(stderr, "kiv-http: server answered %d%s\n", end.status,
                redirect ? " (a stream does not follow redirects)" : "");
        return kExitHttpError;
    }
    if (end.curl_code != 0) {
        fprintf(stderr, "kiv-http: (%d) %s\n", end.curl_code, end.curl_error.c_str());
    } else if (end.error == Networking::HTTP_REQUEST_TIMEOUT) {
        fprintf(stderr, "kiv-http: %s: no data from the server for 12 s\n", what);
    } else {
        fprintf(stderr, "kiv-http: %s failed: %s\n", what, end.message.c_str());
    }
    return kExitLocalError;
}

}  // namespace

int run_upload(const StreamOptions& options) {
    if (options.follow) {
        fprintf(stderr,
                "kiv-http: upload does not follow redirects: a streamed body cannot be sent "
                "again (drop -L)\n");
        return kExitUsage;
    }
    std::ifstream in(options.file, std::ios::binary | std::ios::ate);
    if (!in) {
        fprintf(stderr, "kiv-http: cannot read %s\n", options.file.c_str());
        return kExitUsage;
    }
    const uint64_t file_size = static_cast<uint64_t>(in.tellg());
    in.seekg(0);
    // A frame of 16 kHz, 16-bit mono audio lasts frame_ms.
    std::string frame(static_cast<size_t>(options.frame_ms) * 32, '\0');
    const bool progress = !options.silent && stderr_is_terminal();
    StreamClient client;
    client.start_upload(options.url, options.origin_url, options.tls);
    demo::GzipWriter gzip;
    const Clock::time_point start = Clock::now();
    uint64_t read = 0;
    size_t frames = 0;
    Clock::time_point shown;
    auto show_progress = [&] {
        shown = Clock::now();
        const double elapsed = seconds_since(start);
        fprintf(stderr, "\rread %llu of %llu bytes, sent %llu bytes gzip, %.0f KB/s, %.1f s   ",
                static_cast<unsigned long long>(read), static_cast<unsigned long long>(file_size),
                static_cast<unsigned long long>(client.bytes_sent()),
                elapsed > 0 ? static_cast<double>(client.bytes_sent()) / 1024.0 / elapsed : 0.0,
                elapsed);
    };
    // Each frame waits for its moment (in real time) and for libcurl to have taken all but a
    // window of what is queued. The wait ends at once when the stream does: a server that has
    // answered or gone away is not fed the rest of the file.
    bool over = false;
    while (!over && in.read(&frame[0], static_cast<std::streamsize>(frame.size())).gcount() > 0) {
        const Clock::time_point due =
            options.realtime ? start + milliseconds(frames * options.frame_ms) : Clock::now();
        over = client.wait_over(due);
        while (!over && client.bytes_queued() - client.bytes_sent() > kUploadWindow) {
            over = client.wait_over(Clock::now() + milliseconds(2));
        }
        if (over) {
            break;
        }
        const size_t size = static_cast<size_t>(in.gcount());
        client.send(gzip.push(reinterpret_cast<const uint8_t*>(frame.data()), size), false);
        read += size;
        ++frames;
        if (progress && Clock::now() - shown >= milliseconds(100)) {
            show_progress();
        }
    }
    if (in.bad()) {
        client.cancel();
        fprintf(stderr, "kiv-http: cannot read %s\n", options.file.c_str());
        return kExitLocalError;
    }
    if (!over) {
        client.send(gzip.finish(), true);
    }
    if (!client.wait_over(Clock::now() + std::chrono::seconds(60))) {
        fprintf(stderr, "kiv-http: upload: no final answer within 60 s\n");
        return kExitLocalError;
    }
    if (progress) {
        show_progress();
        fputc('\n', stderr);
    } else if (!options.silent) {
        fprintf(stderr, "upload: %llu bytes in %zu frames (%llu bytes gzip) in %.2f s\n",
                static_cast<unsigned long long>(read), frames,
                static_cast<unsigned long long>(client.bytes_sent()), seconds_since(start));
    }
    StreamEnd end;
    if (!client.wait_end(milliseconds(0), &end)) {
        // Over without a final delivery: the layer ends a 201-299 answer silently, body and all.
        return kExitOk;
    }
    // The server's answer, like curl prints it.
    fwrite(end.body.data(), 1, end.body.size(), stdout);
    fflush(stdout);
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
    // A download ends on its own: at the server's end of body, a failure, or 12 s of silence.
    while (!client.wait_over(Clock::now() + std::chrono::hours(1))) {
    }
    StreamEnd end;
    const bool delivered = client.wait_end(milliseconds(0), &end);
    if (!options.silent) {
        fprintf(stderr, "download: %llu bytes in %llu pieces in %.2f s\n",
                static_cast<unsigned long long>(received),
                static_cast<unsigned long long>(client.pieces()), seconds_since(start));
    }
    // Over without a final delivery: the layer ends a 201-299 answer silently.
    return delivered ? report_end("download", end) : kExitOk;
}

}  // namespace cli
}  // namespace kiv
