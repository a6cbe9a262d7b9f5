// Pieces shared by the streaming benchmarks: loopback sockets with bounded waits, an HTTP request
// head reader, a minimal chunked-body decoder, the options the layer sets written against plain
// libcurl, the plain mutex + condition-variable byte queue a user would otherwise write, a caller
// object for the layer's deliveries, and clock, CPU and memory readings.
//
// Everything is header-only and inline so that each benchmark stays one source file.

#ifndef KIV_BENCH_BENCH_SERVER_H
#define KIV_BENCH_BENCH_SERVER_H

#include <arpa/inet.h>
#include <curl/curl.h>
#include <dirent.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <pthread.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "core/EventManager/EventManagerDecChunk.h"
#include "core/utility/Networking/kiv_HttpRequestMaker.h"
#include "core/utility/kiv_log.h"

namespace kiv_bench {

// Reassembles fixed-size records from download pieces, which libcurl may split or join, and
// calls `on_record` with each whole record.
template <size_t N>
class RecordReader {
public:
    template <typename OnRecord>
    void feed(const char* data, size_t len, OnRecord&& on_record) {
        while (len > 0) {
            const size_t take = std::min(len, N - have_);
            memcpy(record_ + have_, data, take);
            have_ += take;
            data += take;
            len -= take;
            if (have_ == N) {
                on_record(static_cast<const char*>(record_));
                have_ = 0;
            }
        }
    }

private:
    char record_[N];
    size_t have_ = 0;
};

using kiv::Memory::kiv_shared_ptr;
using kiv::Memory::kiv_shared_ptr_base;
using kiv::Networking::HTTP_REQUEST_ERROR;
using kiv::Networking::kiv_http_request_maker;
using kiv::Networking::kiv_HttpRequest;
using kiv::Networking::kiv_HttpResponse;

// ---------------------------------------------------------------------------------------------
// Clocks, statistics, resources

// Monotonic nanoseconds. steady_clock is CLOCK_MONOTONIC on Linux, which is system-wide, so
// stamps can be compared between a parent and a forked child too.
inline int64_t now_ns() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

inline void sleep_until_ns(int64_t deadline) {
    std::this_thread::sleep_until(std::chrono::steady_clock::time_point(
        std::chrono::duration_cast<std::chrono::steady_clock::duration>(
            std::chrono::nanoseconds(deadline))));
}

// Nearest-rank quantile (q in [0, 1]); 0 for no values.
inline double quantile(std::vector<double> values, double q) {
    if (values.empty()) {
        return 0;
    }
    std::sort(values.begin(), values.end());
    size_t rank = static_cast<size_t>(q * static_cast<double>(values.size()));
    return values[std::min(rank, values.size() - 1)];
}

inline double median(std::vector<double> values) {
    if (values.empty()) {
        return 0;
    }
    std::sort(values.begin(), values.end());
    size_t n = values.size();
    return n % 2 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}

inline double min_of(const std::vector<double>& v) {
    return v.empty() ? 0 : *std::min_element(v.begin(), v.end());
}
inline double max_of(const std::vector<double>& v) {
    return v.empty() ? 0 : *std::max_element(v.begin(), v.end());
}

// CPU seconds of the calling thread.
inline double thread_cpu_seconds() {
    timespec ts{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

// CPU seconds (user + system) of the whole process, every thread included.
inline double process_cpu_seconds() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    auto seconds = [](const timeval& tv) {
        return static_cast<double>(tv.tv_sec) + static_cast<double>(tv.tv_usec) * 1e-6;
    };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

// Resident set size of the process in KiB (0 if /proc is unreadable).
inline long rss_kib() {
    FILE* f = fopen("/proc/self/statm", "r");
    if (!f) {
        return 0;
    }
    long size = 0, resident = 0;
    if (fscanf(f, "%ld %ld", &size, &resident) != 2) {
        resident = 0;
    }
    fclose(f);
    return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

// Raises the soft open-files limit towards `want` (never above the hard limit).
inline void raise_nofile(rlim_t want) {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) {
        return;
    }
    rlim_t target = std::min(want, limit.rlim_max);
    if (limit.rlim_cur < target) {
        limit.rlim_cur = target;
        setrlimit(RLIMIT_NOFILE, &limit);
    }
}

// Pins the calling thread to one CPU (ignored where it is not allowed). Threads it creates
// afterwards inherit the pin.
inline void pin_to_cpu(int cpu) {
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(cpu, &set);
    pthread_setaffinity_np(pthread_self(), sizeof set, &set);
}

// Lets every thread of the process run on any CPU again. The latency phases run unpinned: a pinned
// thread waits out whatever else runs on its CPU, which turns other people's load into tails.
inline void unpin_all_threads() {
    cpu_set_t all;
    CPU_ZERO(&all);
    const unsigned n = std::max(1u, std::thread::hardware_concurrency());
    for (unsigned i = 0; i < n && i < CPU_SETSIZE; ++i) {
        CPU_SET(i, &all);
    }
    DIR* dir = opendir("/proc/self/task");
    if (!dir) {
        return;
    }
    while (dirent* entry = readdir(dir)) {
        const pid_t tid = static_cast<pid_t>(atoi(entry->d_name));
        if (tid > 0) {
            sched_setaffinity(tid, sizeof all, &all);
        }
    }
    closedir(dir);
}

// The throughput benchmarks pin the server to the last CPU and the client threads to the first,
// so that layer and baseline always get the same placement; otherwise the scheduler's choice
// (both on one core, or not) moves single rounds by tens of percent.
inline int server_cpu() {
    const unsigned n = std::thread::hardware_concurrency();
    return n >= 2 ? static_cast<int>(n) - 1 : -1;
}

// Command line of the throughput benches: [rounds] [mib_per_round] [latency_samples] [verbose]
// [pin]. Also starts libcurl, keeps the log at errors, and, unless pinning is off, moves this
// thread (and the workers it starts later) to CPU 0 so the server can have a CPU of its own.
struct ThroughputArgs {
    int rounds;
    int mib;
    int samples;
    bool verbose = false;
    int server_cpu = -1;  // where the server thread goes; -1: anywhere
};

inline bool start_throughput_bench(int argc, char** argv, ThroughputArgs* args, int min_samples) {
    args->rounds = argc > 1 ? atoi(argv[1]) : args->rounds;
    args->mib = argc > 2 ? atoi(argv[2]) : args->mib;
    args->samples = argc > 3 ? atoi(argv[3]) : args->samples;
    args->verbose = argc > 4 && atoi(argv[4]) != 0;
    if (args->rounds < 1 || args->mib < 1 || args->samples < min_samples) {
        fprintf(stderr,
                "usage: %s [rounds] [mib_per_round] [latency_samples>=%d] [verbose] [pin]\n",
                argv[0], min_samples);
        return false;
    }
    curl_global_init(CURL_GLOBAL_ALL);
    kiv::set_log_level(2);
    const bool pin = argc > 5 ? atoi(argv[5]) != 0 : true;
    if (pin && server_cpu() > 0) {
        pin_to_cpu(0);
        args->server_cpu = server_cpu();
    }
    return true;
}

// ---------------------------------------------------------------------------------------------
// Sockets

// Small pieces must leave at once: with Nagle a piece would wait for the client's delayed ACK.
inline void set_nodelay(int fd) {
    int one = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
}

// Bounds every blocking send and recv on `fd`, so a stuck peer ends a server loop instead of
// hanging it.
inline void set_io_timeout(int fd, int ms) {
    timeval tv{};
    tv.tv_sec = ms / 1000;
    tv.tv_usec = (ms % 1000) * 1000;
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
}

// A listening socket on 127.0.0.1 with an ephemeral port; exits the program on failure.
inline int listen_loopback(uint16_t* port, int backlog) {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    int one = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof addr;
    if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
        listen(fd, backlog) != 0 ||
        getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
        perror("listen on 127.0.0.1");
        exit(1);
    }
    *port = ntohs(addr.sin_port);
    return fd;
}

// Accepts one connection within `timeout_ms`; -1 when none came.
inline int accept_within(int listen_fd, int timeout_ms) {
    pollfd p{listen_fd, POLLIN, 0};
    if (poll(&p, 1, timeout_ms) <= 0) {
        return -1;
    }
    return accept4(listen_fd, nullptr, nullptr, SOCK_CLOEXEC);
}

// Sends all of `data` on a blocking socket; false on error or on the socket's send timeout.
inline bool send_all(int fd, const void* data, size_t len) {
    const char* p = static_cast<const char*>(data);
    while (len > 0) {
        ssize_t n = send(fd, p, len, MSG_NOSIGNAL);
        if (n <= 0) {
            return false;
        }
        p += n;
        len -= static_cast<size_t>(n);
    }
    return true;
}

// Waits (bounded by the socket's receive timeout) until the client closes, so that the server
// never closes first in the middle of libcurl's reading of the response.
inline void drain_until_close(int fd) {
    char buf[4096];
    for (int i = 0; i < 64; ++i) {
        if (recv(fd, buf, sizeof buf, 0) <= 0) {
            return;
        }
    }
}

// ---------------------------------------------------------------------------------------------
// HTTP

const char kContinue[] = "HTTP/1.1 100 Continue\r\n\r\n";
const char kChunkedHead[] =
    "HTTP/1.1 200 OK\r\nContent-Type: application/octet-stream\r\n"
    "Transfer-Encoding: chunked\r\n\r\n";
const char kEmptyOk[] = "HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n";
const char kLastChunk[] = "0\r\n\r\n";

struct RequestHead {
    std::string text;  // the head up to and including the empty line
    std::string path;
    bool expect_continue = false;
    bool chunked = false;
    long content_length = -1;
    std::string rest;  // bytes read past the head (the start of the body)
};

// Extracts the fields the benchmarks need from a complete head in `head.text`.
inline void parse_head(RequestHead& head) {
    std::string lower = head.text;
    for (char& c : lower) {
        c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
    }
    size_t sp1 = head.text.find(' ');
    size_t sp2 = sp1 == std::string::npos ? sp1 : head.text.find(' ', sp1 + 1);
    if (sp2 != std::string::npos) {
        head.path = head.text.substr(sp1 + 1, sp2 - sp1 - 1);
    }
    head.expect_continue = lower.find("\r\nexpect: 100-continue") != std::string::npos;
    head.chunked = lower.find("\r\ntransfer-encoding: chunked") != std::string::npos;
    size_t cl = lower.find("\r\ncontent-length:");
    if (cl != std::string::npos) {
        head.content_length = strtol(lower.c_str() + cl + 17, nullptr, 10);
    }
}

// Reads one request head from a blocking socket (bounded by its receive timeout).
inline bool read_request_head(int fd, RequestHead& head) {
    std::string data;
    char buf[4096];
    size_t end;
    while ((end = data.find("\r\n\r\n")) == std::string::npos) {
        if (data.size() > 65536) {
            return false;
        }
        ssize_t n = recv(fd, buf, sizeof buf, 0);
        if (n <= 0) {
            return false;
        }
        data.append(buf, static_cast<size_t>(n));
    }
    head.text = data.substr(0, end + 4);
    head.rest = data.substr(end + 4);
    parse_head(head);
    return true;
}

// Reads the rest of a Content-Length body (the download's single byte) and drops it.
inline bool skip_fixed_body(int fd, const RequestHead& head) {
    long left = head.content_length - static_cast<long>(head.rest.size());
    char buf[256];
    while (left > 0) {
        ssize_t n = recv(fd, buf, std::min<long>(left, static_cast<long>(sizeof buf)), 0);
        if (n <= 0) {
            return false;
        }
        left -= n;
    }
    return true;
}

// Incremental decoder of a chunked request body: payload bytes go to a callback, framing is
// checked just enough to find the terminating chunk. Trailers are skipped.
class ChunkedDecoder {
public:
    // Consumes bytes from `p` and passes payload runs to on_data(const char*, size_t). Stops at
    // the end of the body; returns the number of bytes consumed.
    template <typename OnData>
    size_t feed(const char* p, size_t n, OnData&& on_data) {
        size_t i = 0;
        while (i < n && state_ != kDone && state_ != kBad) {
            const char c = p[i];
            switch (state_) {
                case kSize:
                    if (isxdigit(static_cast<unsigned char>(c))) {
                        size_ = size_ * 16 + static_cast<uint64_t>(hexval(c));
                    } else if (c == ';') {
                        state_ = kExtension;
                    } else if (c == '\r') {
                        state_ = kSizeLf;
                    } else {
                        state_ = kBad;
                    }
                    ++i;
                    break;
                case kExtension:
                    if (c == '\r') {
                        state_ = kSizeLf;
                    }
                    ++i;
                    break;
                case kSizeLf:
                    state_ = c != '\n' ? kBad : size_ == 0 ? kTrailerStart : kData;
                    ++i;
                    break;
                case kData: {
                    size_t take = static_cast<size_t>(std::min<uint64_t>(size_, n - i));
                    on_data(p + i, take);
                    i += take;
                    size_ -= take;
                    if (size_ == 0) {
                        state_ = kDataCr;
                    }
                    break;
                }
                case kDataCr:
                    state_ = c == '\r' ? kDataLf : kBad;
                    ++i;
                    break;
                case kDataLf:
                    state_ = c == '\n' ? kSize : kBad;
                    ++i;
                    break;
                case kTrailerStart:
                    state_ = c == '\r' ? kFinalLf : kTrailerLine;
                    ++i;
                    break;
                case kTrailerLine:
                    if (c == '\n') {
                        state_ = kTrailerStart;
                    }
                    ++i;
                    break;
                case kFinalLf:
                    state_ = c == '\n' ? kDone : kBad;
                    ++i;
                    break;
                case kDone:
                case kBad:
                    break;
            }
        }
        return i;
    }

    bool done() const { return state_ == kDone; }
    bool bad() const { return state_ == kBad; }

private:
    static int hexval(char c) {
        return c <= '9' ? c - '0' : (tolower(static_cast<unsigned char>(c)) - 'a' + 10);
    }

    enum State {
        kSize,
        kExtension,
        kSizeLf,
        kData,
        kDataCr,
        kDataLf,
        kTrailerStart,
        kTrailerLine,
        kFinalLf,
        kDone,
        kBad
    };
    State state_ = kSize;
    uint64_t size_ = 0;
};

// Accepts connections one after another on its own thread and hands each to `handler`; every
// accepted socket gets TCP_NODELAY and a 5 s I/O bound. Stops within 100 ms of destruction.
// With `cpu` >= 0 the server thread is pinned to that CPU.
class SerialServer {
public:
    explicit SerialServer(std::function<void(int)> handler, int cpu = -1)
        : handler_(std::move(handler)) {
        fd_ = listen_loopback(&port_, 64);
        thread_ = std::thread([this, cpu] {
            if (cpu >= 0) {
                pin_to_cpu(cpu);
            }
            while (!stopping_.load()) {
                int client = accept_within(fd_, 100);
                if (client < 0) {
                    continue;
                }
                set_nodelay(client);
                set_io_timeout(client, 5000);
                handler_(client);
                close(client);
            }
        });
    }
    ~SerialServer() {
        stopping_ = true;
        thread_.join();
        close(fd_);
    }
    std::string url(const char* path) const {
        return "http://127.0.0.1:" + std::to_string(port_) + path;
    }

private:
    std::function<void(int)> handler_;
    int fd_ = -1;
    uint16_t port_ = 0;
    std::atomic<bool> stopping_{false};
    std::thread thread_;
};

// ---------------------------------------------------------------------------------------------
// Plain libcurl with the layer's options

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
// The layer installs the double-valued progress function to poll for cancellation; the
// baselines do the same so that libcurl runs the same code paths.
inline void set_raw_progress(CURL* curl, std::atomic<bool>* cancelled) {
    curl_easy_setopt(curl, CURLOPT_PROGRESSDATA, cancelled);
    curl_easy_setopt(
        curl, CURLOPT_PROGRESSFUNCTION, +[](void* p, double, double, double, double) -> int {
            return static_cast<std::atomic<bool>*>(p)->load() ? 1 : 0;
        });
    curl_easy_setopt(curl, CURLOPT_NOPROGRESS, 0L);
}
#pragma GCC diagnostic pop

// The body of a download request: one zero byte.
const char kZeroByte[1] = {0};

// Sets what the layer sets for a chunked download. Returns the header list to free after the
// transfer.
inline curl_slist* raw_download_options(CURL* curl, const std::string& url,
                                        curl_write_callback write, void* write_data,
                                        std::atomic<bool>* cancelled) {
    curl_slist* headers = curl_slist_append(nullptr, "Content-Type: application/octet-stream");
    headers = curl_slist_append(headers, "Accept-Encoding:gzip,deflate");
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl, CURLOPT_POST, 1L);
    curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl, CURLOPT_VERBOSE, 0L);
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, write);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, write_data);
    curl_easy_setopt(curl, CURLOPT_POSTFIELDS, kZeroByte);
    curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE, 1L);
    set_raw_progress(curl, cancelled);
    return headers;
}

