#ifndef KIV_TESTS_SUPPORT_HTTP_SERVER_H
#define KIV_TESTS_SUPPORT_HTTP_SERVER_H

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/tls_cert.h"

struct MHD_Daemon;
struct MHD_Connection;

namespace kiv {
namespace test {

// Body pieces that a test hands to a streaming reply one at a time. The server takes each piece
// as one chunk of a chunked body and ends the body once the queue is closed and empty, so a test
// controls exactly when bytes go out and can keep the connection silent in between.
class PieceQueue {
public:
    enum class Pop { kPiece, kClosed, kTimedOut };

    // Empty pieces are ignored: an empty chunk would end the body.
    void push(std::string bytes);
    // Ends the body after the pieces already pushed. Idempotent.
    void close();
    // Waits at most `wait` for a piece.
    Pop pop(std::string* piece, std::chrono::milliseconds wait);

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<std::string> pieces_;
    bool closed_ = false;
};

// One request as the server received it.
struct ReceivedRequest {
    std::string method;
    std::string path;   // without the query
    std::string query;  // after '?', undecoded; empty when there is none
    // Header lines in arrival order, names spelled as sent.
    std::vector<std::pair<std::string, std::string>> headers;
    std::string body;
    // TLS server name the client asked for; empty without TLS or without SNI.
    std::string sni;

    // First header of that name, compared without regard to case; empty when absent.
    std::string header(const std::string& name) const;
};

// The answer a handler gives. Without `stream`, `body` is sent with a Content-Length. With
// `stream`, the body is chunked and taken piece by piece from the queue.
struct Reply {
    unsigned status = 200;
    std::vector<std::pair<std::string, std::string>> headers;
    std::string body;
    std::shared_ptr<PieceQueue> stream;

    static Reply text(std::string body, unsigned status = 200);
    static Reply streamed(std::shared_ptr<PieceQueue> queue, unsigned status = 200);
};

// Runs on a server thread once the whole request body has arrived.
using Handler = std::function<Reply(const ReceivedRequest&)>;

struct HttpServerOptions {
    std::string address = "127.0.0.1";  // a loopback address, IPv4 or IPv6 ("::1")
    uint16_t port = 0;                  // 0: an ephemeral port, see HttpServer::port()
    std::optional<TlsCert> tls;         // set: HTTPS with this certificate
    // Longest time a streaming reply waits for its next piece before it drops the connection.
    std::chrono::milliseconds stream_wait{10000};
};

// An HTTP/1.1 server on libmicrohttpd, one thread per connection, for tests on loopback.
// Requests to paths without a handler get 404. "Expect: 100-continue" is answered at once.
// The destructor closes every streaming queue, then stops and joins all server threads.
class HttpServer {
public:
    explicit HttpServer(HttpServerOptions options = HttpServerOptions());
    ~HttpServer();
    HttpServer(const HttpServer&) = delete;
    HttpServer& operator=(const HttpServer&) = delete;

    // Registers (or replaces) the handler of an exact path; may be called while running.
    void on(const std::string& path, Handler handler);

    uint16_t port() const { return port_; }
    // "http://address:port" (or https) followed by `target`, which should start with '/'.
    std::string url(const std::string& target = "/") const;

    // Every completed request so far, in the order the handlers were called.
    std::vector<ReceivedRequest> requests() const;
    // Waits until at least `count` requests have reached their handlers.
    bool wait_for_requests(size_t count, std::chrono::milliseconds wait) const;

private:
    friend struct HttpServerCallbacks;

    // Records the request, runs its handler and queues the reply; false drops the connection.
    bool respond(MHD_Connection* connection, const ReceivedRequest& request);

    HttpServerOptions options_;
    MHD_Daemon* daemon_ = nullptr;
    uint16_t port_ = 0;

    mutable std::mutex mutex_;
    mutable std::condition_variable request_arrived_;
    std::map<std::string, Handler> handlers_;
    std::vector<ReceivedRequest> requests_;
    std::vector<std::weak_ptr<PieceQueue>> streams_;
    bool stopping_ = false;
};

}  // namespace test
}  // namespace kiv

#endif
