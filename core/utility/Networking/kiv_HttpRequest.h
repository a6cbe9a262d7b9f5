#ifndef KIV_UTILITY_NETWORKING_KIV_HTTPREQUEST_H
#define KIV_UTILITY_NETWORKING_KIV_HTTPREQUEST_H

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
    void (*cancellationHandlerFunction)(kiv::Memory::kiv_shared_ptr_base*);
    kiv::Memory::kiv_shared_ptr_base* cancellationHandlerParam;
    kiv::Threads::Synchronization::AppMutex* cancellationMutex;

private:
    friend class kiv::Memory::kiv_shared_ptr<kiv_HttpRequest>;

    int _isCancelled;

    kiv_HttpRequest(const kiv_HttpRequest&) = delete;
    kiv_HttpRequest& operator=(const kiv_HttpRequest&) = delete;
};

}  // namespace Networking
}  // namespace kiv

#endif
