#ifndef KIV_UTILITY_NETWORKING_KIV_HTTPREQUESTMAKER_H
#define KIV_UTILITY_NETWORKING_KIV_HTTPREQUESTMAKER_H

#include <cstdint>

#include "core/utility/Memory/kiv_shared_ptr.h"
#include "core/utility/Networking/kiv_HttpRequest.h"
#include "core/utility/Networking/kiv_HttpResponse.h"

namespace kiv {
namespace Networking {

class kiv_http_request_maker;

// Completion callback of a streaming request: called on a library thread (a pool worker, or the
// timer thread for a timeout) with a strong reference to the task, the response of this
// delivery and the caller's parameter: the address of a reference the layer holds to the
// caller's object (null when the caller passed null), valid during the call; turn it into a
// reference of your own with copyControlObject() to keep the object. All three are valid only
// during the call: copy the shared pointers to keep them.
//
// What the callback may do: call cancel() or send_data() on any task (this one included: no
// lock of the task is held, and cancel() from inside it returns at once), drop its references,
// start other requests. What it must not do: block for long (a download reads no more of the
// body meanwhile; a timeout delivery holds up the shared timer thread), or block on a thread
// that may be inside cancel() of the same task (cancel() waits for a running delivery).
// An exception thrown out of it is caught by the layer at its boundary with libcurl, logged, and
// ends the transfer as an error would; it never unwinds through libcurl.
typedef void (*request_callback_fn)(kiv::Memory::kiv_shared_ptr<kiv_http_request_maker>& maker,
                                    kiv::Memory::kiv_shared_ptr<kiv_HttpResponse>& response,
                                    kiv::Memory::kiv_shared_ptr_base* userParam);

// The entry point of the HTTP layer.
class kiv_http_request_maker {
public:
    virtual ~kiv_http_request_maker() {}

    // Starts a streaming exchange (HTTP_REQUEST_METHOD_CHUNK_UP or _CHUNK_DOWN) and returns at
    // once; results arrive through `callbackFn`.
    virtual void start_request(kiv::Memory::kiv_shared_ptr<kiv_HttpRequest> request,
                               request_callback_fn callbackFn,
                               kiv::Memory::kiv_shared_ptr_base* callbackUserParam) = 0;
    // Queues upload bytes; `is_last` marks the end of the body.
    virtual void send_data(kiv::Memory::kiv_shared_ptr<unsigned char>& post_data, long data_len,
                           bool is_last) = 0;
    // Stops the task from any thread; nothing is delivered afterwards.
    virtual void cancel() = 0;
    // Upload bytes handed to libcurl so far (0 for other tasks).
    virtual int64_t bytes_sent() { return 0; }

    // A new, independent streaming task; the caller holds the only strong reference. Empty
    // (with an error line) only when memory for it cannot be had.
    static kiv::Memory::kiv_shared_ptr<kiv_http_request_maker> get_instance();

    // One GET (or POST, when `_BODY_LENGTH` > 0) run to its end on the calling thread.
    // Returns an empty pointer for an unusable request (no request, no URL text, a positive body
    // length without body bytes). Otherwise the response carries the HTTP status when libcurl
    // completed the transfer, HTTP_REQUEST_ABORTED when the request was cancelled, and neither
    // for any other failure (connect, TLS, time limit); body bytes and header lines received
    // before an abort or failure are kept; a libcurl failure also carries libcurl's code and
    // error text (get_curl_code(), get_curl_error()). "https://" URLs (exactly that prefix) are
    // fetched without certificate verification unless the request asks for verification (its
    // TLS fields). Safe on many threads at once. Never throws: running out of memory gives an
    // empty pointer.
    static kiv::Memory::kiv_shared_ptr<kiv_HttpResponse> execute(
        kiv::Memory::kiv_shared_ptr<kiv_HttpRequest> request);
};

}  // namespace Networking
}  // namespace kiv

#endif
