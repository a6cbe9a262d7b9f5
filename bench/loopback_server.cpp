#include "bench/loopback_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <thread>

#include "bench/harness.h"

namespace kiv_bench {
namespace {

const char kOk[] = "HTTP/1.1 200 OK\r\nContent-Length: 2\r\nConnection: close\r\n\r\nok";
const char kContinue[] = "HTTP/1.1 100 Continue\r\n\r\n";
const char kChunkedHead[] =
    "HTTP/1.1 200 OK\r\nContent-Type: application/octet-stream\r\n"
    "Transfer-Encoding: chunked\r\n\r\n";
const char kEmptyOk[] = "HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n";
const char kLastChunk[] = "0\r\n\r\n";
const size_t kChunk = 16 * 1024, kFramed = kChunk + 8, kBlockChunks = 64;

// 64 framed 16 KiB chunks and the last chunk, so that a fast download costs the server one send
// per MiB and no copying: a body's tail is the block's tail.
const std::string& chunk_block() {
    static const std::string block = [] {
        std::string all;
        for (size_t i = 0; i < kBlockChunks; ++i) {
            all += "4000\r\n" + std::string(kChunk, 'x') + "\r\n";
        }
        return all + kLastChunk;
    }();
    return block;
}

// Decodes a chunked request body as libcurl frames it (hex size, CRLF, data, CRLF; a zero size
// and an empty trailer at the end): payload runs go to a callback.
class Chunked {
public:
    template <typename OnData>
    void feed(const char* p, size_t n, OnData&& on_data) {
        for (size_t i = 0; i < n && !done_;) {
            if (skip_ > 0) {  // the CRLF after data, or the final one
                done_ = --skip_ == 0 && end_;
                ++i;
            } else if (left_ > 0) {
                const size_t take = static_cast<size_t>(std::min<uint64_t>(left_, n - i));
                on_data(p + i, take);
                i += take;
                left_ -= take;
                skip_ = left_ == 0 ? 2 : 0;
            } else if (isxdigit(static_cast<unsigned char>(p[i]))) {
                size_ = size_ * 16 +
                        static_cast<uint64_t>(isdigit(p[i]) ? p[i] - '0' : (p[i] | 0x20) - 87);
                ++i;
            } else if (p[i++] == '\n') {  // the end of a size line
                end_ = size_ == 0;
                skip_ = end_ ? 2 : 0;
                left_ = size_;
                size_ = 0;
            }
        }
    }
    bool done() const { return done_; }

private:
    uint64_t size_ = 0, left_ = 0;
    int skip_ = 0;
    bool end_ = false, done_ = false;
};

struct Conn {
    enum Kind { kHead, kBytes, kPieces, kStream, kUp, kDone } kind = kHead;
    int fd = -1;  // -1 once closed
    uint32_t gen = 0;
    std::string in;   // the request head so far
    std::string out;  // bytes the socket has not taken yet, from out_off on, then the view
    size_t out_off = 0;
    const char* view = nullptr;  // into chunk_block()
    size_t view_len = 0;
    uint64_t chunks_left = 0;  // /bytes
    bool close_after = false, want_out = false;
    uint64_t pieces_left = 0, seq = 0;  // /pieces, /stream
    int64_t gap = 0;
    Chunked body;  // uploads
    bool frames = false, any = false;
    size_t fill = 0;
    char stamp[8] = {};
};

}  // namespace

struct LoopbackServer::Impl {
    int listen_fd = -1, ep = -1, wake_fd = -1;
    uint16_t port = 0;
    std::mutex mutex;  // over everything below, held by the loop while it handles events
    std::vector<std::unique_ptr<Conn>> conns;   // by fd
    std::vector<std::unique_ptr<Conn>> closed;  // freed when no handler can hold them any more
    // Timed records: when, for the connection (fd, generation); closed ones are skipped.
    std::multimap<int64_t, std::pair<int, uint32_t>> due;
    std::vector<int> streams;  // open /stream downloads
    uint32_t gen = 0;
    bool streaming = false;
    int64_t period = 0;
    Figures figures;
    LoopbackServer* owner;
    std::atomic<bool> stopping{false};
    std::thread thread;