inline size_t discard_write(char*, size_t size, size_t nmemb, void*) {
    return size * nmemb;
}

// Sets what the layer sets for a chunked upload. Returns the header list to free afterwards.
inline curl_slist* raw_upload_options(CURL* curl, const std::string& url, curl_read_callback read,
                                      void* read_data, std::atomic<bool>* cancelled) {
    curl_slist* headers = curl_slist_append(nullptr, "Transfer-Encoding: chunked");
    headers = curl_slist_append(headers, "Content-Encoding: gzip");
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl, CURLOPT_POST, 1L);
    curl_easy_setopt(curl, CURLOPT_VERBOSE, 0L);
    curl_easy_setopt(curl, CURLOPT_HEADER, 0L);
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, &discard_write);
    curl_easy_setopt(curl, CURLOPT_FOLLOWLOCATION, 1L);
    curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
    curl_easy_setopt(curl, CURLOPT_READFUNCTION, read);
    curl_easy_setopt(curl, CURLOPT_READDATA, read_data);
    set_raw_progress(curl, cancelled);
    return headers;
}

// The upload feed a user of plain libcurl would write: pieces pushed under a mutex, a read
// callback that blocks on the condition variable until bytes or the end arrive. The wait is
// bounded (10 s) only so that a broken run cannot hang the benchmark.
class PlainByteQueue {
public:
    void push(const unsigned char* data, size_t len, bool is_last) {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            if (len > 0) {
                pieces_.emplace_back(data, data + len);
            }
            last_ = last_ || is_last;
        }
        ready_.notify_one();
    }

    static size_t read(char* buffer, size_t size, size_t nitems, void* self) {
        return static_cast<PlainByteQueue*>(self)->pop(buffer, size * nitems);
    }

