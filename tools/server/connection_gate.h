#ifndef KIV_TOOLS_SERVER_CONNECTION_GATE_H
#define KIV_TOOLS_SERVER_CONNECTION_GATE_H

#include <sys/socket.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace kiv {
namespace demo {

struct GateOptions {
    // From accept to the end of the request head, however the bytes trickle in.
    std::chrono::milliseconds head_timeout{10000};
    // Connections one client address may hold, waiting for their head or handed over.
    size_t max_per_address = 64;
    // Connections waiting for their head, all addresses together.
    size_t max_pending = 256;
    // Connections handed over and not yet closed; at the limit newcomers are refused.
    size_t max_handed = 528;
    // Largest request head accepted.
    size_t head_limit = 8192;
    // False when the bytes are encrypted (TLS): connections are handed over at once, and the
    // head's deadline is then enforced through opened() and head_done().
    bool check_heads = true;
};

struct GateStats {
    uint64_t accepted = 0;
    uint64_t refused = 0;    // their address or the server was full: answered 503 at once
                             // (over TLS, where nothing readable can be said, just closed)
    uint64_t evicted = 0;    // waiting for their head, closed to make room for a newcomer
    uint64_t timed_out = 0;  // head not complete within head_timeout
    uint64_t malformed = 0;  // answered 4xx/5xx for a malformed head
    size_t pending = 0;      // waiting for their head now
    size_t handed = 0;       // handed over and open now
};

// The door of the recognition server: it accepts every connection itself and holds it, at the
// cost of a file descriptor and no thread, until its request head has arrived whole (read with
// MSG_PEEK, so the bytes stay in the socket for whoever takes it next). Only then is the
// connection handed over. A head that does not arrive within its deadline, or turns out
// malformed, is answered with a JSON error here and never reaches the HTTP library; so one
// client dripping header lines holds no thread and no place in the library's connection table.
//
// Room for new clients: a newcomer from an address at its limit takes the place of that
// address's oldest connection still waiting for its head (refused with 503 when the address
// has none waiting), and when too many heads are waiting overall the oldest waiting one of
// the address with the most waiting is closed. A connection whose head has arrived is never
// closed to make room.
//
// Threads: one, running from start() to stop(). opened(), head_done() and closed() may be
// called from any thread, also after stop(); the object must outlive those calls.
class ConnectionGate {
public:
    // Takes a connection whose head has arrived (or any connection, without check_heads); owns
    // the descriptor from then on, whatever it returns.
    using Handoff = std::function<void(int fd, const sockaddr* peer, socklen_t peer_len)>;

    ConnectionGate(GateOptions options, Handoff handoff);
    ~ConnectionGate();
    ConnectionGate(const ConnectionGate&) = delete;
    ConnectionGate& operator=(const ConnectionGate&) = delete;

    // Binds and listens; false with `error` when that fails.
    bool listen(const sockaddr* address, socklen_t length, std::string* error);
    uint16_t port() const;
    // Starts the thread; false with `error` when it cannot run.
    bool start(std::string* error);
    // Stops accepting, closes every connection not handed over yet and the listening socket,
    // joins the thread. Idempotent.
    void stop();

    // The HTTP library took a handed-over connection; returns the token for the calls below.
    void* opened(int fd, const sockaddr* peer);
    // The connection's first request head has been read (needed without check_heads only).
    void head_done(void* token);
    // The library is about to close the connection's descriptor.
    void closed(void* token);

    GateStats stats() const;

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace demo
}  // namespace kiv

#endif
