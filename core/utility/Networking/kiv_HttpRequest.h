#ifndef KIV_UTILITY_NETWORKING_KIV_HTTPREQUEST_H
#define KIV_UTILITY_NETWORKING_KIV_HTTPREQUEST_H

#include <cstddef>
#include <functional>
#include <map>
#include <string>

#include "core/utility/Memory/kiv_shared_ptr.h"
#include "core/utility/Threads/Synchronization/AppMutex.h"

namespace kiv {
namespace Networking {

enum HTTP_REQUEST_METHOD : int32_t {
    HTTP_REQUEST_METHOD_GET = 0,
    HTTP_REQUEST_METHOD_POST = 1,
    HTTP_REQUEST_METHOD_CHUNK_UP = 2,
    HTTP_REQUEST_METHOD_CHUNK_DOWN = 3,
};

// What a one-shot request's trace sink is told: text about the transfer, or a piece of a request
// or response head as it goes out or comes in (bytes exactly as on the wire).
enum kiv_HttpTraceKind : int32_t {
    KIV_HTTP_TRACE_TEXT = 0,
    KIV_HTTP_TRACE_HEAD_OUT = 1,
    KIV_HTTP_TRACE_HEAD_IN = 2,
};

// What a caller asks for. Made only by requestWithUrl() and always held through kiv_shared_ptr.
// The public fields are written by the caller before the request is handed to the library and
// only read afterwards; cancel() and isCancelled() may be called from any thread at any time.
class kiv_HttpRequest {
public:
    // Both fill `_URL` and `_origin_URL` with the given text; method GET, no time limit, no body,
    // no extra header lines. An empty `url` shared pointer leaves both URL fields empty.
    static kiv::Memory::kiv_shared_ptr<kiv_HttpRequest> requestWithUrl(
        kiv::Memory::kiv_shared_ptr<char> url);
    static kiv::Memory::kiv_shared_ptr<kiv_HttpRequest> requestWithUrl(const std::string& url);
    // Keeps a string literal from being read as a shared buffer; null gives an empty URL.
    static kiv::Memory::kiv_shared_ptr<kiv_HttpRequest> requestWithUrl(const char* url);

    // One-way: marks the request cancelled. The first call also runs the cancellation handler,
    // if one was installed, outside the request's lock.
    void cancel();
    // Non-zero once cancel() has been called. Lock-free: it is polled from inside transfers.
    int isCancelled();

    // Host-name form of the URL; only HTTPS streaming requests read it (host pinning).
    std::string _origin_URL;
    // The URL to connect to, zero-terminated.
    kiv::Memory::kiv_shared_ptr<char> _URL;
    HTTP_REQUEST_METHOD _METHOD;
    // Limit for a whole one-shot transfer in milliseconds; 0 means none.
    long _TIMEOUT_MS;
    // Body of a one-shot POST, read in place by libcurl.
    kiv::Memory::kiv_shared_ptr<unsigned char> _BODY_DATA;
    // Body size; above 0 makes a one-shot request a POST, 0 or less sends no body.
    long _BODY_LENGTH;
    // Extra header lines, sent as "name: value" in key order.
    std::map<std::string, std::string> _HEADER_LIST;

protected:
    kiv_HttpRequest();
    ~kiv_HttpRequest();

    // Told of the first cancel(); the request owns `cancellationHandlerParam` and deletes it.
    void (*cancellationHandlerFunction)(kiv::Memory::kiv_shared_ptr_base*)
        KIV_GUARDED_BY(cancellationMutex);
    kiv::Memory::kiv_shared_ptr_base* cancellationHandlerParam;
    kiv::Threads::Synchronization::AppMutex* cancellationMutex;

private:
    friend class kiv::Memory::kiv_shared_ptr<kiv_HttpRequest>;

    int _isCancelled;

public:
    // TLS verification. With every field below empty or false, "https://" one-shot requests and
    // pinned streaming requests accept any certificate (the historic behaviour, kept for existing
    // callers), and other HTTPS URLs keep libcurl's defaults. Setting any of them makes the
    // transfer verify the server's certificate chain and its name (one-shot and streaming,
    // pinned or not):
    //  - `_VERIFY_TLS`: against the system's CA store (or the CA file/directory below);
    //  - `_CA_FILE` / `_CA_PATH`: against that PEM bundle / hashed CA directory;
    //  - `_PINNED_PUBLIC_KEY` ("sha256//<base64>[;sha256//...]" or a PEM/DER key file): the
    //    server's public key must match. On its own it is the trust anchor: the chain is not
    //    checked then, but the key and the host name are.
    bool _VERIFY_TLS;
    std::string _CA_FILE;
    std::string _CA_PATH;
    std::string _PINNED_PUBLIC_KEY;

    // Upload bound: bytes queued by send_data and not yet taken by libcurl. A piece that would
    // pass it ends the upload with an error delivery instead of growing memory without limit.
    // 0 or less means the default, 64 MiB.
    long _UPLOAD_QUEUE_LIMIT;

    // One-shot extras (the streaming paths ignore them).
    // Follow up to this many redirects (0: none, the default).
    long _MAX_REDIRECTS;
    // Request method to send instead of GET/POST (for example "PUT", "DELETE", "HEAD").
    std::string _CUSTOM_METHOD;
    // When set, body bytes go to the sink as they arrive instead of into the response, so a
    // large body never sits in memory. Return false to abort the transfer (local error
    // HTTP_REQUEST_ABORTED). Runs on the calling thread inside execute().
    std::function<bool(const char* data, size_t len)> _BODY_SINK;
    // When set, told of the request and response heads as they cross the wire, and of
    // libcurl's notes about the transfer (what `curl -v` prints). Runs on the calling thread.
    std::function<void(kiv_HttpTraceKind kind, const char* data, size_t len)> _TRACE_SINK;

private:
    kiv_HttpRequest(const kiv_HttpRequest&) = delete;
    kiv_HttpRequest& operator=(const kiv_HttpRequest&) = delete;
};

}  // namespace Networking
}  // namespace kiv

#endif
