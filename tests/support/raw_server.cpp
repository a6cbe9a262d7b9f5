#include "tests/support/raw_server.h"

#include <arpa/inet.h>
#include <linux/sockios.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/bio.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <strings.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

namespace kiv {
namespace test {

namespace {

using Clock = std::chrono::steady_clock;

// Binds a new TCP socket to `address`:`port` (0: a port the kernel chooses); returns it and
// the port.
int bind_socket(const std::string& address, uint16_t port, uint16_t* bound_port) {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        throw std::runtime_error("socket failed");
    }
    // A fixed port may still hold connections of an earlier server in TIME_WAIT.
    int one = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(port);
    socklen_t len = sizeof addr;
    if (inet_pton(AF_INET, address.c_str(), &addr.sin_addr) != 1 ||
        bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
        getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
        const int error = errno;
        ::close(fd);
        throw std::runtime_error("cannot bind " + address + " port " + std::to_string(port) + ": " +
                                 strerror(error));
    }
    *bound_port = ntohs(addr.sin_port);
    return fd;
}

int bind_loopback(uint16_t* bound_port) {
    return bind_socket("127.0.0.1", 0, bound_port);
}

// A server context for `cert`. No session tickets: nothing but the handshake and the
// connection's own bytes crosses the wire.
ssl_ctx_st* make_tls_context(const TlsCert& cert) {
    SSL_CTX* context = SSL_CTX_new(TLS_server_method());
    BIO* certBio = BIO_new_mem_buf(cert.cert_pem.data(), static_cast<int>(cert.cert_pem.size()));
    BIO* keyBio = BIO_new_mem_buf(cert.key_pem.data(), static_cast<int>(cert.key_pem.size()));
    X509* x509 = certBio ? PEM_read_bio_X509(certBio, nullptr, nullptr, nullptr) : nullptr;
    EVP_PKEY* key = keyBio ? PEM_read_bio_PrivateKey(keyBio, nullptr, nullptr, nullptr) : nullptr;
    const bool ok = context && x509 && key && SSL_CTX_use_certificate(context, x509) == 1 &&
                    SSL_CTX_use_PrivateKey(context, key) == 1 &&
                    SSL_CTX_check_private_key(context) == 1 &&
                    SSL_CTX_set_num_tickets(context, 0) == 1;
    EVP_PKEY_free(key);
    X509_free(x509);
    BIO_free(keyBio);
    BIO_free(certBio);
    if (!ok) {
        SSL_CTX_free(context);
        throw std::runtime_error("cannot make the TLS server context");
    }
    return context;
}

int remaining_ms(Clock::time_point deadline) {
    auto left = std::chrono::duration_cast<milliseconds>(deadline - Clock::now()).count();
    return left > 0 ? static_cast<int>(left) : 0;
}

}  // namespace

RawConnection::RawConnection(int fd, ssl_ctx_st* tls) : fd_(fd) {
    if (!tls) {
        return;
    }
    ssl_ = SSL_new(tls);
    in_ = BIO_new(BIO_s_mem());
    out_ = BIO_new(BIO_s_mem());
    if (!ssl_ || !in_ || !out_) {
        SSL_free(ssl_);
        BIO_free(in_);
        BIO_free(out_);
        ::close(fd_);
        throw std::runtime_error("cannot make a TLS connection");
    }
    SSL_set_bio(ssl_, in_, out_);  // the connection now owns both memory BIOs
    SSL_set_accept_state(ssl_);
}

RawConnection::~RawConnection() {
    close();
    SSL_free(ssl_);
}

RawConnection::Got RawConnection::receive(Clock::time_point deadline, std::string* bytes) {
    pollfd p{fd_, POLLIN, 0};
    int ready;
    do {
        ready = poll(&p, 1, remaining_ms(deadline));
    } while (ready < 0 && errno == EINTR);
    if (ready == 0) {
        return Got::kTimeout;
    }
    if (ready < 0) {
        return Got::kClosed;
    }
    char chunk[64 * 1024];
    ssize_t n = recv(fd_, chunk, sizeof chunk, 0);
    if (n <= 0) {
        return Got::kClosed;
    }
    bytes->append(chunk, static_cast<size_t>(n));
    return Got::kData;
}

bool RawConnection::send_bytes(const char* data, size_t size) {
    size_t sent = 0;
    while (sent < size) {
        ssize_t n = send(fd_, data + sent, size - sent, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return false;
        }
        sent += static_cast<size_t>(n);
    }
    return true;
}

bool RawConnection::flush_tls(bool bytewise) {
    char chunk[16 * 1024];
    int n;
    while ((n = BIO_read(out_, chunk, sizeof chunk)) > 0) {
        for (int at = 0; at < n; at += bytewise ? 1 : n) {
            if (!send_bytes(chunk + at, bytewise ? 1 : static_cast<size_t>(n))) {
                return false;
            }
        }
    }
    return true;
}

bool RawConnection::start(Clock::time_point deadline) {
    if (!ssl_) {
        return true;
    }
    for (;;) {
        const int done = SSL_do_handshake(ssl_);
        const int error = SSL_get_error(ssl_, done);
        if (!flush_tls(false)) {
            return false;
        }
        if (done == 1) {
            break;
        }
        std::string bytes;
        if (error != SSL_ERROR_WANT_READ || receive(deadline, &bytes) != Got::kData) {
            return false;
        }
        BIO_write(in_, bytes.data(), static_cast<int>(bytes.size()));
    }
    tls_up_ = true;
    const char* name = SSL_get_servername(ssl_, TLSEXT_NAMETYPE_host_name);
    sni_ = name ? name : "";
    return true;
}

RawConnection::Got RawConnection::fill(Clock::time_point deadline) {
    std::string bytes;
    if (!ssl_) {
        const Got got = receive(deadline, &bytes);
        buffer_ += bytes;
        received_ += bytes;
        return got;
    }
    for (;;) {
        char plain[16 * 1024];
        const int n = SSL_read(ssl_, plain, sizeof plain);
        if (n > 0) {
            buffer_.append(plain, static_cast<size_t>(n));
            received_.append(plain, static_cast<size_t>(n));
            return Got::kData;
        }
        const int error = SSL_get_error(ssl_, n);
        // Whatever OpenSSL has to say meanwhile (an alert, a key update) goes out first.
        if (!flush_tls(false) || error != SSL_ERROR_WANT_READ) {
            return Got::kClosed;  // close_notify, or a broken TLS stream
        }
        bytes.clear();
        const Got got = receive(deadline, &bytes);
        if (got != Got::kData) {
            return got;
        }
        BIO_write(in_, bytes.data(), static_cast<int>(bytes.size()));
    }
}

std::optional<std::string> RawConnection::read_head(milliseconds wait) {
    auto deadline = Clock::now() + wait;
    size_t end;
    while ((end = buffer_.find("\r\n\r\n")) == std::string::npos) {
        if (fill(deadline) != Got::kData) {
            return std::nullopt;
        }
    }
    std::string head = buffer_.substr(0, end + 4);
    buffer_.erase(0, end + 4);
    return head;
}

std::optional<std::string> RawConnection::read_exact(size_t count, milliseconds wait) {
    auto deadline = Clock::now() + wait;
    while (buffer_.size() < count) {
        if (fill(deadline) != Got::kData) {
            return std::nullopt;
        }
    }
    std::string bytes = buffer_.substr(0, count);
    buffer_.erase(0, count);
    return bytes;
}

std::optional<std::string> RawConnection::read_chunked(size_t limit, bool* complete,
                                                       milliseconds wait) {
    auto deadline = Clock::now() + wait;
    auto have = [&](size_t count) {
        while (buffer_.size() < count) {
            if (fill(deadline) != Got::kData) {
                return false;
            }
        }
        return true;
    };
    std::string payload;
    *complete = false;
    while (payload.size() < limit) {
        if (chunk_left_ == 0) {
            size_t end;
            while ((end = buffer_.find("\r\n")) == std::string::npos) {
                if (fill(deadline) != Got::kData) {
                    return std::nullopt;
                }
            }
            chunk_left_ = strtoul(buffer_.c_str(), nullptr, 16);  // stops at an extension
            buffer_.erase(0, end + 2);
            if (chunk_left_ == 0) {
                if (!have(2)) {  // the empty line after the last chunk
                    return std::nullopt;
                }
                buffer_.erase(0, 2);
                *complete = true;
                return payload;
            }
        }
        const size_t take = std::min(chunk_left_, limit - payload.size());
        if (!have(take)) {
            return std::nullopt;
        }
        payload.append(buffer_, 0, take);
        buffer_.erase(0, take);
        chunk_left_ -= take;
        if (chunk_left_ == 0) {
            if (!have(2)) {  // the CR LF after the chunk's data
                return std::nullopt;
            }
            buffer_.erase(0, 2);
        }
    }
    return payload;
}

bool RawConnection::write_all(const std::string& bytes) {
    if (!ssl_) {
        return send_bytes(bytes.data(), bytes.size());
    }
    // A memory BIO never blocks: the whole text is encrypted at once.
    if (!bytes.empty() && SSL_write(ssl_, bytes.data(), static_cast<int>(bytes.size())) <= 0) {
        return false;
    }
    return flush_tls(false);
}

bool RawConnection::write_bytewise(const std::string& bytes) {
    // Without Nagle's delay each byte leaves in a segment of its own.
    int one = 1;
    setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    for (char c : bytes) {
        if (ssl_ ? SSL_write(ssl_, &c, 1) != 1 || !flush_tls(true) : !send_bytes(&c, 1)) {
            return false;
        }
    }
    return true;
}

bool RawConnection::wait_for_close(milliseconds wait) {
    auto deadline = Clock::now() + wait;
    for (;;) {
        switch (fill(deadline)) {
            case Got::kData:
                continue;
            case Got::kClosed:
                return true;
            case Got::kTimeout:
                return false;
        }
    }
}

bool RawConnection::wait_for_hangup(milliseconds wait) {
    auto deadline = Clock::now() + wait;
    for (;;) {
        // The peer's FIN shows as POLLRDHUP even with unread bytes queued before it.
        pollfd p{fd_, POLLRDHUP, 0};
        int ready = poll(&p, 1, remaining_ms(deadline));
        if (ready < 0 && errno == EINTR) {
            continue;
        }
        return ready > 0;
    }
}

void RawConnection::reset(milliseconds wait) {
    // No event says "acknowledged": poll the kernel's count of unacknowledged bytes, bounded.
    auto deadline = Clock::now() + wait;
    int unacknowledged = 0;
    while (ioctl(fd_, SIOCOUTQ, &unacknowledged) == 0 && unacknowledged > 0 &&
           Clock::now() < deadline) {
        std::this_thread::sleep_for(milliseconds(1));
    }
    // Closing with a zero linger time discards the connection with a RST instead of a FIN.
    linger abort{1, 0};
    setsockopt(fd_, SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
    was_reset_ = true;
    close();
}

void RawConnection::finish() {
    if (tls_up_ && !was_reset_) {
        SSL_shutdown(ssl_);
        flush_tls(false);
    }
    close();
}

void RawConnection::close() {
    std::lock_guard<std::mutex> lock(fd_mutex_);
    if (fd_ >= 0) {
        ::close(fd_);
        fd_ = -1;
    }
}

void RawConnection::shutdown_io() {
    std::lock_guard<std::mutex> lock(fd_mutex_);
    if (fd_ >= 0) {
        ::shutdown(fd_, SHUT_RDWR);
    }
}

RawServer::RawServer(Handler handler, RawServerOptions options)
    : handler_(std::move(handler)), options_(std::move(options)) {
    if (options_.tls) {
        tls_ = make_tls_context(*options_.tls);
    }
    try {
        listen_fd_ = bind_socket(options_.address, options_.port, &port_);
    } catch (...) {
        SSL_CTX_free(tls_);
        throw;
    }
    if (listen(listen_fd_, 64) != 0) {
        ::close(listen_fd_);
        SSL_CTX_free(tls_);
        throw std::runtime_error("listen failed");
    }
    accept_thread_ = std::thread([this] { accept_loop(); });
}

RawServer::~RawServer() {
    stopping_ = true;
    // On Linux, shutting down a listening socket makes a blocked accept() return.
    ::shutdown(listen_fd_, SHUT_RDWR);
    accept_thread_.join();
    hang_up();
    std::vector<std::thread> threads;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        threads.swap(threads_);
    }
    for (auto& t : threads) {
        t.join();
    }
    ::close(listen_fd_);
    connections_.clear();  // before the TLS context their sessions refer to
    SSL_CTX_free(tls_);
}

void RawServer::hang_up() {
    std::lock_guard<std::mutex> lock(mutex_);
    for (auto& connection : connections_) {
        connection->shutdown_io();
    }
}

std::string RawServer::url(const std::string& target) const {
    return std::string(tls_ ? "https://" : "http://") + options_.address + ":" +
           std::to_string(port_) + target;
}

void RawServer::accept_loop() {
    for (;;) {
        int fd = accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) {
            if (!stopping_ && (errno == EINTR || errno == ECONNABORTED)) {
                continue;
            }
            return;  // shut down by the destructor, or the socket failed
        }
        std::lock_guard<std::mutex> lock(mutex_);
        if (stopping_) {
            ::close(fd);
            return;
        }
        auto connection = std::make_shared<RawConnection>(fd, tls_);
        const size_t index = connections_.size();
        connections_.push_back(connection);
        finished_.push_back(false);
        threads_.emplace_back([this, connection, index] {
            if (connection->start(Clock::now() + milliseconds(10000))) {
                handler_(*connection);
            }
            connection->finish();
            std::lock_guard<std::mutex> done(mutex_);
            finished_[index] = true;
            ++finished_count_;
            finished_changed_.notify_all();
        });
    }
}
bool RawServer::wait_for_finished(size_t count, milliseconds wait) const {
    std::unique_lock<std::mutex> lock(mutex_);
    return finished_changed_.wait_for(lock, wait, [&] { return finished_count_ >= count; });
}

