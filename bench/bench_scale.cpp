// How many concurrent streaming pairs (one chunked upload + one chunked download each) the
// machine carries with the layer, with audio at real-time rate: every pair uploads a 1280-byte
// frame every 40 ms (32 KB/s) through send_data, and the server sends a 32-byte result piece on
// every download every 40 ms. Frames and pieces carry their scheduled time (CLOCK_MONOTONIC,
// shared by the processes); a frame is on time when the server has read all of it, a piece when
// the caller's callback has it, within 100 ms of that schedule.
//
// The server is an epoll loop in a forked child process, so that the client's CPU is the
// parent's getrusage and the server's load on the shared cores is reported apart. Each step
// connects N pairs, lets them sit idle for a second (memory per idle pair: RSS growth over the
// baseline / N), streams for `seconds`, then ends every transfer cleanly (is_last on uploads, the
// last chunk on downloads) and checks that each made its final delivery.
//
// For comparison, the same load with plain libcurl (one thread per transfer, like the pool; the
// uploads fed through a mutex + condition-variable queue) runs in a fresh process of this program
// (`--raw`), so that neither side's memory or threads linger in the other's figures.
//
// Usage: bench_scale [steps=100,200,300,500] [seconds=10] [raw_steps=500 or "none"]

#include <curl/curl.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/wait.h>

#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "bench/bench_server.h"
#include "core/utility/Threads/GlobalThreadPool.h"
#include "core/utility/kiv_log.h"

namespace {

using namespace kiv_bench;

const int64_t kPeriodNs = 40 * 1000 * 1000;
const int64_t kOnTimeNs = 100 * 1000 * 1000;
const size_t kFrame = 1280;
const size_t kRecord = 32;

// ---------------------------------------------------------------------------------------------
// Server (child process)

struct Conn {
    enum Phase { kHead, kDownBody, kUp, kDown, kClosed };
    int fd = -1;
    Phase phase = kHead;
    std::string head;
    long body_left = 0;
    ChunkedDecoder decoder;
    size_t fill = 0;  // bytes of the current upload frame received
    char stamp[8] = {};
    std::string out;  // bytes the socket did not take yet
};

class Server {
public:
    Server(int listen_fd, int control_fd) : listen_fd_(listen_fd), control_fd_(control_fd) {
        ep_ = epoll_create1(EPOLL_CLOEXEC);
        fcntl(listen_fd_, F_SETFL, fcntl(listen_fd_, F_GETFL) | O_NONBLOCK);
        watch(listen_fd_, EPOLLIN, EPOLL_CTL_ADD);
        watch(control_fd_, EPOLLIN, EPOLL_CTL_ADD);
    }

    // Serves until QUIT, the parent's end of the control socket closing, or 10 minutes.
    void run() {
        const int64_t hard_limit = now_ns() + 600LL * 1000000000LL;
        std::vector<epoll_event> events(1024);
        while (!quit_ && now_ns() < hard_limit) {
            int timeout = 100;
            if (streaming_) {
                int64_t wait = next_event_time() - now_ns();
                timeout = wait <= 0 ? 0 : static_cast<int>((wait + 999999) / 1000000);
            }
            int n = epoll_wait(ep_, events.data(), static_cast<int>(events.size()), timeout);
            for (int i = 0; i < n; ++i) {
                const int fd = events[i].data.fd;
                if (fd == listen_fd_) {
                    accept_all();
                } else if (fd == control_fd_) {
                    on_control();
                } else if (Conn* c = conn(fd)) {
                    if (events[i].events & EPOLLOUT) {
                        flush(c);
                    }
                    if (c->fd >= 0 && (events[i].events & (EPOLLIN | EPOLLHUP | EPOLLERR))) {
                        on_readable(c);
                    }
                }
            }
            if (streaming_) {
                send_due_pieces();
            }
        }
    }

private:
    void watch(int fd, uint32_t events, int op) {
        epoll_event ev{};
        ev.events = events;
        ev.data.fd = fd;
        epoll_ctl(ep_, op, fd, &ev);
    }

    Conn* conn(int fd) {
        return fd >= 0 && static_cast<size_t>(fd) < by_fd_.size() ? by_fd_[fd] : nullptr;
    }

