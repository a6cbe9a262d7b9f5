#include "tools/server/connection_gate.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <list>
#include <mutex>
#include <thread>
#include <unordered_map>
#include <vector>

#include "tools/server/http_request.h"

namespace kiv {
namespace demo {

namespace {

using Clock = std::chrono::steady_clock;

// An error answer is followed by this long reading and dropping what the client still sends,
// so that closing does not reset the connection before the client has read the answer.
constexpr auto kLinger = std::chrono::milliseconds(1000);
// Connections lingering at once; more are closed straight after their answer.
constexpr size_t kMaxLingering = 256;
// After running out of descriptors, accepting pauses this long.
constexpr auto kAcceptPause = std::chrono::milliseconds(100);

std::string address_key(const sockaddr* peer) {
    char text[INET6_ADDRSTRLEN] = "?";
    if (peer && peer->sa_family == AF_INET) {
        inet_ntop(AF_INET, &reinterpret_cast<const sockaddr_in*>(peer)->sin_addr, text,
                  sizeof(text));
    } else if (peer && peer->sa_family == AF_INET6) {
        const in6_addr& a = reinterpret_cast<const sockaddr_in6*>(peer)->sin6_addr;
        if (IN6_IS_ADDR_V4MAPPED(&a)) {
            inet_ntop(AF_INET, &a.s6_addr[12], text, sizeof(text));
        } else {
            inet_ntop(AF_INET6, &a, text, sizeof(text));
        }
    }
    return text;
}

const char* reason_phrase(unsigned status) {
    switch (status) {
        case 400:
            return "Bad Request";
        case 408:
            return "Request Timeout";
        case 431:
            return "Request Header Fields Too Large";
        case 501:
            return "Not Implemented";
        case 503:
            return "Service Unavailable";
        case 505:
            return "HTTP Version Not Supported";
        default:
            return "Error";
    }
}

}  // namespace

struct ConnectionGate::Impl {
    // A connection the gate holds: waiting for its head, or answered and lingering.
    struct Held {
        int fd = -1;
        std::string key;
        sockaddr_storage peer{};
        socklen_t peer_len = 0;
        Clock::time_point deadline;
        bool lingering = false;
        bool dead = false;  // closed; freed once the current batch of events is handled
    };
    // A connection handed over.
    struct Handed {
        int fd = -1;
        std::string key;
        Clock::time_point deadline;
        bool head_done = false;
        bool cut = false;
        std::list<Handed>::iterator self;
    };
    struct Address {
        size_t waiting = 0, handing = 0, handed = 0;
        size_t total() const { return waiting + handing + handed; }
    };
    struct Ready {
        int fd;
        std::string key;
        sockaddr_storage peer;
        socklen_t peer_len;
    };

    Impl(GateOptions o, Handoff h) : options(o), handoff(std::move(h)), buffer(o.head_limit) {}

    const GateOptions options;
    const Handoff handoff;
    int listen_fd = -1;
    int epoll_fd = -1;
    int wake_fd = -1;
    uint16_t bound_port = 0;
    std::thread thread;
    std::atomic<bool> stopping{false};
    std::vector<char> buffer;  // the gate thread's

    mutable std::mutex m;       // everything below
    std::list<Held> waiting;    // in accept order, so in deadline order
    std::list<Held> lingering;  // in deadline order
    std::list<Held> graveyard;
    std::list<Handed> handed;
    std::unordered_map<std::string, Address> addresses;
    GateStats counters;
    bool accept_paused = false;
    Clock::time_point accept_resume;
    std::vector<Ready> ready;

    void forget_if_idle(const std::string& key) {
        auto it = addresses.find(key);
        if (it != addresses.end() && it->second.total() == 0) {
            addresses.erase(it);
        }
    }

    void bury(std::list<Held>& from, std::list<Held>::iterator it) {
        if (it->fd >= 0) {
            close(it->fd);  // also leaves the epoll set
        }
        it->fd = -1;
        it->dead = true;
        graveyard.splice(graveyard.end(), from, it);
    }

    static std::list<Held>::iterator find(std::list<Held>& in, const Held* held) {
        return std::find_if(in.begin(), in.end(), [held](const Held& h) { return &h == held; });
    }

