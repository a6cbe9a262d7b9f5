// The one loopback HTTP server of the benchmarks: an epoll loop on its own thread, listening on
// 127.0.0.1, that answers by path:
//
//   GET  /ok                  200 "ok", Connection: close
//   POST /bytes/N             a chunked body of N bytes in 16 KiB chunks, as fast as it can
//   POST /pieces/N/GAP_US     N stamped records (see kRecord), one every GAP_US, then the end
//   POST /stream              held open; from go() on, one scheduled record per period, spread
//                             evenly over the open streams; stop() ends them all
//   POST /up[/frames]         a chunked upload: counted, answered 100 Continue and finally 200;
//                             with /frames, every kFrame bytes are a frame whose first 8 bytes
//                             are its scheduled send time, and its lateness is kept
//
// A record is kRecord bytes: a CLOCK_MONOTONIC stamp (ns; the send time for /pieces, the
// scheduled time for /stream), a sequence number, padding. Everything runs under one mutex, so
// the control calls below may come from any thread. Its CPU is its thread's, so a benchmark
// subtracts it from the process's to get the client's.

#ifndef KIV_BENCH_LOOPBACK_SERVER_H
#define KIV_BENCH_LOOPBACK_SERVER_H

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace kiv_bench {

const size_t kRecord = 32;
const size_t kFrame = 1280;

class LoopbackServer {
public:
    LoopbackServer();
    ~LoopbackServer();  // closes every connection; returns within 100 ms

    std::string url(const std::string& path) const;
    double cpu_seconds() const;  // of the server thread, so far

    // Uploads: body bytes received over all uploads, the time of the latest arrival, and the
    // time the first body byte of the latest upload arrived.
    std::atomic<uint64_t> upload_bytes{0};
    std::atomic<int64_t> last_arrival_ns{0}, first_byte_ns{0};

    // Streams in progress: uploads whose head has arrived, /stream downloads answered.
    void count(int* uploads, int* streams);
    // Starts the /stream schedule: the k-th record of stream i is due at
    // start + k * period + i * period / streams. Clears the frame figures.
    void go(int64_t start_ns, int64_t period_ns);
    struct Figures {
        uint64_t pieces_sent = 0;
        std::vector<double> frame_delay_ms;  // arrival of a whole frame - its stamp
    };
    // Ends every /stream download with the last chunk; returns what was sent and received since
    // go().
    Figures stop();

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace kiv_bench

#endif