    void accept_all() {
        for (;;) {
            int fd = accept4(listen_fd_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
            if (fd < 0) {
                return;
            }
            set_nodelay(fd);
            all_.emplace_back(new Conn);
            Conn* c = all_.back().get();
            c->fd = fd;
            if (by_fd_.size() <= static_cast<size_t>(fd)) {
                by_fd_.resize(static_cast<size_t>(fd) + 1024, nullptr);
            }
            by_fd_[fd] = c;
            watch(fd, EPOLLIN, EPOLL_CTL_ADD);
        }
    }

    void close_conn(Conn* c) {
        epoll_ctl(ep_, EPOLL_CTL_DEL, c->fd, nullptr);
        close(c->fd);
        by_fd_[c->fd] = nullptr;
        c->fd = -1;
        c->phase = Conn::kClosed;
    }

    void queue_send(Conn* c, const char* data, size_t len) {
        if (c->fd < 0) {
            return;
        }
        if (c->out.empty()) {
            ssize_t n = send(c->fd, data, len, MSG_NOSIGNAL | MSG_DONTWAIT);
            if (n == static_cast<ssize_t>(len)) {
                return;
            }
            size_t sent = n > 0 ? static_cast<size_t>(n) : 0;
            c->out.assign(data + sent, len - sent);
            watch(c->fd, EPOLLIN | EPOLLOUT, EPOLL_CTL_MOD);
        } else {
            c->out.append(data, len);
        }
    }

    void flush(Conn* c) {
        while (!c->out.empty()) {
            ssize_t n = send(c->fd, c->out.data(), c->out.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
            if (n <= 0) {
                return;  // still full: wait for the next EPOLLOUT
            }
            c->out.erase(0, static_cast<size_t>(n));
        }
        watch(c->fd, EPOLLIN, EPOLL_CTL_MOD);
    }

    void on_readable(Conn* c) {
        static char buf[64 * 1024];
        for (;;) {
            ssize_t n = recv(c->fd, buf, sizeof buf, 0);
            if (n == 0 || (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK)) {
                close_conn(c);
                return;
            }
            if (n < 0) {
                return;
            }
            consume(c, buf, static_cast<size_t>(n));
            if (c->fd < 0) {
                return;
            }
        }
    }

    void consume(Conn* c, const char* p, size_t n) {
        if (c->phase == Conn::kHead) {
            c->head.append(p, n);
            size_t end = c->head.find("\r\n\r\n");
            if (end == std::string::npos) {
                return;
            }
            RequestHead head;
            head.text = c->head.substr(0, end + 4);
            std::string rest = c->head.substr(end + 4);
            parse_head(head);
            c->head.clear();
            if (head.path.compare(0, 3, "/up") == 0) {
                if (head.expect_continue) {
                    queue_send(c, kContinue, sizeof kContinue - 1);
                }
                c->phase = Conn::kUp;
                consume_upload(c, rest.data(), rest.size());
            } else {
                c->phase = Conn::kDownBody;
                c->body_left = head.content_length > 0 ? head.content_length : 0;
                consume(c, rest.data(), rest.size());
            }
            return;
        }
        if (c->phase == Conn::kDownBody) {
            const size_t take = std::min<size_t>(n, static_cast<size_t>(c->body_left));
            c->body_left -= static_cast<long>(take);
            if (c->body_left == 0) {
                c->phase = Conn::kDown;
                queue_send(c, kChunkedHead, sizeof kChunkedHead - 1);
            }
            return;
        }
        if (c->phase == Conn::kUp) {
            consume_upload(c, p, n);
        }
        // kDown: the client sends nothing more until it closes.
    }

    void consume_upload(Conn* c, const char* p, size_t n) {
        const int64_t now = now_ns();
        c->decoder.feed(p, n, [&](const char* data, size_t len) {
            while (len > 0) {
                if (c->fill < sizeof c->stamp) {
                    size_t take = std::min(len, sizeof c->stamp - c->fill);
                    memcpy(c->stamp + c->fill, data, take);
                }
                size_t take = std::min(len, kFrame - c->fill);
                c->fill += take;
                data += take;
                len -= take;
                if (c->fill == kFrame) {
                    int64_t scheduled;
                    memcpy(&scheduled, c->stamp, 8);
                    frame_late_us_.push_back(static_cast<float>(now - scheduled) / 1000.0f);
                    c->fill = 0;
                }
            }
        });
        if (c->decoder.done()) {
            queue_send(c, kEmptyOk, sizeof kEmptyOk - 1);
        } else if (c->decoder.bad()) {
            close_conn(c);
        }
    }

    int64_t next_event_time() const {
        return go_ns_ +
               static_cast<int64_t>(next_event_) * kPeriodNs / static_cast<int64_t>(downs_.size());
    }

    void send_due_pieces() {
        const int64_t now = now_ns();
        while (next_event_time() <= now) {
            const int64_t scheduled = next_event_time();
            Conn* c = downs_[next_event_ % downs_.size()];
            const uint64_t seq = next_event_ / downs_.size();
            ++next_event_;
            if (c->fd < 0 || c->phase != Conn::kDown) {
                continue;
            }
            char piece[4 + kRecord + 2] = {'2', '0', '\r', '\n'};
            memcpy(piece + 4, &scheduled, 8);
            memcpy(piece + 12, &seq, 8);
            memset(piece + 20, 'r', kRecord - 16);
            piece[4 + kRecord] = '\r';
            piece[4 + kRecord + 1] = '\n';
            queue_send(c, piece, sizeof piece);
            ++pieces_sent_;
            send_lag_max_ns_ = std::max(send_lag_max_ns_, now - scheduled);
        }
    }

    void on_control() {
        char buf[256];
        ssize_t n = recv(control_fd_, buf, sizeof buf, 0);
        if (n <= 0) {
            quit_ = true;
            return;
        }
        control_in_.append(buf, static_cast<size_t>(n));
        size_t eol;
        while ((eol = control_in_.find('\n')) != std::string::npos) {
            std::string line = control_in_.substr(0, eol);
            control_in_.erase(0, eol + 1);
            command(line);
        }
    }

    void reply(const std::string& line) {
        std::string text = line + "\n";
        if (!send_all(control_fd_, text.data(), text.size())) {
            quit_ = true;
        }
    }

    void command(const std::string& line) {
        if (line == "COUNT") {
            int up = 0, down = 0;
            for (Conn* c : by_fd_) {
                if (c) {
                    up += c->phase == Conn::kUp;
                    down += c->phase == Conn::kDown;
                }
            }
            reply("COUNT " + std::to_string(up) + " " + std::to_string(down) + " " +
                  std::to_string(open_count()));
        } else if (line == "GO") {
            downs_.clear();
            for (Conn* c : by_fd_) {
                if (c && c->phase == Conn::kDown) {
                    downs_.push_back(c);
                }
            }
            frame_late_us_.clear();
            pieces_sent_ = 0;
            send_lag_max_ns_ = 0;
            cpu_go_ = process_cpu_seconds();
            go_ns_ = now_ns() + 5 * 1000 * 1000;
            next_event_ = 0;
            streaming_ = !downs_.empty();
            reply("GO " + std::to_string(downs_.size()) + " " + std::to_string(go_ns_));
        } else if (line == "STOP") {
            streaming_ = false;
            for (Conn* c : downs_) {
                if (c->fd >= 0 && c->phase == Conn::kDown) {
                    queue_send(c, kLastChunk, sizeof kLastChunk - 1);
                }
            }
            std::vector<double> late(frame_late_us_.begin(), frame_late_us_.end());
            size_t over = 0;
            for (double v : late) {
                over += v > kOnTimeNs / 1000.0;
            }
            char text[256];
            snprintf(text, sizeof text, "STATS %zu %zu %.1f %.1f %.1f %" PRIu64 " %.3f %.3f",
                     late.size(), over, quantile(late, 0.5), quantile(late, 0.99), max_of(late),
                     pieces_sent_, static_cast<double>(send_lag_max_ns_) / 1e6,
                     process_cpu_seconds() - cpu_go_);
            downs_.clear();
            reply(text);
        } else if (line == "QUIT") {
            quit_ = true;
        }
    }

    int open_count() const {
        int open = 0;
        for (Conn* c : by_fd_) {
            open += c != nullptr;
        }
        return open;
    }

    int ep_ = -1;
    int listen_fd_;
    int control_fd_;
    std::vector<std::unique_ptr<Conn>> all_;  // never shrinks: downs_ may point at closed ones
    std::vector<Conn*> by_fd_;
    std::string control_in_;
    bool quit_ = false;
    bool streaming_ = false;
    std::vector<Conn*> downs_;
    int64_t go_ns_ = 0;
    uint64_t next_event_ = 0;
    std::vector<float> frame_late_us_;
    uint64_t pieces_sent_ = 0;
    int64_t send_lag_max_ns_ = 0;
    double cpu_go_ = 0;
};

// ---------------------------------------------------------------------------------------------
// Client side: control of the server child

class ServerProcess {
public:
    ServerProcess() {
        int pair[2];
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) != 0) {
            perror("socketpair");
            exit(1);
        }
        int listen_fd = listen_loopback(&port_, 4096);
        pid_ = fork();
        if (pid_ < 0) {
            perror("fork");
            exit(1);
        }
        if (pid_ == 0) {
            close(pair[0]);
            Server server(listen_fd, pair[1]);
            server.run();
            _exit(0);
        }
        close(pair[1]);
        close(listen_fd);
        fd_ = pair[0];
    }

