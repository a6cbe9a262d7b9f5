#include "tests/support/http_server.h"

#include <arpa/inet.h>
#include <gnutls/gnutls.h>
#include <microhttpd.h>
#include <netinet/in.h>
#include <strings.h>

#include <cstring>
#include <stdexcept>

namespace kiv {
namespace test {

void PieceQueue::push(std::string bytes) {
    if (bytes.empty()) {
        return;
    }
    std::lock_guard<std::mutex> lock(mutex_);
    pieces_.push_back(std::move(bytes));
    changed_.notify_all();
}

void PieceQueue::close() {
    std::lock_guard<std::mutex> lock(mutex_);
    closed_ = true;
    changed_.notify_all();
}

PieceQueue::Pop PieceQueue::pop(std::string* piece, std::chrono::milliseconds wait) {
    std::unique_lock<std::mutex> lock(mutex_);
    if (!changed_.wait_for(lock, wait, [&] { return !pieces_.empty() || closed_; })) {
        return Pop::kTimedOut;
    }
    if (pieces_.empty()) {
        return Pop::kClosed;
    }
    *piece = std::move(pieces_.front());
    pieces_.pop_front();
    return Pop::kPiece;
}

std::string ReceivedRequest::header(const std::string& name) const {
    for (const auto& h : headers) {
        if (strcasecmp(h.first.c_str(), name.c_str()) == 0) {
            return h.second;
        }
    }
    return std::string();
}

Reply Reply::text(std::string body, unsigned status) {
    Reply reply;
    reply.status = status;
    reply.body = std::move(body);
    return reply;
}

Reply Reply::streamed(std::shared_ptr<PieceQueue> queue, unsigned status) {
    Reply reply;
    reply.status = status;
    reply.stream = std::move(queue);
    return reply;
}

namespace {

struct RequestState {
    ReceivedRequest request;
    bool started = false;
};

struct StreamState {
    std::shared_ptr<PieceQueue> queue;
    std::chrono::milliseconds wait;
    std::string piece;
    size_t offset = 0;
};

std::string tls_server_name(MHD_Connection* connection) {
    const MHD_ConnectionInfo* info =
        MHD_get_connection_info(connection, MHD_CONNECTION_INFO_GNUTLS_SESSION);
    if (!info || !info->tls_session) {
        return std::string();
    }
    char name[256];
    size_t size = sizeof name;
    unsigned int type = 0;
    if (gnutls_server_name_get(static_cast<gnutls_session_t>(info->tls_session), name, &size, &type,
                               0) != GNUTLS_E_SUCCESS ||
        type != GNUTLS_NAME_DNS) {
        return std::string();
    }
    return std::string(name, strnlen(name, size));
}

MHD_Result collect_header(void* cls, MHD_ValueKind, const char* key, const char* value) {
    static_cast<ReceivedRequest*>(cls)->headers.emplace_back(key ? key : "", value ? value : "");
    return MHD_YES;
}

}  // namespace

// The libmicrohttpd callbacks; friends of HttpServer so that they can reach its state.
struct HttpServerCallbacks {
    // Called first for every request, with the target exactly as sent; what it returns becomes
    // the request's state pointer.
    static void* on_uri(void*, const char* uri, MHD_Connection*) {
        auto* state = new RequestState();
        std::string target = uri ? uri : "";
        size_t question = target.find('?');
        state->request.path = target.substr(0, question);
        if (question != std::string::npos) {
            state->request.query = target.substr(question + 1);
        }
        return state;
    }

    static MHD_Result on_request(void* cls, MHD_Connection* connection, const char*,
                                 const char* method, const char*, const char* upload_data,
                                 size_t* upload_data_size, void** con_cls) {
        auto* state = static_cast<RequestState*>(*con_cls);
        if (!state) {
            return MHD_NO;
        }
        if (!state->started) {
            // Returning without a response makes libmicrohttpd answer "Expect: 100-continue"
            // and start reading the body.
            state->started = true;
            state->request.method = method;
            MHD_get_connection_values(connection, MHD_HEADER_KIND, &collect_header,
                                      &state->request);
            state->request.sni = tls_server_name(connection);
            return MHD_YES;
        }
        if (*upload_data_size > 0) {
            state->request.body.append(upload_data, *upload_data_size);
            *upload_data_size = 0;
            return MHD_YES;
        }
        return static_cast<HttpServer*>(cls)->respond(connection, state->request) ? MHD_YES
                                                                                  : MHD_NO;
    }

    static void on_completed(void*, MHD_Connection*, void** con_cls, MHD_RequestTerminationCode) {
        delete static_cast<RequestState*>(*con_cls);
        *con_cls = nullptr;
    }

    // Runs on the connection's own thread, so it may block on the queue. Each piece becomes one
    // chunk unless it is larger than libmicrohttpd's buffer.
    static ssize_t on_stream_read(void* cls, uint64_t, char* buf, size_t max) {
        auto* stream = static_cast<StreamState*>(cls);
        if (stream->offset == stream->piece.size()) {
            stream->piece.clear();
            stream->offset = 0;
            switch (stream->queue->pop(&stream->piece, stream->wait)) {
                case PieceQueue::Pop::kPiece:
                    break;
                case PieceQueue::Pop::kClosed:
                    return MHD_CONTENT_READER_END_OF_STREAM;
                case PieceQueue::Pop::kTimedOut:
                    return MHD_CONTENT_READER_END_WITH_ERROR;
            }
        }
        size_t n = std::min(max, stream->piece.size() - stream->offset);
        memcpy(buf, stream->piece.data() + stream->offset, n);
        stream->offset += n;
        return static_cast<ssize_t>(n);
    }