    void wake() {
        const uint64_t one = 1;
        if (write(wake_fd, &one, sizeof one) < 0) {
            perror("server wake-up");
        }
    }

    void watch(int fd, int op, uint32_t events) {
        epoll_event ev{};
        ev.events = events;
        ev.data.fd = fd;
        epoll_ctl(ep, op, fd, &ev);
    }

    Conn* conn(int fd) {
        return fd >= 0 && static_cast<size_t>(fd) < conns.size() ? conns[fd].get() : nullptr;
    }

    void run() {
        epoll_event events[256];
        while (!stopping) {
            int timeout = 100;
            {
                std::lock_guard<std::mutex> lock(mutex);
                if (!due.empty()) {
                    const int64_t wait = (due.begin()->first - now_ns()) / 1000000 + 1;
                    timeout = static_cast<int>(std::max<int64_t>(0, std::min<int64_t>(100, wait)));
                }
            }
            const int n = epoll_wait(ep, events, 256, timeout);
            std::lock_guard<std::mutex> lock(mutex);
            for (int i = 0; i < n; ++i) {
                const int fd = events[i].data.fd;
                uint64_t count;
                if (fd == listen_fd) {
                    accept_all();
                } else if (fd == wake_fd && read(wake_fd, &count, sizeof count) < 0) {
                    perror("server wake-up");
                } else if (Conn* c = conn(fd)) {
                    if (events[i].events & EPOLLOUT) {
                        flush(*c);
                    }
                    if (c->fd >= 0 && (events[i].events & (EPOLLIN | EPOLLHUP | EPOLLERR))) {
                        on_readable(*c);
                    }
                }
            }
            for (const int64_t now = now_ns(); !due.empty() && due.begin()->first <= now;) {
                const auto d = *due.begin();
                due.erase(due.begin());
                on_due(d.first, d.second.first, d.second.second, now);
            }
            closed.clear();
        }
    }

    void accept_all() {
        int fd;
        while ((fd = accept4(listen_fd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC)) >= 0) {
            int one = 1;
            setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
            if (conns.size() <= static_cast<size_t>(fd)) {
                conns.resize(static_cast<size_t>(fd) + 256);
            }
            conns[fd].reset(new Conn);
            conns[fd]->fd = fd;
            conns[fd]->gen = ++gen;
            watch(fd, EPOLL_CTL_ADD, EPOLLIN);
        }
        if (errno == EMFILE || errno == ENFILE) {
            fprintf(stderr, "loopback server: out of file descriptors\n");
        }
    }

    void close_conn(Conn& c) {
        epoll_ctl(ep, EPOLL_CTL_DEL, c.fd, nullptr);
        close(c.fd);
        streams.erase(std::remove(streams.begin(), streams.end(), c.fd), streams.end());
        closed.push_back(std::move(conns[c.fd]));
        c.fd = -1;
    }

    void on_readable(Conn& c) {
        static char buf[256 * 1024];
        while (c.fd >= 0 && !c.close_after) {
            const ssize_t n = recv(c.fd, buf, sizeof buf, 0);
            if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
                return;
            }
            if (n <= 0) {
                close_conn(c);
            } else if (c.kind == Conn::kHead) {
                c.in.append(buf, static_cast<size_t>(n));
                if (c.in.find("\r\n\r\n") != std::string::npos) {
                    on_head(c);
                }
            } else if (c.kind == Conn::kUp) {
                on_upload(c, buf, static_cast<size_t>(n));
            }
        }
    }

