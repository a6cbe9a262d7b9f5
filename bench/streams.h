// The two sides of a streaming transfer, for the benchmarks that compare them: the layer through
// its public API, and raw libcurl set up with the options the layer sets, one blocking
// curl_easy_perform on one thread per transfer, an upload fed through the mutex + condition
// variable queue a user would otherwise write.

#ifndef KIV_BENCH_STREAMS_H
#define KIV_BENCH_STREAMS_H

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <vector>

#include "bench/loopback_server.h"
#include "core/EventManager/EventManagerDecChunk.h"
#include "core/utility/Networking/kiv_HttpRequestMaker.h"

namespace kiv_bench {

using kiv::Memory::kiv_shared_ptr;
using kiv::Networking::kiv_http_request_maker;

// What one download stream received; fed from one thread at a time. With `records`, the body
// is reassembled into the server's records (pieces may split or join them) and each record's
// delay (now - its stamp) is kept.
struct Sink {
    bool records = false;
    uint64_t bytes = 0;
    std::vector<float> delay_ms;
    char record[kRecord];
    size_t have = 0;

    void feed(const char* data, size_t len);
};

// The caller's per-stream object of the layer. The callback reads the starter's
// kiv_shared_ptr<LayerStream> in place (the starter keeps it until the final delivery), so it
// costs what a counting callback costs and the figures show the layer, not the caller.
class LayerStream : public kiv::EventManagerDecChunk {
public:
    // Starts a transfer (CHUNK_UP or CHUNK_DOWN) with `self` as the caller object.
    static kiv_shared_ptr<kiv_http_request_maker> start(const std::string& url, bool upload,
                                                        kiv_shared_ptr<LayerStream>& self);
    // True when the final delivery came within `ms` with the server's 200 and, for a download,
    // a clean end.
    bool wait_ok(int ms);

    Sink sink;
    bool upload = false;
    bool finished = false;
    int status = 0;
    int error = 0;

private:
    static void callback(kiv_shared_ptr<kiv_http_request_maker>&,
                         kiv_shared_ptr<kiv::Networking::kiv_HttpResponse>& response,
                         kiv::Memory::kiv_shared_ptr_base* param);
    std::mutex mutex_;
    std::condition_variable done_;
};

// The upload feed of raw libcurl: pieces pushed under a mutex, a read callback that sleeps on the
// condition until bytes or the end arrive (bounded only so a broken run cannot hang).
class PlainQueue {
public:
    void push(const unsigned char* data, size_t len, bool is_last);
    static size_t read(char* buffer, size_t size, size_t nitems, void* self);

private:
    std::mutex mutex_;
    std::condition_variable ready_;
    std::deque<std::vector<unsigned char>> pieces_;
    size_t offset_ = 0;
    bool last_ = false;
};

// Blocking raw transfers on the calling thread; each returns the HTTP status, or minus the
// libcurl error code.
long raw_download(const std::string& url, Sink* sink);
long raw_upload(const std::string& url, PlainQueue* queue);
// What execute() does for a GET: the body into `body`, the header lines kept.
long raw_get(const std::string& url, std::string* body);

}  // namespace kiv_bench

#endif