private:
    size_t pop(char* buffer, size_t max) {
        std::unique_lock<std::mutex> lock(mutex_);
        if (!ready_.wait_for(lock, std::chrono::seconds(10),
                             [&] { return !pieces_.empty() || last_; })) {
            return CURL_READFUNC_ABORT;
        }
        size_t copied = 0;
        while (copied < max && !pieces_.empty()) {
            std::vector<unsigned char>& front = pieces_.front();
            size_t take = std::min(max - copied, front.size() - offset_);
            memcpy(buffer + copied, front.data() + offset_, take);
            copied += take;
            offset_ += take;
            if (offset_ == front.size()) {
                pieces_.pop_front();
                offset_ = 0;
            }
        }
        return copied;  // 0 only at the end
    }

    std::mutex mutex_;
    std::condition_variable ready_;
    std::deque<std::vector<unsigned char>> pieces_;
    size_t offset_ = 0;
    bool last_ = false;
};

// ---------------------------------------------------------------------------------------------
// The layer's caller side

// The caller's per-stream object (what start_request's parameter points to): hands each body
// piece to on_piece() and records the final delivery.
class StreamCaller : public kiv::EventManagerDecChunk {
public:
    ~StreamCaller() override {}

    // Runs on the transfer's worker for each downloaded piece.
    virtual void on_piece(const char*, size_t len) { bytes.fetch_add(len); }