    void on_head(Conn& c) {
        const size_t end = c.in.find("\r\n\r\n") + 4;
        const std::string rest = c.in.substr(end);
        std::string head = c.in.substr(0, end);
        for (char& ch : head) {
            ch = static_cast<char>(tolower(static_cast<unsigned char>(ch)));
        }
        const size_t sp = head.find(' ');
        const std::string path = head.substr(sp + 1, head.find(' ', sp + 1) - sp - 1);
        unsigned long long count = 0, gap = 0;
        if (head.compare(0, 4, "get ") == 0) {
            c.kind = Conn::kDone;
            c.close_after = true;  // the server closes first: TIME_WAIT stays on its one port
            return send_bytes(c, kOk, sizeof kOk - 1);
        }
        if (path.compare(0, 3, "/up") == 0) {
            c.kind = Conn::kUp;
            c.frames = path == "/up/frames";
            if (head.find("\r\nexpect: 100-continue") != std::string::npos) {
                send_bytes(c, kContinue, sizeof kContinue - 1);
            }
            return on_upload(c, rest.data(), rest.size());
        }
        // A download; its one-byte request body is left unread.
        if (sscanf(path.c_str(), "/bytes/%llu", &count) == 1) {
            c.kind = Conn::kBytes;
            c.chunks_left = count / kChunk;
        } else if (sscanf(path.c_str(), "/pieces/%llu/%llu", &count, &gap) == 2) {
            c.kind = Conn::kPieces;
            c.pieces_left = count;
            c.gap = static_cast<int64_t>(gap) * 1000;
            due.emplace(now_ns() + c.gap, std::make_pair(c.fd, c.gen));
        } else {
            c.kind = Conn::kStream;
            streams.push_back(c.fd);
        }
        send_bytes(c, kChunkedHead, sizeof kChunkedHead - 1);
    }

    void on_upload(Conn& c, const char* p, size_t n) {
        const int64_t now = now_ns();
        uint64_t bytes = 0;
        c.body.feed(p, n, [&](const char* data, size_t len) {
            for (bytes += len; c.frames && len > 0;) {
                if (c.fill < sizeof c.stamp) {
                    memcpy(c.stamp + c.fill, data, std::min(len, sizeof c.stamp - c.fill));
                }
                const size_t take = std::min(len, kFrame - c.fill);
                c.fill = (c.fill + take) % kFrame;
                data += take;
                len -= take;
                int64_t stamp;
                memcpy(&stamp, c.stamp, sizeof stamp);
                if (c.fill == 0) {
                    figures.frame_delay_ms.push_back(static_cast<double>(now - stamp) * 1e-6);
                }
            }
        });
        if (bytes > 0) {
            if (!c.any) {
                c.any = true;
                owner->first_byte_ns = now;
            }
            owner->last_arrival_ns = now;
            owner->upload_bytes += bytes;
        }
        if (c.body.done() && c.kind == Conn::kUp) {
            c.kind = Conn::kDone;
            send_bytes(c, kEmptyOk, sizeof kEmptyOk - 1);
        }
    }

    void on_due(int64_t at, int fd, uint32_t gen, int64_t now) {
        Conn* c = conn(fd);
        if (!c || c->gen != gen ||
            !(c->kind == Conn::kPieces || (c->kind == Conn::kStream && streaming))) {
            return;
        }
        const bool stream = c->kind == Conn::kStream;
        char piece[4 + kRecord + 2] = {'2', '0', '\r', '\n'};  // kRecord is 0x20
        const int64_t stamp = stream ? at : now;
        memcpy(piece + 4, &stamp, 8);
        memcpy(piece + 12, &c->seq, 8);
        memcpy(piece + 4 + kRecord, "\r\n", 2);
        ++c->seq;
        send_bytes(*c, piece, sizeof piece);
        if (stream) {
            ++figures.pieces_sent;
            due.emplace(at + period, std::make_pair(fd, gen));
        } else if (--c->pieces_left > 0) {
            due.emplace(now + c->gap, std::make_pair(fd, gen));
        } else {
            c->kind = Conn::kDone;
            send_bytes(*c, kLastChunk, sizeof kLastChunk - 1);
        }
    }

    void send_bytes(Conn& c, const char* data, size_t len) {
        c.out.append(data, len);
        if (c.fd >= 0 && !c.want_out) {
            flush(c);
        }
    }