    // Sends a JSON error answer to a waiting connection, which then lingers (or closes). The
    // connection no longer counts against its address.
    void answer(std::list<Held>::iterator it, unsigned status, const std::string& message) {
        const std::string body = error_body(message);
        const std::string response =
            "HTTP/1.1 " + std::to_string(status) + " " + reason_phrase(status) +
            "\r\nContent-Type: application/json\r\nContent-Length: " + std::to_string(body.size()) +
            "\r\nConnection: close\r\n\r\n" + body;
        --addresses[it->key].waiting;
        forget_if_idle(it->key);
        // A fresh socket's send buffer holds a small answer whole; a full one loses it.
        (void)!send(it->fd, response.data(), response.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        shutdown(it->fd, SHUT_WR);
        if (lingering.size() >= kMaxLingering) {
            bury(waiting, it);
            return;
        }
        it->lingering = true;
        it->deadline = Clock::now() + kLinger;
        epoll_event ev{};
        ev.events = EPOLLIN | EPOLLRDHUP | EPOLLET;
        ev.data.ptr = &*it;
        epoll_ctl(epoll_fd, EPOLL_CTL_MOD, it->fd, &ev);
        lingering.splice(lingering.end(), waiting, it);
    }

    // The oldest waiting connection of `key`, or of the address with the most waiting.
    std::list<Held>::iterator oldest_waiting(const std::string& key) {
        return std::find_if(waiting.begin(), waiting.end(),
                            [&key](const Held& h) { return h.key == key; });
    }
    std::list<Held>::iterator oldest_of_busiest() {
        const std::string* busiest = nullptr;
        size_t most = 0;
        for (const auto& entry : addresses) {
            if (entry.second.waiting > most) {
                most = entry.second.waiting;
                busiest = &entry.first;
            }
        }
        return busiest ? oldest_waiting(*busiest) : waiting.end();
    }

    void admit(int fd, const sockaddr_storage& peer, socklen_t peer_len) {
        ++counters.accepted;
        const std::string key = address_key(reinterpret_cast<const sockaddr*>(&peer));
        waiting.push_back(Held{fd, key, peer, peer_len, Clock::now() + options.head_timeout});
        auto fresh = std::prev(waiting.end());
        Address& address = addresses[key];
        ++address.waiting;
        if (handed.size() >= options.max_handed) {
            ++counters.refused;
            return refuse(fresh, "server busy: too many connections, try again later");
        }
        if (address.total() > options.max_per_address) {
            // Make room by closing this address's oldest connection still waiting for its
            // head; one whose head has arrived keeps its place.
            auto oldest = oldest_waiting(key);
            if (oldest == fresh) {
                ++counters.refused;
                return refuse(fresh, "too many connections from " + key);
            }
            ++counters.evicted;
            answer(oldest, 503, "closed to make room: too many connections from " + key);
        }
        if (waiting.size() > options.max_pending) {
            ++counters.evicted;
            auto oldest = oldest_of_busiest();
            answer(oldest, 503, "closed to make room: too many connections waiting");
            if (oldest == fresh) {
                return;
            }
        }
        if (!options.check_heads) {
            return hand_over(fresh);
        }
        epoll_event ev{};
        ev.events = EPOLLIN | EPOLLRDHUP | EPOLLET;
        ev.data.ptr = &*fresh;
        if (epoll_ctl(epoll_fd, EPOLL_CTL_ADD, fd, &ev) != 0) {
            --addresses[key].waiting;
            forget_if_idle(key);
            bury(waiting, fresh);
        }
    }

    void refuse(std::list<Held>::iterator it, const std::string& message) {
        if (options.check_heads) {
            return answer(it, 503, message);
        }
        --addresses[it->key].waiting;  // encrypted: nothing readable can be said
        forget_if_idle(it->key);
        bury(waiting, it);
    }

    void hand_over(std::list<Held>::iterator it) {
        Address& address = addresses[it->key];
        --address.waiting;
        ++address.handing;
        if (options.check_heads) {
            epoll_ctl(epoll_fd, EPOLL_CTL_DEL, it->fd, nullptr);
        }
        ready.push_back(Ready{it->fd, it->key, it->peer, it->peer_len});
        it->fd = -1;  // the descriptor goes with it
        bury(waiting, it);
    }

    void accept_all() {
        while (true) {
            sockaddr_storage peer{};
            socklen_t peer_len = sizeof(peer);
            const int fd = accept4(listen_fd, reinterpret_cast<sockaddr*>(&peer), &peer_len,
                                   SOCK_NONBLOCK | SOCK_CLOEXEC);
            if (fd >= 0) {
                admit(fd, peer, peer_len);
                continue;
            }
            if (errno == EINTR || errno == ECONNABORTED) {
                continue;
            }
            if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
                // Out of descriptors: free one held for a head first, else wait a little.
                auto oldest = oldest_of_busiest();
                if (oldest != waiting.end()) {
                    ++counters.evicted;
                    --addresses[oldest->key].waiting;
                    forget_if_idle(oldest->key);
                    bury(waiting, oldest);
                    continue;
                }
                epoll_ctl(epoll_fd, EPOLL_CTL_DEL, listen_fd, nullptr);
                accept_paused = true;
                accept_resume = Clock::now() + kAcceptPause;
            }
            return;
        }
    }

