#ifndef KIV_TESTS_SUPPORT_RAW_SERVER_H
#define KIV_TESTS_SUPPORT_RAW_SERVER_H

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace kiv {
namespace test {

using std::chrono::milliseconds;

// The server side of one accepted TCP connection. Every read goes through this object, which
// keeps every byte received and buffers what a read took beyond what it returned. Reads wait at
// most the given time; a false or empty result means time-out, end of stream or error. All
// operations belong to the connection's handler thread.
class RawConnection {
public:
    explicit RawConnection(int fd) : fd_(fd) {}
    ~RawConnection();
    RawConnection(const RawConnection&) = delete;
    RawConnection& operator=(const RawConnection&) = delete;

    // Reads up to and including the first CR LF CR LF.
    std::optional<std::string> read_head(milliseconds wait = milliseconds(5000));
    // Reads exactly `count` bytes (a Content-Length body).
    std::optional<std::string> read_exact(size_t count, milliseconds wait = milliseconds(5000));

    bool write_all(const std::string& bytes);
    // One write() per byte, so the peer sees the data split at every position.
    bool write_bytewise(const std::string& bytes);

    // Waits until the peer closes (or resets) the connection or the server stops; further
    // incoming bytes are kept. False when `wait` passed first.
    bool wait_for_close(milliseconds wait);

private:
    friend class RawServer;

    // Reads what is available into the buffer; false on time-out, end of stream or error.
    bool fill(std::chrono::steady_clock::time_point deadline);
    void close();
    // Wakes any blocked read; used by the server when it stops.
    void shutdown_io();

    std::mutex fd_mutex_;  // only close and shutdown_io take it: the fd is not reused under us
    int fd_;
    std::string buffer_;
    std::string received_;
};

// A TCP server on 127.0.0.1 for tests that need the exact bytes on the wire or a misbehaving
// peer. One accept thread; each connection runs `handler` on a thread of its own and is closed
// when the handler returns. The destructor wakes the accept thread and every read of a handler
// (their sockets are shut down), then joins all threads. A handler must therefore wait only
// through RawConnection or through bounded waits of its own.
class RawServer {
public:
    using Handler = std::function<void(RawConnection&)>;

    explicit RawServer(Handler handler);
    ~RawServer();
    RawServer(const RawServer&) = delete;
    RawServer& operator=(const RawServer&) = delete;

    uint16_t port() const { return port_; }
    // "http://127.0.0.1:port" followed by `target`.
    std::string url(const std::string& target = "/") const;

    // Waits until `count` handlers have returned.
    bool wait_for_finished(size_t count, milliseconds wait) const;
    // The bytes received by each connection whose handler has returned, in the order the
    // connections were accepted.
    std::vector<std::string> received() const;

private:
    void accept_loop();

    Handler handler_;
    int listen_fd_ = -1;
    uint16_t port_ = 0;
    std::atomic<bool> stopping_{false};
    std::thread accept_thread_;

    mutable std::mutex mutex_;
    mutable std::condition_variable finished_changed_;
    std::vector<std::shared_ptr<RawConnection>> connections_;  // in accept order
    std::vector<std::thread> threads_;
    std::vector<bool> finished_;  // per connection: its handler has returned
    size_t finished_count_ = 0;
};

// True when `address`:`port` (IPv4, or IPv6 such as "::1") can be bound here (port 443 needs
// root or CAP_NET_BIND_SERVICE; "::1" needs IPv6 on loopback):
// tests that need such a server skip, with a message, where it cannot.
bool can_bind(const std::string& address, uint16_t port);

// A loopback port on which nothing listens: the socket is bound but not listening, so a connect
// is refused, and no other process can take the port while this object lives.
class ClosedPort {
public:
    ClosedPort();
    ~ClosedPort();
    ClosedPort(const ClosedPort&) = delete;
    ClosedPort& operator=(const ClosedPort&) = delete;
    uint16_t port() const { return port_; }

private:
    int fd_ = -1;
    uint16_t port_ = 0;
};

// The value of the first header `name` (any letter case) in a request or response head, with
// leading blanks removed; empty optional when absent.
std::optional<std::string> find_header(const std::string& head, const std::string& name);

}  // namespace test
}  // namespace kiv

#endif