    // Static callback handed to start_request. The parameter is the address of the starter's
    // kiv_shared_ptr<StreamCaller>, which the benchmarks keep until the final delivery, so it
    // is read in place rather than copied: the callback then costs what a counting callback
    // costs and the measurement shows the layer, not the caller.
    static void callback(kiv_shared_ptr<kiv_http_request_maker>&,
                         kiv_shared_ptr<kiv_HttpResponse>& response, kiv_shared_ptr_base* param) {
        StreamCaller* self = static_cast<kiv_shared_ptr<StreamCaller>*>(param)->getPTR();
        kiv_HttpResponse* r = response.getPTR();
        const int32_t status = r->get_http_status();
        const HTTP_REQUEST_ERROR error = r->get_local_request_error();
        if (status == 0 && error == kiv::Networking::HTTP_REQUEST_OK) {
            if (self->cpu_first < 0) {
                self->cpu_first = thread_cpu_seconds();
            }
            self->on_piece(r->get_response_data().getPTR(), r->get_response_len());
            return;
        }
        {
            std::lock_guard<std::mutex> lock(self->mutex_);
            self->cpu_final = thread_cpu_seconds();
            self->final_status = status;
            self->final_error = error;
            self->finished = true;
        }
        self->done_.notify_all();
    }

    bool wait_final(std::chrono::milliseconds limit) {
        std::unique_lock<std::mutex> lock(mutex_);
        return done_.wait_for(lock, limit, [&] { return finished; });
    }

    std::atomic<uint64_t> bytes{0};
    // CPU clock of the delivering worker at the first piece and at the final delivery: the
    // client-side cost of a download, free of the wall-clock noise of a shared machine.
    double cpu_first = -1;
    double cpu_final = -1;
    int32_t final_status = 0;
    HTTP_REQUEST_ERROR final_error = kiv::Networking::HTTP_REQUEST_OK;
    bool finished = false;

private:
    std::mutex mutex_;
    std::condition_variable done_;
};

// Starts a streaming request of `method` on a new task with `param` as the caller object.
inline kiv_shared_ptr<kiv_http_request_maker> start_stream(
    const std::string& url, kiv::Networking::HTTP_REQUEST_METHOD method,
    kiv_shared_ptr<StreamCaller>& param) {
    kiv_shared_ptr<kiv_http_request_maker> task = kiv_http_request_maker::get_instance();
    kiv_shared_ptr<kiv_HttpRequest> request = kiv_HttpRequest::requestWithUrl(url);
    request->_METHOD = method;
    task->start_request(request, &StreamCaller::callback, &param);
    return task;
}

}  // namespace kiv_bench

#endif