    void on_readable(Held* held, uint32_t events) {
        if (held->lingering) {
            char sink[4096];
            ssize_t n;
            while ((n = recv(held->fd, sink, sizeof(sink), 0)) > 0) {
            }
            if (n == 0 || (errno != EAGAIN && errno != EWOULDBLOCK)) {
                bury(lingering, find(lingering, held));
            }
            return;
        }
        auto it = find(waiting, held);
        const ssize_t n = recv(held->fd, buffer.data(), buffer.size(), MSG_PEEK);
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            return;
        }
        const HeadCheck check =
            n > 0 ? check_request_head(buffer.data(), size_t(n), options.head_limit) : HeadCheck();
        if (check.state == HeadCheck::kComplete) {
            return hand_over(it);
        }
        if (check.state == HeadCheck::kBad) {
            ++counters.malformed;
            return answer(it, check.status, check.message);
        }
        if (n <= 0 || (events & (EPOLLRDHUP | EPOLLHUP | EPOLLERR))) {
            // The client went away (or stopped sending) before its head was whole.
            --addresses[held->key].waiting;
            forget_if_idle(held->key);
            bury(waiting, it);
        }
    }

    void expire(Clock::time_point now) {
        while (!waiting.empty() && waiting.front().deadline <= now) {
            ++counters.timed_out;
            answer(waiting.begin(), 408,
                   "request head not complete within " +
                       std::to_string(options.head_timeout.count()) + " ms");
        }
        while (!lingering.empty() && lingering.front().deadline <= now) {
            bury(lingering, lingering.begin());
        }
        for (Handed& h : handed) {
            if (!h.head_done && !h.cut && h.deadline <= now) {
                // The library still owns the descriptor (closed() has not run: it takes the
                // same lock), so this cannot reach another connection's socket.
                shutdown(h.fd, SHUT_RDWR);
                h.cut = true;
                ++counters.timed_out;
            }
        }
        if (accept_paused && accept_resume <= now) {
            epoll_event ev{};
            ev.events = EPOLLIN;
            ev.data.ptr = &listen_fd;
            epoll_ctl(epoll_fd, EPOLL_CTL_ADD, listen_fd, &ev);
            accept_paused = false;
        }
    }

    int next_wait_ms(Clock::time_point now) const {
        Clock::time_point next = now + std::chrono::seconds(1);
        if (!waiting.empty()) {
            next = std::min(next, waiting.front().deadline);
        }
        if (!lingering.empty()) {
            next = std::min(next, lingering.front().deadline);
        }
        for (const Handed& h : handed) {
            if (!h.head_done && !h.cut) {
                next = std::min(next, h.deadline);
            }
        }
        if (accept_paused) {
            next = std::min(next, accept_resume);
        }
        const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(next - now).count();
        return static_cast<int>(std::max<long long>(0, ms + 1));
    }

