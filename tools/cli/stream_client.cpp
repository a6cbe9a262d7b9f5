#include "tools/cli/stream_client.h"

#include <cstring>

namespace kiv {
namespace cli {

using Memory::kiv_shared_ptr;
using Memory::kiv_shared_ptr_base;
using namespace Networking;

struct StreamClient::State {
    std::mutex mutex;
    std::condition_variable changed;
    PieceHandler on_piece;
    StreamEnd end;
    uint64_t pieces = 0;
    bool released = false;
};

// The per-stream object the layer holds while the transfer runs; its destruction tells the
// client that the layer is done with the stream.
class StreamClient::Session : public EventManagerDecChunk {
public:
    explicit Session(std::shared_ptr<State> state) : state(std::move(state)) {}
    ~Session() override {
        std::lock_guard<std::mutex> lock(state->mutex);
        state->released = true;
        state->changed.notify_all();
    }
    std::shared_ptr<State> state;
};

StreamClient::StreamClient() : state_(std::make_shared<State>()) {
    session_ = new Session(state_);
    task_ = kiv_http_request_maker::get_instance();
}

StreamClient::~StreamClient() {
    // No delivery starts once cancel() has returned; waiting for the release as well means the
    // layer's worker is done with the stream before the caller's state goes.
    if (task_.getPTR()) {
        task_->cancel();
    }
    task_ = static_cast<kiv_http_request_maker*>(nullptr);
    wait_released(std::chrono::seconds(15));
}

void StreamClient::on_delivery(kiv_shared_ptr<kiv_http_request_maker>&,
                               kiv_shared_ptr<kiv_HttpResponse>& response,
                               kiv_shared_ptr_base* param) {
    kiv_shared_ptr<Session> session;
    session.copyControlObject(param);
    if (!session.getPTR()) {
        return;
    }
    State& state = *session->state;
    const int32_t status = response->get_http_status();
    const HTTP_REQUEST_ERROR error = response->get_local_request_error();
    if (status == 0 && error == HTTP_REQUEST_OK) {
        if (state.on_piece) {
            state.on_piece(response->get_response_data().getPTR(), response->get_response_len());
        }
        std::lock_guard<std::mutex> lock(state.mutex);
        ++state.pieces;
        return;
    }
    std::lock_guard<std::mutex> lock(state.mutex);
    state.end.ended = true;
    state.end.status = status;
    state.end.error = error;
    state.end.message = response->getErrorMessage();
    state.end.curl_code = response->get_curl_code();
    state.end.curl_error = response->get_curl_error();
    state.end.body.assign(response->get_response_data().getPTR(), response->get_response_len());
    state.changed.notify_all();
}

void apply_tls(const TlsOptions& tls, kiv_HttpRequest* request) {
    request->_VERIFY_TLS = !tls.insecure;
    request->_CA_FILE = tls.insecure ? std::string() : tls.cacert;
    request->_PINNED_PUBLIC_KEY = tls.pinned_key;
}

void StreamClient::start(const std::string& url, const std::string& origin_url,
                         HTTP_REQUEST_METHOD method, const TlsOptions& tls) {
    if (!task_.getPTR()) {
        std::lock_guard<std::mutex> lock(state_->mutex);
        state_->end.ended = true;
        state_->end.error = HTTP_REQUEST_UNDEFINED_ERROR;
        state_->end.message = "out of memory: no streaming task";
        return;
    }
    auto request = kiv_HttpRequest::requestWithUrl(url);
    request->_METHOD = method;
    if (!origin_url.empty()) {
        request->_origin_URL = origin_url;
    }
    apply_tls(tls, request.getPTR());
    task_->start_request(request, &StreamClient::on_delivery, &session_);
    // The layer holds a reference of its own from here on. Without ours, the session's
    // destruction tells when the stream is over, also when it ends without a final delivery.
    session_ = static_cast<Session*>(nullptr);
}

void StreamClient::start_download(const std::string& url, const std::string& origin_url,
                                  PieceHandler on_piece, const TlsOptions& tls) {
    state_->on_piece = std::move(on_piece);
    start(url, origin_url, HTTP_REQUEST_METHOD_CHUNK_DOWN, tls);
}

void StreamClient::start_upload(const std::string& url, const std::string& origin_url,
                                const TlsOptions& tls) {
    start(url, origin_url, HTTP_REQUEST_METHOD_CHUNK_UP, tls);
}

void StreamClient::send(const std::string& bytes, bool last) {
    if (!task_.getPTR()) {
        return;
    }
    kiv_shared_ptr<unsigned char> data;
    if (!bytes.empty()) {
        data = Memory::make_shared_array<unsigned char>(bytes.size());
        memcpy(data.getPTR(), bytes.data(), bytes.size());
    }
    task_->send_data(data, static_cast<long>(bytes.size()), last);
    bytes_queued_ += bytes.size();
}

uint64_t StreamClient::bytes_sent() const {
    return task_.getPTR() ? static_cast<uint64_t>(task_->bytes_sent()) : 0;
}

void StreamClient::cancel() {
    if (task_.getPTR()) {
        task_->cancel();
    }
}

bool StreamClient::wait_end(std::chrono::milliseconds wait, StreamEnd* end) {
    std::unique_lock<std::mutex> lock(state_->mutex);
    bool done = state_->changed.wait_for(lock, wait, [&] { return state_->end.ended; });
    if (end) {
        *end = state_->end;
    }
    return done;
}

bool StreamClient::wait_released(std::chrono::milliseconds wait) {
    session_ = static_cast<Session*>(nullptr);  // a stream never started holds only ours
    std::unique_lock<std::mutex> lock(state_->mutex);
    return state_->changed.wait_for(lock, wait, [&] { return state_->released; });
}

bool StreamClient::wait_over(std::chrono::steady_clock::time_point deadline) {
    std::unique_lock<std::mutex> lock(state_->mutex);
    return state_->changed.wait_until(lock, deadline,
                                      [&] { return state_->end.ended || state_->released; });
}

uint64_t StreamClient::pieces() const {
    std::lock_guard<std::mutex> lock(state_->mutex);
    return state_->pieces;
}

}  // namespace cli
}  // namespace kiv
