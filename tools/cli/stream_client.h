#ifndef KIV_TOOLS_CLI_STREAM_CLIENT_H
#define KIV_TOOLS_CLI_STREAM_CLIENT_H

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>

#include "core/EventManager/EventManagerDecChunk.h"
#include "core/utility/Networking/kiv_HttpRequestMaker.h"

namespace kiv {
namespace cli {

// Certificate checks of a transfer, as curl's flags set them. By default the server's chain and
// name are verified against the system's CA store.
struct TlsOptions {
    bool insecure = false;   // -k: no chain or name check (a pinned key is still checked)
    std::string cacert;      // --cacert FILE: trust these CAs instead of the system's
    std::string pinned_key;  // --pinnedpubkey sha256//...: the server's key must match
};

// Puts `tls` into a request's verification fields.
void apply_tls(const TlsOptions& tls, Networking::kiv_HttpRequest* request);

// How a streaming exchange ended, as its final delivery told it.
struct StreamEnd {
    bool ended = false;  // a final delivery arrived (or the transfer ended silently, see below)
    int32_t status = 0;  // HTTP status; 0 when the transfer failed or timed out
    Networking::HTTP_REQUEST_ERROR error = Networking::HTTP_REQUEST_OK;
    std::string message;
    // libcurl's code and error text when the transfer failed.
    int32_t curl_code = 0;
    std::string curl_error;
    // The server's reply body (an upload's answer, at most its first MiB).
    std::string body;
};

// One streaming exchange of the transport layer (an upload or a download) seen from an
// application: the task, the per-stream object the layer keeps alive, and a wait for the end.
//
// `on_piece` runs on the layer's worker thread for every downloaded piece; it must not block.
// Pieces and the end are reported in the order the layer delivers them.
class StreamClient {
public:
    using PieceHandler = std::function<void(const char* data, size_t size)>;

    StreamClient();
    ~StreamClient();
    StreamClient(const StreamClient&) = delete;
    StreamClient& operator=(const StreamClient&) = delete;

    // Starts a download (pieces go to `on_piece`) or an upload. `origin_url`, when given, is the
    // host-name form of an HTTPS `url` written with an IP address (host pinning).
    void start_download(const std::string& url, const std::string& origin_url,
                        PieceHandler on_piece, const TlsOptions& tls = TlsOptions());
    void start_upload(const std::string& url, const std::string& origin_url,
                      const TlsOptions& tls = TlsOptions());

    // Upload bytes (already gzip-compressed); `last` ends the body.
    void send(const std::string& bytes, bool last);
    void cancel();

    // Waits for the final delivery. A transfer answered 201-299 makes none: `wait_released`
    // notices that the layer let go of the stream instead.
    bool wait_end(std::chrono::milliseconds wait, StreamEnd* end);
    // Waits until the layer has released the per-stream object (its transfer's work is done).
    bool wait_released(std::chrono::milliseconds wait);
    // Waits until `deadline` or, sooner, the end of the stream (a final delivery, or the layer
    // letting go of it); true when the stream is over.
    bool wait_over(std::chrono::steady_clock::time_point deadline);

    uint64_t pieces() const;
    // Upload bytes libcurl has taken from the queue so far (what has gone towards the server).
    uint64_t bytes_sent() const;
    // Upload bytes handed to send() so far.
    uint64_t bytes_queued() const { return bytes_queued_; }

private:
    struct State;
    class Session;

    static void on_delivery(Memory::kiv_shared_ptr<Networking::kiv_http_request_maker>& task,
                            Memory::kiv_shared_ptr<Networking::kiv_HttpResponse>& response,
                            Memory::kiv_shared_ptr_base* param);
    void start(const std::string& url, const std::string& origin_url,
               Networking::HTTP_REQUEST_METHOD method, const TlsOptions& tls);

    std::shared_ptr<State> state_;
    Memory::kiv_shared_ptr<Session> session_;
    Memory::kiv_shared_ptr<Networking::kiv_http_request_maker> task_;
    uint64_t bytes_queued_ = 0;
};

}  // namespace cli
}  // namespace kiv

#endif