    void loop() {
        epoll_event events[64];
        while (!stopping) {
            int wait_ms;
            {
                std::lock_guard<std::mutex> lock(m);
                wait_ms = next_wait_ms(Clock::now());
            }
            const int n = epoll_wait(epoll_fd, events, 64, wait_ms);
            std::vector<Ready> handing;
            {
                std::lock_guard<std::mutex> lock(m);
                for (int i = 0; i < n; ++i) {
                    void* ptr = events[i].data.ptr;
                    if (ptr == &wake_fd) {
                        uint64_t value;
                        (void)!read(wake_fd, &value, sizeof(value));
                    } else if (ptr == &listen_fd) {
                        accept_all();
                    } else if (!static_cast<Held*>(ptr)->dead) {
                        on_readable(static_cast<Held*>(ptr), events[i].events);
                    }
                }
                expire(Clock::now());
                graveyard.clear();
                handing.swap(ready);
            }
            // No lock while the library takes them: it reports back through opened().
            for (Ready& r : handing) {
                handoff(r.fd, reinterpret_cast<const sockaddr*>(&r.peer), r.peer_len);
            }
            if (!handing.empty()) {
                std::lock_guard<std::mutex> lock(m);
                for (const Ready& r : handing) {
                    --addresses[r.key].handing;
                    forget_if_idle(r.key);
                }
            }
        }
    }
};

ConnectionGate::ConnectionGate(GateOptions options, Handoff handoff)
    : impl_(new Impl(options, std::move(handoff))) {}

ConnectionGate::~ConnectionGate() {
    stop();
}

bool ConnectionGate::listen(const sockaddr* address, socklen_t length, std::string* error) {
    Impl& impl = *impl_;
    impl.listen_fd = socket(address->sa_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    const int one = 1;
    if (impl.listen_fd < 0 ||
        setsockopt(impl.listen_fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one)) != 0 ||
        bind(impl.listen_fd, address, length) != 0 || ::listen(impl.listen_fd, SOMAXCONN) != 0) {
        *error = std::system_category().message(errno);
        if (impl.listen_fd >= 0) {
            close(impl.listen_fd);
            impl.listen_fd = -1;
        }
        return false;
    }
    sockaddr_storage bound{};
    socklen_t bound_len = sizeof(bound);
    getsockname(impl.listen_fd, reinterpret_cast<sockaddr*>(&bound), &bound_len);
    impl.bound_port =
        ntohs(bound.ss_family == AF_INET6 ? reinterpret_cast<sockaddr_in6*>(&bound)->sin6_port
                                          : reinterpret_cast<sockaddr_in*>(&bound)->sin_port);
    return true;
}

uint16_t ConnectionGate::port() const {
    return impl_->bound_port;
}

bool ConnectionGate::start(std::string* error) {
    Impl& impl = *impl_;
    impl.epoll_fd = epoll_create1(EPOLL_CLOEXEC);
    impl.wake_fd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    epoll_event listen_ev{};
    listen_ev.events = EPOLLIN;
    listen_ev.data.ptr = &impl.listen_fd;
    epoll_event wake_ev{};
    wake_ev.events = EPOLLIN;
    wake_ev.data.ptr = &impl.wake_fd;
    if (impl.listen_fd < 0 || impl.epoll_fd < 0 || impl.wake_fd < 0 ||
        epoll_ctl(impl.epoll_fd, EPOLL_CTL_ADD, impl.listen_fd, &listen_ev) != 0 ||
        epoll_ctl(impl.epoll_fd, EPOLL_CTL_ADD, impl.wake_fd, &wake_ev) != 0) {
        *error = impl.listen_fd < 0 ? "not listening" : std::system_category().message(errno);
        return false;
    }
    impl.stopping = false;
    impl.thread = std::thread([&impl] { impl.loop(); });
    return true;
}

void ConnectionGate::stop() {
    Impl& impl = *impl_;
    if (impl.thread.joinable()) {
        impl.stopping = true;
        const uint64_t one = 1;
        (void)!write(impl.wake_fd, &one, sizeof(one));
        impl.thread.join();
    }
    std::lock_guard<std::mutex> lock(impl.m);
    for (std::list<Impl::Held>* held : {&impl.waiting, &impl.lingering}) {
        while (!held->empty()) {
            if (!held->front().lingering) {
                --impl.addresses[held->front().key].waiting;
                impl.forget_if_idle(held->front().key);
            }
            impl.bury(*held, held->begin());
        }
    }
    impl.graveyard.clear();
    for (int* fd : {&impl.listen_fd, &impl.epoll_fd, &impl.wake_fd}) {
        if (*fd >= 0) {
            close(*fd);
            *fd = -1;
        }
    }
}

void* ConnectionGate::opened(int fd, const sockaddr* peer) {
    Impl& impl = *impl_;
    std::lock_guard<std::mutex> lock(impl.m);
    Impl::Handed h;
    h.fd = fd;
    h.key = address_key(peer);
    h.deadline = Clock::now() + impl.options.head_timeout;
    h.head_done = impl.options.check_heads;  // checked before it was handed over
    impl.handed.push_back(std::move(h));
    Impl::Handed& added = impl.handed.back();
    added.self = std::prev(impl.handed.end());
    ++impl.addresses[added.key].handed;
    return &added;
}

void ConnectionGate::head_done(void* token) {
    if (token) {
        std::lock_guard<std::mutex> lock(impl_->m);
        static_cast<Impl::Handed*>(token)->head_done = true;
    }
}

void ConnectionGate::closed(void* token) {
    if (!token) {
        return;
    }
    Impl& impl = *impl_;
    std::lock_guard<std::mutex> lock(impl.m);
    auto* h = static_cast<Impl::Handed*>(token);
    const std::string key = h->key;
    --impl.addresses[key].handed;
    impl.handed.erase(h->self);
    impl.forget_if_idle(key);
}

GateStats ConnectionGate::stats() const {
    std::lock_guard<std::mutex> lock(impl_->m);
    GateStats s = impl_->counters;
    s.pending = impl_->waiting.size();
    s.handed = impl_->handed.size();
    return s;
}

}  // namespace demo
}  // namespace kiv
