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
    // The session pointer handed to the layer is the address of `session_`: keep it valid until
    // the transfer has let go, so a late delivery never reads a dead reference.
    if (task_.getPTR()) {
        task_->cancel();
    }
    task_ = static_cast<kiv_http_request_maker*>(nullptr);
    Session* raw = session_.getPTR();
    std::shared_ptr<State> state = state_;
    session_ = static_cast<Session*>(nullptr);
    (void)raw;
    std::unique_lock<std::mutex> lock(state->mutex);
    state->changed.wait_for(lock, std::chrono::seconds(15), [&] { return state->released; });
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
    state.changed.notify_all();
}

void apply_tls(const TlsOptions& tls, kiv_HttpRequest* request) {
    request->_VERIFY_TLS = !tls.insecure;
    request->_CA_FILE = tls.insecure ? std::string() : tls.cacert;
    request->_PINNED_PUBLIC_KEY = tls.pinned_key;
}

void StreamClient::start(const std::string& url, const std::string& origin_url,
                         HTTP_REQUEST_METHOD method, const TlsOptions& tls) {
    auto request = kiv_HttpRequest::requestWithUrl(url);
    request->_METHOD = method;
    if (!origin_url.empty()) {
        request->_origin_URL = origin_url;
    }
    apply_tls(tls, request.getPTR());
    task_->start_request(request, &StreamClient::on_delivery, &session_);
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
    kiv_shared_ptr<unsigned char> data;
    if (!bytes.empty()) {
        data = Memory::make_shared_array<unsigned char>(bytes.size());
        memcpy(data.getPTR(), bytes.data(), bytes.size());
    }
    task_->send_data(data, static_cast<long>(bytes.size()), last);
    bytes_sent_ += bytes.size();
}

void StreamClient::cancel() {
    task_->cancel();
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
    // Our own reference must go first: the layer's is then the last one.
    {
        std::lock_guard<std::mutex> lock(state_->mutex);
        if (state_->released) {
            return true;
        }
    }
    session_ = static_cast<Session*>(nullptr);
    std::unique_lock<std::mutex> lock(state_->mutex);
    return state_->changed.wait_for(lock, wait, [&] { return state_->released; });
}

uint64_t StreamClient::pieces() const {
    std::lock_guard<std::mutex> lock(state_->mutex);
    return state_->pieces;
}

}  // namespace cli
}  // namespace kiv