std::vector<std::string> RawServer::received() const {
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<std::string> bytes;
    for (size_t i = 0; i < connections_.size(); ++i) {
        if (finished_[i]) {
            bytes.push_back(connections_[i]->received_);
        }
    }
    return bytes;
}

bool can_bind(const std::string& address, uint16_t port) {
    sockaddr_storage storage{};
    socklen_t length = 0;
    int family = AF_INET;
    if (address.find(':') != std::string::npos) {
        auto* addr = reinterpret_cast<sockaddr_in6*>(&storage);
        family = addr->sin6_family = AF_INET6;
        addr->sin6_port = htons(port);
        if (inet_pton(AF_INET6, address.c_str(), &addr->sin6_addr) != 1) {
            return false;
        }
        length = sizeof *addr;
    } else {
        auto* addr = reinterpret_cast<sockaddr_in*>(&storage);
        addr->sin_family = AF_INET;
        addr->sin_port = htons(port);
        if (inet_pton(AF_INET, address.c_str(), &addr->sin_addr) != 1) {
            return false;
        }
        length = sizeof *addr;
    }
    int fd = socket(family, SOCK_STREAM, 0);
    if (fd < 0) {
        return false;
    }
    int one = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    bool ok = bind(fd, reinterpret_cast<sockaddr*>(&storage), length) == 0;
    close(fd);
    return ok;
}