    ~ServerProcess() {
        send_line("QUIT");
        close(fd_);
        for (int i = 0; i < 50; ++i) {
            if (waitpid(pid_, nullptr, WNOHANG) == pid_) {
                return;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }

    // Sends a command and returns the reply line (empty on timeout).
    std::string ask(const std::string& command, int timeout_ms = 5000) {
        if (!send_line(command)) {
            return std::string();
        }
        const int64_t deadline = now_ns() + static_cast<int64_t>(timeout_ms) * 1000000;
        size_t eol;
        while ((eol = in_.find('\n')) == std::string::npos) {
            int left = static_cast<int>((deadline - now_ns()) / 1000000);
            pollfd p{fd_, POLLIN, 0};
            if (left <= 0 || poll(&p, 1, left) <= 0) {
                return std::string();
            }
            char buf[512];
            ssize_t n = recv(fd_, buf, sizeof buf, 0);
            if (n <= 0) {
                return std::string();
            }
            in_.append(buf, static_cast<size_t>(n));
        }
        std::string line = in_.substr(0, eol);
        in_.erase(0, eol + 1);
        return line;
    }

    // Waits until the server has `up` upload and `down` download streams (and `open` sockets
    // in all, -1: any).
    bool wait_count(int up, int down, int open, int timeout_ms) {
        const int64_t deadline = now_ns() + static_cast<int64_t>(timeout_ms) * 1000000;
        while (now_ns() < deadline) {
            int u = -1, d = -1, o = -1;
            if (sscanf(ask("COUNT").c_str(), "COUNT %d %d %d", &u, &d, &o) == 3 && u == up &&
                d == down && (open < 0 || o == open)) {
                return true;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        return false;
    }

    std::string url(const char* path) const {
        return "http://127.0.0.1:" + std::to_string(port_) + path;
    }

private:
    bool send_line(const std::string& line) {
        std::string text = line + "\n";
        return send_all(fd_, text.data(), text.size());
    }

    pid_t pid_ = -1;
    int fd_ = -1;
    uint16_t port_ = 0;
    std::string in_;
};

// ---------------------------------------------------------------------------------------------
// Client side: streams

// Delays (callback time - scheduled time) of the download pieces of one stream. Pieces of one
// stream arrive on one thread, one after another, so no lock is needed.
struct PieceCollector {
    std::vector<float> delay_us;
    RecordReader<kRecord> reader;

    void feed(const char* data, size_t len) {
        const int64_t now = now_ns();
        reader.feed(data, len, [&](const char* record) {
            int64_t scheduled;
            memcpy(&scheduled, record, 8);
            delay_us.push_back(static_cast<float>(now - scheduled) / 1000.0f);
        });
    }
};

class DownCaller : public StreamCaller {
public:
    void on_piece(const char* data, size_t len) override { pieces.feed(data, len); }
    PieceCollector pieces;
};

// Calls send(pair, frame) for every pair every 40 ms, pairs spread evenly over the period, from
// `start` for `duration_ns`. Returns the number of frames and the worst lateness of a send call.
template <typename Send>
void produce_frames(int pairs, int64_t start, int64_t duration_ns, Send&& send, uint64_t* frames,
                    double* worst_lag_ms) {
    unsigned char frame[kFrame];
    for (size_t i = 16; i < kFrame; ++i) {
        frame[i] = static_cast<unsigned char>(i);
    }
    int64_t worst = 0;
    uint64_t e = 0;
    for (;; ++e) {
        const int64_t scheduled =
            start + static_cast<int64_t>(e) * kPeriodNs / static_cast<int64_t>(pairs);
        if (scheduled >= start + duration_ns) {
            break;
        }
        int64_t now = now_ns();
        if (scheduled > now) {
            sleep_until_ns(scheduled);
            now = now_ns();
        }
        worst = std::max(worst, now - scheduled);
        const uint64_t seq = e / static_cast<uint64_t>(pairs);
        memcpy(frame, &scheduled, 8);
        memcpy(frame + 8, &seq, 8);
        send(static_cast<int>(e % static_cast<uint64_t>(pairs)), frame);
    }
    *frames = e;
    *worst_lag_ms = static_cast<double>(worst) / 1e6;
}

// Voluntary context switches of the whole process so far (each is a thread going to sleep).
long voluntary_switches() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_nvcsw;
}

// Resident KiB of the thread stacks (anonymous 8 MiB read-write mappings) and their number.
void stack_rss(int* stacks, long* kib) {
    *stacks = 0;
    *kib = 0;
    FILE* f = fopen("/proc/self/smaps", "r");
    if (!f) {
        return;
    }
    char line[512];
    bool in_stack = false;
    while (fgets(line, sizeof line, f)) {
        unsigned long start, end;
        char perms[8];
        if (sscanf(line, "%lx-%lx %7s", &start, &end, perms) == 3 && strchr(line, '/') == nullptr) {
            in_stack = end - start == 8UL << 20 && strcmp(perms, "rw-p") == 0;
            *stacks += in_stack;
        } else if (in_stack && strncmp(line, "Rss:", 4) == 0) {
            *kib += atol(line + 4);
        }
    }
    fclose(f);
}

struct StepResult {
    int pairs = 0;
    bool connected = false;
    bool finals_ok = false;
    uint64_t frames = 0, frames_late = 0, frames_seen = 0;
    uint64_t pieces_sent = 0, pieces_late = 0, pieces_seen = 0;
    double up_p99_ms = 0, up_max_ms = 0, down_p99_ms = 0, down_max_ms = 0;
    double producer_lag_ms = 0, server_lag_ms = 0;
    double cpu_pct = 0, server_cpu_pct = 0;
    double kib_per_pair = 0;
    double idle_cpu_pct = 0;       // CPU with every pair connected and nothing flowing
    double idle_sleeps_per_s = 0;  // voluntary context switches per second, idle
    int stacks = 0;                // thread stacks and their resident KiB, idle
    long stack_kib = 0;
    double sleeps_per_s = 0;  // the same while streaming
    unsigned ncpu = 1;

    uint64_t on_time() const { return (frames_seen - frames_late) + (pieces_seen - pieces_late); }
    uint64_t expected() const { return frames + pieces_sent; }
    double on_time_pct() const {
        return expected() ? 100.0 * static_cast<double>(on_time()) / expected() : 0;
    }
    bool carried() const {
        return connected && finals_ok && on_time() == expected() && cpu_pct < 80.0;
    }
};

// The streaming window common to both clients: GO, frames for `seconds`, settle, STOP. Fills
// the timing and CPU fields of `r`.
template <typename Send>
bool stream_window(ServerProcess& server, int pairs, double seconds, Send&& send, StepResult& r) {
    long long go_ns = 0;
    int downs = 0;
    if (sscanf(server.ask("GO").c_str(), "GO %d %lld", &downs, &go_ns) != 2 || downs != pairs) {
        fprintf(stderr, "server did not start streaming\n");
        return false;
    }
    const double cpu0 = process_cpu_seconds();
    const long switches0 = voluntary_switches();
    const int64_t wall0 = now_ns();
    const int64_t duration = static_cast<int64_t>(seconds * 1e9);
    produce_frames(pairs, go_ns, duration, send, &r.frames, &r.producer_lag_ms);
    const double cpu = process_cpu_seconds() - cpu0;
    const double wall = static_cast<double>(now_ns() - wall0) * 1e-9;
    r.sleeps_per_s = static_cast<double>(voluntary_switches() - switches0) / wall;
    // Frames still in flight get the on-time allowance before the server counts.
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    std::string stats = server.ask("STOP");
    unsigned long long seen = 0, late = 0, sent = 0;
    double p50 = 0, p99 = 0, mx = 0, lag = 0, server_cpu = 0;
    if (sscanf(stats.c_str(), "STATS %llu %llu %lf %lf %lf %llu %lf %lf", &seen, &late, &p50, &p99,
               &mx, &sent, &lag, &server_cpu) != 8) {
        fprintf(stderr, "no stats from the server\n");
        return false;
    }
    r.frames_seen = seen;
    r.frames_late = late;
    r.up_p99_ms = p99 / 1000;
    r.up_max_ms = mx / 1000;
    r.pieces_sent = sent;
    r.server_lag_ms = lag;
    r.ncpu = std::max(1u, std::thread::hardware_concurrency());
    r.cpu_pct = 100.0 * cpu / (wall * r.ncpu);
    r.server_cpu_pct = 100.0 * server_cpu / ((wall + 0.3) * r.ncpu);
    return true;
}

// Lets the connected pairs settle, then measures one idle second.
void measure_idle(StepResult& r) {
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    const double cpu0 = process_cpu_seconds();
    const long switches0 = voluntary_switches();
    const int64_t wall0 = now_ns();
    std::this_thread::sleep_for(std::chrono::seconds(1));
    const double wall = static_cast<double>(now_ns() - wall0) * 1e-9;
    r.ncpu = std::max(1u, std::thread::hardware_concurrency());
    r.idle_cpu_pct = 100.0 * (process_cpu_seconds() - cpu0) / (wall * r.ncpu);
    r.idle_sleeps_per_s = static_cast<double>(voluntary_switches() - switches0) / wall;
    stack_rss(&r.stacks, &r.stack_kib);
}

void collect_pieces(const std::vector<const PieceCollector*>& collectors, StepResult& r) {
    std::vector<double> all;
    for (const PieceCollector* c : collectors) {
        for (float d : c->delay_us) {
            all.push_back(d);
            r.pieces_late += d > kOnTimeNs / 1000.0;
        }
    }
    r.pieces_seen = all.size();
    r.down_p99_ms = quantile(all, 0.99) / 1000;
    r.down_max_ms = max_of(all) / 1000;
}

// One step with the layer.
StepResult layer_step(ServerProcess& server, int pairs, double seconds, long rss_base) {
    StepResult r;
    r.pairs = pairs;
    struct Pair {
        kiv_shared_ptr<StreamCaller> up_param;
        kiv_shared_ptr<DownCaller> down;
        kiv_shared_ptr<StreamCaller> down_param;
        kiv_shared_ptr<kiv_http_request_maker> up_task, down_task;
    };
    std::vector<std::unique_ptr<Pair>> all;
    const std::string up_url = server.url("/up"), down_url = server.url("/down");
    for (int i = 0; i < pairs; ++i) {
        all.emplace_back(new Pair);
        Pair& p = *all.back();
        p.up_param = new StreamCaller;
        p.down = new DownCaller;
        p.down->pieces.delay_us.reserve(static_cast<size_t>(seconds * 25) + 16);
        p.down_param.copyControlObject(&p.down);
        p.up_task = start_stream(up_url, kiv::Networking::HTTP_REQUEST_METHOD_CHUNK_UP, p.up_param);
        p.down_task =
            start_stream(down_url, kiv::Networking::HTTP_REQUEST_METHOD_CHUNK_DOWN, p.down_param);
    }
    r.connected = server.wait_count(pairs, pairs, -1, 20000);
    measure_idle(r);
    r.kib_per_pair = static_cast<double>(rss_kib() - rss_base) / pairs;

    // send_data copies the bytes, so one buffer serves every frame.
    kiv_shared_ptr<unsigned char> buffer = kiv::Memory::make_shared_array<unsigned char>(kFrame);
    bool streamed = r.connected && stream_window(
                                       server, pairs, seconds,
                                       [&](int pair, const unsigned char* frame) {
                                           memcpy(buffer.getPTR(), frame, kFrame);
                                           all[static_cast<size_t>(pair)]->up_task->send_data(
                                               buffer, static_cast<long>(kFrame), false);
                                       },
                                       r);
    if (!streamed) {
        server.ask("STOP");
    }
    for (auto& p : all) {
        p->up_task->send_data(buffer, 0, true);
    }
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(15);
    r.finals_ok = true;
    for (auto& p : all) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        bool up = p->up_param->wait_final(std::max(left, std::chrono::milliseconds(1)));
        bool down = p->down->wait_final(std::chrono::milliseconds(
            std::max<long long>(1, std::chrono::duration_cast<std::chrono::milliseconds>(
                                       deadline - std::chrono::steady_clock::now())
                                       .count())));
        if (!up || !down || p->up_param->final_status != 200 || p->down->final_status != 200 ||
            p->down->final_error != kiv::Networking::HTTP_REQUEST_HTTPS_REQ_SUC) {
            r.finals_ok = false;
        }
    }
    std::vector<const PieceCollector*> collectors;
    for (auto& p : all) {
        collectors.push_back(&p->down->pieces);
    }
    collect_pieces(collectors, r);
    for (auto& p : all) {
        if (!p->up_param->finished || !p->down->finished) {
            p->up_task->cancel();
            p->down_task->cancel();
        }
    }
    all.clear();
    server.wait_count(0, 0, 0, 10000);
    return r;
}

// ---------------------------------------------------------------------------------------------
// Plain libcurl, one thread per transfer

size_t raw_piece(char* ptr, size_t size, size_t nmemb, void* userdata) {
    static_cast<PieceCollector*>(userdata)->feed(ptr, size * nmemb);
    return size * nmemb;
}

StepResult raw_step(ServerProcess& server, int pairs, double seconds, long rss_base) {
    StepResult r;
    r.pairs = pairs;
    struct Pair {
        PlainByteQueue queue;
        PieceCollector pieces;
        std::atomic<bool> cancelled{false};
        long up_status = 0, down_status = 0;
        std::thread up, down;
    };
    std::vector<std::unique_ptr<Pair>> all;
    const std::string up_url = server.url("/up"), down_url = server.url("/down");
    auto perform = [](CURL* curl, curl_slist* headers, long* status) {
        CURLcode code = curl_easy_perform(curl);
        curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, status);
        if (code != CURLE_OK) {
            *status = -static_cast<long>(code);
        }
        curl_easy_cleanup(curl);
        curl_slist_free_all(headers);
    };
    for (int i = 0; i < pairs; ++i) {
        all.emplace_back(new Pair);
        Pair* p = all.back().get();
        p->pieces.delay_us.reserve(static_cast<size_t>(seconds * 25) + 16);
        p->up = std::thread([p, &up_url, perform] {
            CURL* curl = curl_easy_init();
            curl_slist* h =
                raw_upload_options(curl, up_url, &PlainByteQueue::read, &p->queue, &p->cancelled);
            perform(curl, h, &p->up_status);
        });
        p->down = std::thread([p, &down_url, perform] {
            CURL* curl = curl_easy_init();
            curl_slist* h =
                raw_download_options(curl, down_url, &raw_piece, &p->pieces, &p->cancelled);
            perform(curl, h, &p->down_status);
        });
    }
    r.connected = server.wait_count(pairs, pairs, -1, 20000);
    measure_idle(r);
    r.kib_per_pair = static_cast<double>(rss_kib() - rss_base) / pairs;
    bool streamed =
        r.connected && stream_window(
                           server, pairs, seconds,
                           [&](int pair, const unsigned char* frame) {
                               all[static_cast<size_t>(pair)]->queue.push(frame, kFrame, false);
                           },
                           r);
    if (!streamed) {
        server.ask("STOP");
    }
    for (auto& p : all) {
        p->queue.push(nullptr, 0, true);
    }
    r.finals_ok = true;
    for (auto& p : all) {
        p->up.join();
        p->down.join();
        r.finals_ok = r.finals_ok && p->up_status == 200 && p->down_status == 200;
    }
    std::vector<const PieceCollector*> collectors;
    for (auto& p : all) {
        collectors.push_back(&p->pieces);
    }
    collect_pieces(collectors, r);
    all.clear();
    server.wait_count(0, 0, 0, 10000);
    return r;
}

// ---------------------------------------------------------------------------------------------
// Driver

std::vector<int> parse_steps(const char* text) {
    std::vector<int> steps;
    if (strcmp(text, "none") == 0) {
        return steps;
    }
    for (const char* p = text; *p;) {
        char* end;
        long v = strtol(p, &end, 10);
        if (end == p) {
            break;
        }
        if (v > 0) {
            steps.push_back(static_cast<int>(v));
        }
        p = *end == ',' ? end + 1 : end;
    }
    return steps;
}

void print_step(const char* who, const StepResult& r) {
    printf("%s %4d pairs: on-time %7.3f%% (late or missing %" PRIu64 " of %" PRIu64
           "; upload p99 %.1f ms max %.1f ms, download p99 %.1f ms max %.1f ms), client CPU %.1f%% "
           "of %u cores (server %.1f%%), memory per idle pair %.0f KiB, finals %s -> %s\n",
           who, r.pairs, r.on_time_pct(), r.expected() - r.on_time(), r.expected(), r.up_p99_ms,
           r.up_max_ms, r.down_p99_ms, r.down_max_ms, r.cpu_pct, r.ncpu, r.server_cpu_pct,
           r.kib_per_pair, r.finals_ok ? "ok" : "MISSING", r.carried() ? "carried" : "NOT carried");
    printf(
        "     idle (connected, nothing flowing): client CPU %.1f%%, %.0f thread sleeps/s, %d "
        "thread stacks of %.1f KiB resident each; streaming: %.0f thread sleeps/s (%.1f per frame "
        "or piece)\n",
        r.idle_cpu_pct, r.idle_sleeps_per_s, r.stacks,
        r.stacks ? static_cast<double>(r.stack_kib) / r.stacks : 0.0, r.sleeps_per_s,
        r.sleeps_per_s * kPeriodNs / 1e9 / (2.0 * r.pairs));
    if (r.producer_lag_ms > 50 || r.server_lag_ms > 50) {
        printf("     (frame producer lag max %.1f ms, server send lag max %.1f ms)\n",
               r.producer_lag_ms, r.server_lag_ms);
    }
    fflush(stdout);
}

// Runs `steps` with one kind of client in this process; returns the results.
std::vector<StepResult> run_steps(bool raw, const std::vector<int>& steps, double seconds) {
    ServerProcess server;  // forked before libcurl or any thread exists
    curl_global_init(CURL_GLOBAL_ALL);
    kiv::set_log_level(2);
    std::vector<StepResult> results;
    // Warm-up (pool, timer thread, allocator arenas, libcurl) so the baseline includes them.
    StepResult warm = raw ? raw_step(server, 4, 0.5, rss_kib()) : layer_step(server, 4, 0.5, 0);
    if (!warm.finals_ok) {
        fprintf(stderr, "warm-up step failed\n");
    }
    const long rss_base = rss_kib();
    for (int pairs : steps) {
        StepResult r = raw ? raw_step(server, pairs, seconds, rss_base)
                           : layer_step(server, pairs, seconds, rss_base);
        print_step(raw ? "raw libcurl" : "layer      ", r);
        results.push_back(r);
    }
    curl_global_cleanup();
    return results;
}

}  // namespace

int main(int argc, char** argv) {
    raise_nofile(65536);
    if (argc > 1 && strcmp(argv[1], "--raw") == 0) {
        // The comparison run, started by the main run in a fresh process.
        const std::vector<int> steps = parse_steps(argc > 2 ? argv[2] : "500");
        const double seconds = argc > 3 ? atof(argv[3]) : 10;
        for (const StepResult& r : run_steps(true, steps, seconds)) {
            printf("RAW %d %.3f %.1f %.0f %d %.1f\n", r.pairs, r.on_time_pct(), r.cpu_pct,
                   r.kib_per_pair, r.carried() ? 1 : 0, r.idle_cpu_pct);
        }
        return 0;
    }
    const std::vector<int> steps = parse_steps(argc > 1 ? argv[1] : "100,200,300,500");
    const double seconds = argc > 2 ? atof(argv[2]) : 10;
    const char* raw_steps = argc > 3 ? argv[3] : "500";
    if (steps.empty() || seconds <= 0 || seconds > 30) {
        fprintf(stderr, "usage: %s [steps=100,200,300,500] [seconds<=30] [raw_steps|none]\n",
                argv[0]);
        return 2;
    }
    const int64_t start = now_ns();
    int most = 0;
    for (int s : steps) {
        most = std::max(most, s);
    }
    if (2 * most > kiv::Threads::GlobalThreadPool::MAX_POOL_THREAD_COUNT) {
        // Each transfer holds one worker for its whole life; beyond the cap transfers would
        // queue and never start, so such a step needs the cap raised (before the pool exists).
        printf("note: %d pairs need %d workers; raising MAX_POOL_THREAD_COUNT from %d\n", most,
               2 * most, kiv::Threads::GlobalThreadPool::MAX_POOL_THREAD_COUNT);
        kiv::Threads::GlobalThreadPool::MAX_POOL_THREAD_COUNT = 2 * most + 16;
    }
    printf("scale: steps %s pairs, %.0f s each, frames of %zu bytes and pieces every 40 ms\n",
           argc > 1 ? argv[1] : "100,200,300,500", seconds, kFrame);
    fflush(stdout);
    std::vector<StepResult> layer = run_steps(false, steps, seconds);

    // The comparison in a fresh process; its step lines pass through, its results are parsed.
    struct RawLine {
        int pairs;
        double on_time, cpu, kib;
        int carried;
        double idle_cpu;
    };
    std::vector<RawLine> raw;
    if (strcmp(raw_steps, "none") != 0) {
        char self[4096];
        ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
        if (n > 0) {
            self[n] = 0;
            std::string command =
                std::string("'") + self + "' --raw " + raw_steps + " " + std::to_string(seconds);
            FILE* child = popen(command.c_str(), "r");
            char line[1024];
            while (child && fgets(line, sizeof line, child)) {
                RawLine r{};
                if (sscanf(line, "RAW %d %lf %lf %lf %d %lf", &r.pairs, &r.on_time, &r.cpu, &r.kib,
                           &r.carried, &r.idle_cpu) == 6) {
                    raw.push_back(r);
                } else {
                    fputs(line, stdout);
                    fflush(stdout);
                }
            }
            if (child) {
                pclose(child);
            }
        }
    }

    printf("\nSUMMARY bench_scale (%.0f s)\n", static_cast<double>(now_ns() - start) * 1e-9);
    int carried = 0;
    for (const StepResult& r : layer) {
        printf(
            "scale layer %d pairs: on-time %.3f%%, client CPU %.1f%% (server %.1f%%, client idle "
            "%.1f%%), %.0f KiB per idle pair: %s\n",
            r.pairs, r.on_time_pct(), r.cpu_pct, r.server_cpu_pct, r.idle_cpu_pct, r.kib_per_pair,
            r.carried() ? "carried" : "NOT carried");
        if (r.carried()) {
            carried = std::max(carried, r.pairs);
        }
    }
    for (const RawLine& r : raw) {
        const StepResult* same = nullptr;
        for (const StepResult& l : layer) {
            if (l.pairs == r.pairs) {
                same = &l;
            }
        }
        printf(
            "scale raw libcurl %d pairs: on-time %.3f%%, client CPU %.1f%% (client idle %.1f%%), "
            "%.0f KiB per idle pair: %s",
            r.pairs, r.on_time, r.cpu, r.idle_cpu, r.kib, r.carried ? "carried" : "NOT carried");
        if (same && r.cpu > 0) {
            printf("; layer/raw CPU %.2f, memory %.2f", same->cpu_pct / r.cpu,
                   r.kib > 0 ? same->kib_per_pair / r.kib : 0.0);
        }
        printf("\n");
    }
    printf("scale result: the layer carried up to %d pairs (%d transfers); target >= 500: %s\n",
           carried, 2 * carried, carried >= 500 ? "met" : "NOT met");
    return 0;
}
