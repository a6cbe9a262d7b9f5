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

#include "tests/support/tls_cert.h"

// OpenSSL's SSL, SSL_CTX and BIO.
struct ssl_st;
struct ssl_ctx_st;
struct bio_st;

namespace kiv {
namespace test {

using std::chrono::milliseconds;

// The server side of one accepted TCP connection, plain or TLS. Every read goes through this
// object, which keeps every byte received (the plaintext, over TLS) and buffers what a read took
// beyond what it returned. Reads wait at most the given time; a false or empty result means
// time-out, end of stream or error. All operations belong to the connection's handler thread.
//
// Over TLS the connection does its own socket I/O and OpenSSL only encrypts and decrypts (memory
// BIOs): so a write can go out one byte per send, and a reset or a close hits the TCP stream
// exactly where the script says, whatever the TLS layer would have buffered.
class RawConnection {
public:
    // `tls` (an OpenSSL SSL_CTX) makes it the server side of a TLS connection; null: plain.
    RawConnection(int fd, ssl_ctx_st* tls);
    ~RawConnection();
    RawConnection(const RawConnection&) = delete;
    RawConnection& operator=(const RawConnection&) = delete;

    // Reads up to and including the first CR LF CR LF.
    std::optional<std::string> read_head(milliseconds wait = milliseconds(5000));
    // Reads exactly `count` bytes (a Content-Length body).
    std::optional<std::string> read_exact(size_t count, milliseconds wait = milliseconds(5000));
    // Reads the payload of a chunked body: `limit` bytes of it (possibly ending inside a chunk;
    // the next call goes on from there), or all of it up to the last chunk, which sets
    // `*complete`. Trailers are not expected.
    std::optional<std::string> read_chunked(size_t limit, bool* complete,
                                            milliseconds wait = milliseconds(5000));

    bool write_all(const std::string& bytes);
    // One send per byte, so the peer sees the data split at every position (over TLS: one
    // record per byte, each record one byte per send).
    bool write_bytewise(const std::string& bytes);

    // Waits until the peer closes (or resets) the connection or the server stops; further
    // incoming bytes are kept. False when `wait` passed first.
    bool wait_for_close(milliseconds wait);
    // Waits, reading nothing, until the peer closes or resets the connection or the server
    // stops: a server that never reads. False when `wait` passed first.
    bool wait_for_hangup(milliseconds wait);

    // Ends the connection with a TCP reset, once every byte written so far has been
    // acknowledged by the peer (waiting at most `wait` for that): the peer has them all, then
    // its next read fails. Nothing may be written or read afterwards.
    void reset(milliseconds wait = milliseconds(5000));

    // The server name the client sent in its TLS handshake; empty without TLS or without one.
    const std::string& sni() const { return sni_; }

private:
    friend class RawServer;
    enum class Got { kData, kClosed, kTimeout };
    using TimePoint = std::chrono::steady_clock::time_point;

    // The TLS handshake (nothing for a plain connection); false when it failed or timed out.
    bool start(TimePoint deadline);
    // The handler is done: a TLS connection sends its close_notify, then the socket is closed.
    void finish();
    // Reads what is available (decrypted, over TLS) into the buffer.
    Got fill(TimePoint deadline);
    // Raw socket I/O.
    Got receive(TimePoint deadline, std::string* bytes);
    bool send_bytes(const char* data, size_t size);
    // Sends what OpenSSL has encrypted, in one send or one byte per send.
    bool flush_tls(bool bytewise);
    void close();
    // Wakes any blocked read; used by the server when it stops.
    void shutdown_io();

    std::mutex fd_mutex_;  // only close and shutdown_io take it: the fd is not reused under us
    int fd_;
    ssl_st* ssl_ = nullptr;
    bio_st* in_ = nullptr;   // ciphertext from the peer, for OpenSSL to read (owned by ssl_)
    bio_st* out_ = nullptr;  // ciphertext OpenSSL wrote, to send (owned by ssl_)
    bool tls_up_ = false;
    bool was_reset_ = false;
    std::string sni_;
    std::string buffer_;
    std::string received_;
    size_t chunk_left_ = 0;  // read_chunked: payload bytes left in the current chunk
};

// Where a RawServer listens, and whether it speaks TLS.
struct RawServerOptions {
    std::string address = "127.0.0.1";  // an IPv4 loopback address
    uint16_t port = 0;                  // 0: one the kernel chooses
    std::optional<TlsCert> tls;         // set: every connection is TLS with this certificate
};

// A TCP server on loopback for tests that need the exact bytes on the wire or a misbehaving
// peer. One accept thread; each connection runs `handler` on a thread of its own (after the TLS
// handshake, for a TLS server) and is closed when the handler returns. The destructor wakes the
// accept thread and every read of a handler (their sockets are shut down), then joins all
// threads. A handler must therefore wait only through RawConnection or through bounded waits of
// its own. The constructor throws std::runtime_error when the address cannot be bound.
class RawServer {
public:
    using Handler = std::function<void(RawConnection&)>;

    explicit RawServer(Handler handler, RawServerOptions options = RawServerOptions());
    ~RawServer();
    RawServer(const RawServer&) = delete;
    RawServer& operator=(const RawServer&) = delete;

    uint16_t port() const { return port_; }
    const std::string& address() const { return options_.address; }
    // "http://address:port" (or https) followed by `target`.
    std::string url(const std::string& target = "/") const;

    // Wakes every handler waiting on its connection, as the destructor does first: their reads
    // and waits fail from now on.
    void hang_up();

    // Waits until `count` handlers have returned.
    bool wait_for_finished(size_t count, milliseconds wait) const;
    // The bytes received by each connection whose handler has returned, in the order the
    // connections were accepted.
    std::vector<std::string> received() const;

private:
    void accept_loop();

    Handler handler_;
    RawServerOptions options_;
    ssl_ctx_st* tls_ = nullptr;
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

// The payload of a chunked body as far as `body` holds it (a cut chunk gives the bytes it has);
// `*complete` tells whether the last chunk was there.
std::string chunked_payload(const std::string& body, bool* complete);

}  // namespace test
}  // namespace kiv

#endif