    // Sends what the socket takes; the rest waits for EPOLLOUT.
    void flush(Conn& c) {
        for (;;) {
            if (c.out_off == c.out.size() && c.view_len == 0 && c.chunks_left > 0) {
                const uint64_t take = std::min<uint64_t>(c.chunks_left, kBlockChunks);
                c.chunks_left -= take;
                const size_t tail = c.chunks_left ? sizeof kLastChunk - 1 : 0;  // not the end yet
                c.view_len = static_cast<size_t>(take) * kFramed + sizeof kLastChunk - 1 - tail;
                c.view = chunk_block().data() + chunk_block().size() - tail - c.view_len;
            }
            const bool from_out = c.out_off < c.out.size();
            const size_t len = from_out ? c.out.size() - c.out_off : c.view_len;
            if (len == 0) {
                break;
            }
            const ssize_t n = send(c.fd, from_out ? c.out.data() + c.out_off : c.view, len,
                                   MSG_NOSIGNAL | MSG_DONTWAIT);
            if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
                c.want_out = true;
                return watch(c.fd, EPOLL_CTL_MOD, EPOLLIN | EPOLLOUT);
            }
            if (n < 0) {
                return close_conn(c);
            }
            if (from_out) {
                c.out_off += static_cast<size_t>(n);
            } else {
                c.view += n;
                c.view_len -= static_cast<size_t>(n);
            }
        }
        c.out.clear();
        c.out_off = 0;
        if (c.want_out) {
            c.want_out = false;
            watch(c.fd, EPOLL_CTL_MOD, EPOLLIN);
        }
        if (c.close_after) {
            close_conn(c);
        }
    }
};

LoopbackServer::LoopbackServer() : impl_(new Impl) {
    Impl& s = *impl_;
    s.owner = this;
    s.listen_fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    int one = 1;
    setsockopt(s.listen_fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof addr;
    if (bind(s.listen_fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
        listen(s.listen_fd, 4096) != 0 ||
        getsockname(s.listen_fd, reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
        perror("loopback server");
        exit(1);
    }
    s.port = ntohs(addr.sin_port);
    s.ep = epoll_create1(EPOLL_CLOEXEC);
    s.wake_fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    s.watch(s.listen_fd, EPOLL_CTL_ADD, EPOLLIN);
    s.watch(s.wake_fd, EPOLL_CTL_ADD, EPOLLIN);
    s.thread = std::thread([&s] { s.run(); });
}

LoopbackServer::~LoopbackServer() {
    impl_->stopping = true;
    impl_->wake();
    impl_->thread.join();
    for (auto& c : impl_->conns) {
        if (c) {
            close(c->fd);
        }
    }
    for (int fd : {impl_->listen_fd, impl_->ep, impl_->wake_fd}) {
        close(fd);
    }
}

std::string LoopbackServer::url(const std::string& path) const {
    return "http://127.0.0.1:" + std::to_string(impl_->port) + path;
}

double LoopbackServer::cpu_seconds() const {
    return thread_cpu_seconds(impl_->thread.native_handle());
}

void LoopbackServer::count(int* uploads, int* streams) {
    std::lock_guard<std::mutex> lock(impl_->mutex);
    *uploads = 0;
    for (auto& c : impl_->conns) {
        *uploads += c && c->kind == Conn::kUp;
    }
    *streams = static_cast<int>(impl_->streams.size());
}

void LoopbackServer::go(int64_t start_ns, int64_t period_ns) {
    Impl& s = *impl_;
    std::lock_guard<std::mutex> lock(s.mutex);
    s.streaming = true;
    s.period = period_ns;
    s.figures = Figures();
    const int64_t n = static_cast<int64_t>(s.streams.size());
    for (int64_t i = 0; i < n; ++i) {
        const int fd = s.streams[static_cast<size_t>(i)];
        s.due.emplace(start_ns + i * period_ns / n, std::make_pair(fd, s.conns[fd]->gen));
    }
    s.wake();
}

LoopbackServer::Figures LoopbackServer::stop() {
    Impl& s = *impl_;
    std::lock_guard<std::mutex> lock(s.mutex);
    s.streaming = false;
    for (int fd : std::vector<int>(s.streams)) {
        s.conn(fd)->kind = Conn::kDone;
        s.send_bytes(*s.conn(fd), kLastChunk, sizeof kLastChunk - 1);
    }
    s.streams.clear();
    return std::move(s.figures);
}

}  // namespace kiv_bench