    static void on_stream_free(void* cls) { delete static_cast<StreamState*>(cls); }
};

HttpServer::HttpServer(HttpServerOptions options) : options_(std::move(options)) {
    sockaddr_storage storage{};
    unsigned int flags =
        MHD_USE_INTERNAL_POLLING_THREAD | MHD_USE_THREAD_PER_CONNECTION | MHD_USE_ERROR_LOG;
    if (options_.address.find(':') != std::string::npos) {
        auto* addr = reinterpret_cast<sockaddr_in6*>(&storage);
        addr->sin6_family = AF_INET6;
        addr->sin6_port = htons(options_.port);
        if (inet_pton(AF_INET6, options_.address.c_str(), &addr->sin6_addr) != 1) {
            throw std::invalid_argument("not an IPv6 address: " + options_.address);
        }
        flags |= MHD_USE_IPv6;
    } else {
        auto* addr = reinterpret_cast<sockaddr_in*>(&storage);
        addr->sin_family = AF_INET;
        addr->sin_port = htons(options_.port);
        if (inet_pton(AF_INET, options_.address.c_str(), &addr->sin_addr) != 1) {
            throw std::invalid_argument("not an IPv4 address: " + options_.address);
        }
    }
    const sockaddr* addr = reinterpret_cast<const sockaddr*>(&storage);
    if (options_.tls) {
        flags |= MHD_USE_TLS;
        daemon_ = MHD_start_daemon(
            flags, 0, nullptr, nullptr, &HttpServerCallbacks::on_request, this,
            MHD_OPTION_SOCK_ADDR, addr, MHD_OPTION_URI_LOG_CALLBACK, &HttpServerCallbacks::on_uri,
            this, MHD_OPTION_NOTIFY_COMPLETED, &HttpServerCallbacks::on_completed, this,
            MHD_OPTION_HTTPS_MEM_KEY, options_.tls->key_pem.c_str(), MHD_OPTION_HTTPS_MEM_CERT,
            options_.tls->cert_pem.c_str(), MHD_OPTION_END);
    } else {
        daemon_ = MHD_start_daemon(flags, 0, nullptr, nullptr, &HttpServerCallbacks::on_request,
                                   this, MHD_OPTION_SOCK_ADDR, addr, MHD_OPTION_URI_LOG_CALLBACK,
                                   &HttpServerCallbacks::on_uri, this, MHD_OPTION_NOTIFY_COMPLETED,
                                   &HttpServerCallbacks::on_completed, this, MHD_OPTION_END);
    }
    if (!daemon_) {
        throw std::runtime_error("cannot start the HTTP server on " + options_.address);
    }
    const MHD_DaemonInfo* info = MHD_get_daemon_info(daemon_, MHD_DAEMON_INFO_BIND_PORT);
    port_ = info ? info->port : options_.port;
}

HttpServer::~HttpServer() {
    std::vector<std::shared_ptr<PieceQueue>> open;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stopping_ = true;
        for (auto& weak : streams_) {
            if (auto queue = weak.lock()) {
                open.push_back(queue);
            }
        }
        streams_.clear();
    }
    // A connection thread blocked on a queue must get out before the daemon joins it.
    for (auto& queue : open) {
        queue->close();
    }
    MHD_stop_daemon(daemon_);
}

void HttpServer::on(const std::string& path, Handler handler) {
    std::lock_guard<std::mutex> lock(mutex_);
    handlers_[path] = std::move(handler);
}

std::string HttpServer::url(const std::string& target) const {
    const bool v6 = options_.address.find(':') != std::string::npos;
    return std::string(options_.tls ? "https://" : "http://") + (v6 ? "[" : "") + options_.address +
           (v6 ? "]" : "") + ":" + std::to_string(port_) + target;
}

std::vector<ReceivedRequest> HttpServer::requests() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return requests_;
}

bool HttpServer::wait_for_requests(size_t count, std::chrono::milliseconds wait) const {
    std::unique_lock<std::mutex> lock(mutex_);
    return request_arrived_.wait_for(lock, wait, [&] { return requests_.size() >= count; });
}

bool HttpServer::respond(MHD_Connection* connection, const ReceivedRequest& request) {
    Handler handler;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        requests_.push_back(request);
        auto it = handlers_.find(request.path);
        if (it != handlers_.end()) {
            handler = it->second;
        }
    }
    request_arrived_.notify_all();

    Reply reply;
    if (!handler) {
        reply = Reply::text("no handler for " + request.path + "\n", 404);
    } else {
        try {
            reply = handler(request);
        } catch (const std::exception& e) {
            reply = Reply::text(std::string("handler failed: ") + e.what() + "\n", 500);
        }
    }

    MHD_Response* response;
    if (reply.stream) {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            if (stopping_) {
                reply.stream->close();
            }
            streams_.push_back(reply.stream);
        }
        auto* stream = new StreamState{reply.stream, options_.stream_wait, std::string(), 0};
        response = MHD_create_response_from_callback(MHD_SIZE_UNKNOWN, 16 * 1024,
                                                     &HttpServerCallbacks::on_stream_read, stream,
                                                     &HttpServerCallbacks::on_stream_free);
        if (!response) {
            delete stream;
        }
    } else {
        response = MHD_create_response_from_buffer(
            reply.body.size(), const_cast<char*>(reply.body.data()), MHD_RESPMEM_MUST_COPY);
    }
    if (!response) {
        return false;
    }
    for (const auto& h : reply.headers) {
        MHD_add_response_header(response, h.first.c_str(), h.second.c_str());
    }
    MHD_Result queued = MHD_queue_response(connection, reply.status, response);
    MHD_destroy_response(response);
    return queued == MHD_YES;
}

}  // namespace test
}  // namespace kiv
