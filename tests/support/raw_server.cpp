#include "tests/support/raw_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>

namespace kiv {
namespace test {

namespace {

using Clock = std::chrono::steady_clock;

// Binds a new TCP socket to 127.0.0.1 on a port the kernel chooses; returns it and the port.
int bind_loopback(uint16_t* bound_port) {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        throw std::runtime_error("socket failed");
    }
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof addr;
    if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
        getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
        ::close(fd);
        throw std::runtime_error("cannot bind 127.0.0.1");
    }
    *bound_port = ntohs(addr.sin_port);
    return fd;
}

int remaining_ms(Clock::time_point deadline) {
    auto left = std::chrono::duration_cast<milliseconds>(deadline - Clock::now()).count();
    return left > 0 ? static_cast<int>(left) : 0;
}

}  // namespace

RawConnection::~RawConnection() {
    close();
}

bool RawConnection::fill(Clock::time_point deadline) {
    pollfd p{fd_, POLLIN, 0};
    int ready;
    do {
        ready = poll(&p, 1, remaining_ms(deadline));
    } while (ready < 0 && errno == EINTR);
    if (ready <= 0) {
        return false;
    }
    char chunk[64 * 1024];
    ssize_t n = recv(fd_, chunk, sizeof chunk, 0);
    if (n <= 0) {
        return false;
    }
    buffer_.append(chunk, static_cast<size_t>(n));
    received_.append(chunk, static_cast<size_t>(n));
    return true;
}

std::optional<std::string> RawConnection::read_head(milliseconds wait) {
    auto deadline = Clock::now() + wait;
    size_t end;
    while ((end = buffer_.find("\r\n\r\n")) == std::string::npos) {
        if (!fill(deadline)) {
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
        if (!fill(deadline)) {
            return std::nullopt;
        }
    }
    std::string bytes = buffer_.substr(0, count);
    buffer_.erase(0, count);
    return bytes;
}

bool RawConnection::write_all(const std::string& bytes) {
    size_t sent = 0;
    while (sent < bytes.size()) {
        ssize_t n = send(fd_, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
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

bool RawConnection::write_bytewise(const std::string& bytes) {
    // Without Nagle's delay each byte leaves in a segment of its own.
    int one = 1;
    setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    for (char c : bytes) {
        if (!write_all(std::string(1, c))) {
            return false;
        }
    }
    return true;
}

bool RawConnection::wait_for_close(milliseconds wait) {
    auto deadline = Clock::now() + wait;
    for (;;) {
        pollfd p{fd_, POLLIN, 0};
        int ready = poll(&p, 1, remaining_ms(deadline));
        if (ready < 0 && errno == EINTR) {
            continue;
        }
        if (ready <= 0) {
            return false;
        }
        char chunk[16 * 1024];
        ssize_t n = recv(fd_, chunk, sizeof chunk, 0);
        if (n <= 0) {
            return true;
        }
        received_.append(chunk, static_cast<size_t>(n));
    }
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

RawServer::RawServer(Handler handler) : handler_(std::move(handler)) {
    listen_fd_ = bind_loopback(&port_);
    if (listen(listen_fd_, 64) != 0) {
        ::close(listen_fd_);
        throw std::runtime_error("listen failed");
    }
    accept_thread_ = std::thread([this] { accept_loop(); });
}

RawServer::~RawServer() {
    stopping_ = true;
    // On Linux, shutting down a listening socket makes a blocked accept() return.
    ::shutdown(listen_fd_, SHUT_RDWR);
    accept_thread_.join();
    std::vector<std::thread> threads;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        for (auto& connection : connections_) {
            connection->shutdown_io();
        }
        threads.swap(threads_);
    }
    for (auto& t : threads) {
        t.join();
    }
    ::close(listen_fd_);
}

std::string RawServer::url(const std::string& target) const {
    return "http://127.0.0.1:" + std::to_string(port_) + target;
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
        auto connection = std::make_shared<RawConnection>(fd);
        const size_t index = connections_.size();
        connections_.push_back(connection);
        finished_.push_back(false);
        threads_.emplace_back([this, connection, index] {
            handler_(*connection);
            connection->close();
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

}  // namespace test
}  // namespace kiv
