#include "core/utility/Networking/kiv_HttpRequest.h"

#include <cstring>

#include "core/utility/Threads/Synchronization/AppLock.h"

namespace kiv {
namespace Networking {

using kiv::Memory::kiv_shared_ptr;
using kiv::Threads::Synchronization::AppLock;
using kiv::Threads::Synchronization::AppMutex;

kiv_HttpRequest::kiv_HttpRequest()
    : _METHOD(HTTP_REQUEST_METHOD_GET),
      _TIMEOUT_MS(0),
      _BODY_LENGTH(0),
      cancellationHandlerFunction(nullptr),
      cancellationHandlerParam(nullptr),
      cancellationMutex(new AppMutex(false)),
      _isCancelled(0),
      _VERIFY_TLS(false),
      _UPLOAD_QUEUE_LIMIT(0),
      _MAX_REDIRECTS(0) {}

kiv_HttpRequest::~kiv_HttpRequest() {
    delete cancellationHandlerParam;
    delete cancellationMutex;
}

kiv_shared_ptr<kiv_HttpRequest> kiv_HttpRequest::requestWithUrl(kiv_shared_ptr<char> url) {
    kiv_shared_ptr<kiv_HttpRequest> request =
        kiv_shared_ptr<kiv_HttpRequest>::adoptNew(new kiv_HttpRequest());
    request->_URL = url;
    if (url.getPTR()) {
        request->_origin_URL = url.getPTR();
    }
    return request;
}

kiv_shared_ptr<kiv_HttpRequest> kiv_HttpRequest::requestWithUrl(const std::string& url) {
    kiv_shared_ptr<char> text = kiv::Memory::make_shared_array<char>(url.size() + 1);
    memcpy(text.getPTR(), url.c_str(), url.size() + 1);
    return requestWithUrl(text);
}

kiv_shared_ptr<kiv_HttpRequest> kiv_HttpRequest::requestWithUrl(const char* url) {
    if (!url) {
        return requestWithUrl(kiv_shared_ptr<char>());
    }
    return requestWithUrl(std::string(url));
}

void kiv_HttpRequest::cancel() {
    void (*handler)(kiv::Memory::kiv_shared_ptr_base*) = nullptr;
    {
        AppLock lock(cancellationMutex);
        if (__atomic_exchange_n(&_isCancelled, 1, __ATOMIC_ACQ_REL) == 0) {
            handler = cancellationHandlerFunction;
        }
    }
    // Outside the lock: a handler that cancels something else, or this request again, must not
    // deadlock. The parameter lives until the request does.
    if (handler) {
        handler(cancellationHandlerParam);
    }
}

int kiv_HttpRequest::isCancelled() {
    return __atomic_load_n(&_isCancelled, __ATOMIC_ACQUIRE);
}

}  // namespace Networking
}  // namespace kiv