ClosedPort::ClosedPort() {
    fd_ = bind_loopback(&port_);
}

ClosedPort::~ClosedPort() {
    ::close(fd_);
}

std::optional<std::string> find_header(const std::string& head, const std::string& name) {
    size_t pos = head.find("\r\n");
    while (pos != std::string::npos) {
        size_t start = pos + 2;
        size_t end = head.find("\r\n", start);
        if (end == std::string::npos || end == start) {
            break;
        }
        size_t colon = head.find(':', start);
        if (colon != std::string::npos && colon < end && colon - start == name.size() &&
            strncasecmp(head.c_str() + start, name.c_str(), name.size()) == 0) {
            size_t value = head.find_first_not_of(" \t", colon + 1);
            return value < end ? head.substr(value, end - value) : std::string();
        }
        pos = end;
    }
    return std::nullopt;
}

std::string chunked_payload(const std::string& body, bool* complete) {
    std::string payload;
    *complete = false;
    size_t at = 0;
    for (;;) {
        const size_t end = body.find("\r\n", at);
        if (end == std::string::npos) {
            return payload;
        }
        const size_t size = strtoul(body.c_str() + at, nullptr, 16);
        if (size == 0) {
            *complete = body.compare(end + 2, 2, "\r\n") == 0;
            return payload;
        }
        payload.append(body, end + 2, size);  // as much as there is
        at = end + 2 + size + 2;
        if (at > body.size()) {
            return payload;
        }
    }
}

}  // namespace test
}  // namespace kiv
