#include "core/utility/Networking/impl_curl/asr_http_task_CURL.h"

#include <cxxabi.h>
#include <strings.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <exception>
#include <memory>
#include <string>

#include "core/EventManager/EventManagerDecChunk.h"
#include "core/utility/Memory/singleton.h"
#include "core/utility/Networking/impl_curl/host_pinning.h"
#include "core/utility/Threads/AppThreadTask.h"
#include "core/utility/Threads/GlobalThreadPool.h"
#include "core/utility/Threads/Synchronization/AppLock.h"
#include "core/utility/kiv_log.h"

namespace kiv {
namespace Networking {

using kiv::Memory::kiv_shared_ptr;
using kiv::Memory::kiv_shared_ptr_base;
using kiv::Memory::kiv_weak_ptr;
using kiv::Threads::ASRDispatchTaskBase;
using kiv::Threads::ASRDispatchTaskWithResPointer;
using kiv::Threads::GlobalThreadPool;
using kiv::Threads::RefreshTimer;
using kiv::Threads::Synchronization::AppConditionMutex;
using kiv::Threads::Synchronization::AppLock;
using kiv::Threads::Synchronization::AppMutex;

namespace {

// libcurl marks the double-valued progress function deprecated, but it is the one this layer
// installs; the warning is silenced here and nowhere else.
template <typename Callback>
void set_progress_function(CURL* handle, Callback callback) {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
    curl_easy_setopt(handle, CURLOPT_PROGRESSFUNCTION, callback);
#pragma GCC diagnostic pop
}

// The body of every chunked download: one zero byte, alive for the whole process.
const char kDownloadBody[1] = {0};

const char kTransferErrorMessage[] = "[kiv_Chunk_Connection]downStream encouter error.";

// The delivery gate's bits (see `_gate`).
constexpr uint32_t kCancelled = 1;
constexpr uint32_t kEnded = 2;
constexpr uint32_t kWaiter = 4;
constexpr uint32_t kOneDelivery = 8;
constexpr int kDeliveryShift = 3;

// What a start operation returns when the request's URLs cannot be used (besides 0 for
// started, -999 for no libcurl handle and -1 for no worker).
constexpr int kStartBadUrl = -2;

// Bytes an upload may hold queued and unsent when the request sets no limit of its own.
constexpr long kDefaultUploadQueueLimit = 64L * 1024 * 1024;
// How much of an upload's reply body the final delivery carries.
constexpr size_t kUploadReplyLimit = size_t{1024} * 1024;
// An upload reader waiting for bytes sleeps until send_data, the last mark or cancel() wakes
// it; all three change the state under the lock it waits with, so no wake-up can be missed.
// The deadline is only a safety net and costs one wake-up per idle upload every few seconds.
constexpr long kReaderSafetyWaitMs = 5000;

// The task whose delivery this thread is running: cancel() from inside a delivery must not wait
// for that delivery to finish.
thread_local const kiv_HttpTask_impl* tl_delivering = nullptr;

// Appends one line to a libcurl list. On failure the list is left as it was (curl_slist_append
// returns null then, and overwriting the list with it would lose every earlier line).
bool append_line(curl_slist*& list, const char* line) {
    curl_slist* longer = curl_slist_append(list, line);
    if (!longer) {
        return false;
    }
    list = longer;
    return true;
}

// Certificate verification asked for by the request's TLS fields; nothing when none is set,
// so the fixed behaviour of each path stays as it was. Set after a path's own options, which it
// overrides.
void set_verification(CURL* curl, const kiv_HttpRequest& request) {
    const bool ca = !request._CA_FILE.empty() || !request._CA_PATH.empty();
    const bool pin = !request._PINNED_PUBLIC_KEY.empty();
    if (!request._VERIFY_TLS && !ca && !pin) {
        return;
    }
    // A pinned key alone is the trust anchor: the chain need not lead to a known CA, but the key
    // (checked by libcurl whatever VERIFYPEER says) and the host name must match.
    curl_easy_setopt(curl, CURLOPT_SSL_VERIFYPEER, (request._VERIFY_TLS || ca) ? 1L : 0L);
    curl_easy_setopt(curl, CURLOPT_SSL_VERIFYHOST, 2L);
    if (!request._CA_FILE.empty()) {
        curl_easy_setopt(curl, CURLOPT_CAINFO, request._CA_FILE.c_str());
    }
    if (!request._CA_PATH.empty()) {
        curl_easy_setopt(curl, CURLOPT_CAPATH, request._CA_PATH.c_str());
    }
    if (pin) {
        curl_easy_setopt(curl, CURLOPT_PINNEDPUBLICKEY, request._PINNED_PUBLIC_KEY.c_str());
    }
}

// What a one-shot request with a body sink hands its write function.
struct BodySink {
    kiv_HttpRequest* request;
    bool refused;
};

size_t sink_body(char* ptr, size_t size, size_t nmemb, void* userdata) {
    auto* sink = static_cast<BodySink*>(userdata);
    const size_t len = size * nmemb;
    try {
        if (sink->request->_BODY_SINK(ptr, len)) {
            return len;
        }
    } catch (abi::__forced_unwind&) {
        throw;
    } catch (...) {
        KIV_LOG(2, "[ERROR]-[%s][%s:150][ASRHttpTask::execute] body sink threw\n");
    }
    sink->refused = true;
    return 0;
}

int trace_transfer(CURL*, curl_infotype type, char* data, size_t size, void* userdata) {
    auto* request = static_cast<kiv_HttpRequest*>(userdata);
    kiv_HttpTraceKind kind;
    switch (type) {
        case CURLINFO_TEXT:
            kind = KIV_HTTP_TRACE_TEXT;
            break;
        case CURLINFO_HEADER_OUT:
            kind = KIV_HTTP_TRACE_HEAD_OUT;
            break;
        case CURLINFO_HEADER_IN:
            kind = KIV_HTTP_TRACE_HEAD_IN;
            break;
        default:
            return 0;
    }
    try {
        request->_TRACE_SINK(kind, data, size);
    } catch (abi::__forced_unwind&) {
        throw;
    } catch (...) {
        // A trace sink that throws loses its own lines; the transfer goes on.
    }
    return 0;
}

// The monotonic clock, `ms` from now.
timespec monotonic_after(long ms) {
    timespec at;
    clock_gettime(CLOCK_MONOTONIC, &at);
    long nsec = at.tv_nsec + (ms % 1000) * 1000000L;
    at.tv_sec += ms / 1000 + nsec / 1000000000L;
    at.tv_nsec = nsec % 1000000000L;
    return at;
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// The libcurl holder

void wrap_params::release() {
    if (headers) {
        curl_slist_free_all(headers);
        headers = nullptr;
    }
    if (resolve) {
        curl_slist_free_all(resolve);
        resolve = nullptr;
    }
    if (curl) {
        curl_easy_cleanup(curl);
        curl = nullptr;
    }
}

std::string wrap_params::errorText(CURLcode code) const {
    if (code == CURLE_OK) {
        return std::string();
    }
    std::string text(errorBuffer ? errorBuffer : "",
                     errorBuffer ? strnlen(errorBuffer, CURL_ERROR_SIZE) : 0);
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) {
        text.pop_back();
    }
    return text.empty() ? std::string(curl_easy_strerror(code)) : text;
}

// ---------------------------------------------------------------------------------------------
// One-shot request

kiv_shared_ptr<kiv_http_request_maker> kiv_http_request_maker::get_instance() {
    KIV_LOG(5, "[DEBUG]-[%s][%s:21][asr_http_task_CURL::get_instance] +\n");
    kiv_shared_ptr<kiv_http_request_maker> result;
    try {
        kiv_shared_ptr<kiv_HttpTask_impl> task =
            kiv_shared_ptr<kiv_HttpTask_impl>::adoptNew(new kiv_HttpTask_impl());
        result.copyControlObject(&task);
        if (result.getPTR()) {
            // Before anyone else can see the task, so selfRef is read without a lock afterwards.
            task->selfRef = result;
        }
        task = static_cast<kiv_HttpTask_impl*>(nullptr);
    } catch (const std::bad_alloc&) {
        KIV_LOG(2, "[ERROR]-[%s][%s:25][asr_http_task_CURL::get_instance] out of memory\n");
        return kiv_shared_ptr<kiv_http_request_maker>();
    }
    KIV_LOG(5, "[DEBUG]-[%s][%s:28][asr_http_task_CURL::get_instance] -\n");
    return result;
}

kiv_shared_ptr<kiv_HttpResponse> kiv_http_request_maker::execute(
    kiv_shared_ptr<kiv_HttpRequest> request) try {
    kiv_HttpRequest* req = request.getPTR();
    if (!req) {
        KIV_LOG(2, "[ERROR]-[%s][%s:35][ASRHttpTask::execute] request is NULL\n");
        return kiv_shared_ptr<kiv_HttpResponse>();
    }
    const char* url = req->_URL.getPTR();
    if (!url || url[0] == '\0') {
        KIV_LOG(2, "[ERROR]-[%s][%s:42][ASRHttpTask::execute] URL is NULL or empty\n");
        return kiv_shared_ptr<kiv_HttpResponse>();
    }
    const bool hasBody = req->_BODY_LENGTH > 0;
    if (hasBody && !req->_BODY_DATA.getPTR()) {
        // libcurl would fall back to reading the body from stdin.
        KIV_LOG(2, "[ERROR]-[%s][%s:47][ASRHttpTask::execute] body length %ld without body data\n",
                req->_BODY_LENGTH);
        return kiv_shared_ptr<kiv_HttpResponse>();
    }

    wrap_params transfer;  // frees the handle and the list on every way out
    char errors[CURL_ERROR_SIZE] = {};
    transfer.errorBuffer = errors;
    transfer.curl = curl_easy_init();
    long status = 200;

    bool headersComplete = true;
    std::string line;
    for (const auto& entry : req->_HEADER_LIST) {
        line.assign(entry.first).append(": ").append(entry.second);
        headersComplete = headersComplete && append_line(transfer.headers, line.c_str());
    }

    KIV_LOG(5, "[DEBUG]-[%s][%s:86][ASRHttpTask::execute] url = %s\n", url);

    kiv_shared_ptr<kiv_HttpResponse> response = kiv_HttpResponse::alloc();
    CURLcode curl_return_code = CURLE_FAILED_INIT;
    BodySink sink{req, false};

    if (transfer.curl && !headersComplete) {
        curl_return_code = CURLE_OUT_OF_MEMORY;  // never send a request without its header lines
    } else if (CURL* curl_handle = transfer.curl) {
        if (strncmp(url, "https://", 8) == 0) {
            curl_easy_setopt(curl_handle, CURLOPT_SSL_VERIFYPEER, 0L);
            curl_easy_setopt(curl_handle, CURLOPT_SSL_VERIFYHOST, 0L);
        }
        curl_easy_setopt(curl_handle, CURLOPT_NOSIGNAL, 1L);
        curl_easy_setopt(curl_handle, CURLOPT_URL, url);
        curl_easy_setopt(curl_handle, CURLOPT_VERBOSE, 0L);
        curl_easy_setopt(curl_handle, CURLOPT_TIMEOUT_MS, req->_TIMEOUT_MS);
        curl_easy_setopt(curl_handle, CURLOPT_HTTPHEADER, transfer.headers);
        if (hasBody) {
            curl_easy_setopt(curl_handle, CURLOPT_POSTFIELDS, req->_BODY_DATA.getPTR());
            curl_easy_setopt(curl_handle, CURLOPT_POSTFIELDSIZE, req->_BODY_LENGTH);
        }
        curl_easy_setopt(curl_handle, CURLOPT_WRITEFUNCTION,
                         &kiv_HttpTask_impl::http_receive_data_cb);
        curl_easy_setopt(curl_handle, CURLOPT_PROGRESSDATA, req);
        set_progress_function(curl_handle, &kiv_HttpTask_impl::http_progress_cb);
        curl_easy_setopt(curl_handle, CURLOPT_NOPROGRESS, 0L);
        curl_easy_setopt(curl_handle, CURLOPT_WRITEDATA, response.getPTR());
        curl_easy_setopt(curl_handle, CURLOPT_HEADERFUNCTION,
                         &kiv_HttpTask_impl::http_receive_header_cb);
        curl_easy_setopt(curl_handle, CURLOPT_HEADERDATA, response.getPTR());

        // What the request adds to the fixed steps above.
        curl_easy_setopt(curl_handle, CURLOPT_ERRORBUFFER, transfer.errorBuffer);
        set_verification(curl_handle, *req);
        if (req->_MAX_REDIRECTS > 0) {
            curl_easy_setopt(curl_handle, CURLOPT_FOLLOWLOCATION, 1L);
            curl_easy_setopt(curl_handle, CURLOPT_MAXREDIRS, req->_MAX_REDIRECTS);
        }
        if (!req->_CUSTOM_METHOD.empty()) {
            curl_easy_setopt(curl_handle, CURLOPT_CUSTOMREQUEST, req->_CUSTOM_METHOD.c_str());
            if (req->_CUSTOM_METHOD == "HEAD") {
                curl_easy_setopt(curl_handle, CURLOPT_NOBODY, 1L);
            }
        }
        if (req->_BODY_SINK) {
            curl_easy_setopt(curl_handle, CURLOPT_WRITEFUNCTION, &sink_body);
            curl_easy_setopt(curl_handle, CURLOPT_WRITEDATA, &sink);
        }
        if (req->_TRACE_SINK) {
            curl_easy_setopt(curl_handle, CURLOPT_DEBUGFUNCTION, &trace_transfer);
            curl_easy_setopt(curl_handle, CURLOPT_DEBUGDATA, req);
            curl_easy_setopt(curl_handle, CURLOPT_VERBOSE, 1L);
        }

        curl_return_code = curl_easy_perform(curl_handle);
        curl_easy_getinfo(curl_handle, CURLINFO_RESPONSE_CODE, &status);
    }
    std::string curlError = transfer.errorText(curl_return_code);
    transfer.release();

    KIV_LOG(5,
            "[DEBUG]-[%s][%s:121][ASRHttpTask::execute][curl_code=%d, http_stauts=%ld, "
            "response_len=%d] receive response: %s\n",
            static_cast<int>(curl_return_code), status,
            static_cast<int>(response->get_response_len()), response->get_response_data().getPTR());

    if (curl_return_code == CURLE_OK) {
        response->set_http_status(static_cast<int32_t>(status));
        return response;
    }
    response->set_curl_error(static_cast<int32_t>(curl_return_code), std::move(curlError));
    if (curl_return_code == CURLE_ABORTED_BY_CALLBACK || sink.refused) {
        KIV_LOG(5, "[DEBUG]-[%s][%s:126][ASRHttpTask::execute] curl is aborted by call back\n");
        response->set_local_request_error(HTTP_REQUEST_ABORTED);
    } else {
        KIV_LOG(2, "[ERROR]-[%s][%s:129][ASRHttpTask::execute][curl_code=%d] curl error!\n",
                static_cast<int>(curl_return_code));
    }
    return response;
} catch (abi::__forced_unwind&) {
    throw;
} catch (const std::exception& e) {
    KIV_LOG(2, "[ERROR]-[%s][%s:133][ASRHttpTask::execute] failed: %s\n", e.what());
    return kiv_shared_ptr<kiv_HttpResponse>();
} catch (...) {
    KIV_LOG(2, "[ERROR]-[%s][%s:136][ASRHttpTask::execute] failed\n");
    return kiv_shared_ptr<kiv_HttpResponse>();
}

int kiv_HttpTask_impl::http_progress_cb(void* clientp, double, double, double, double) {
    if (!clientp) {
        return 1;
    }
    return static_cast<kiv_HttpRequest*>(clientp)->isCancelled() ? 1 : 0;
}

size_t kiv_HttpTask_impl::http_receive_data_cb(void* ptr, size_t size, size_t nmemb, void* stream) {
    size_t len = size * nmemb;
    if (!stream) {
        KIV_LOG(2, "[ERROR]-[%s][%s:143][ASRHttpTask::http_receive_data_cb] response is NULL\n");
        return len;
    }
    try {
        static_cast<kiv_HttpResponse*>(stream)->receive_new_data(static_cast<const char*>(ptr),
                                                                 static_cast<uint32_t>(len));
    } catch (const std::bad_alloc&) {
        return 0;  // the body cannot be kept: end the transfer (a write error) rather than lie
    }
    return len;
}

size_t kiv_HttpTask_impl::http_receive_header_cb(char* buffer, size_t size, size_t nitems,
                                                 void* userdata) try {
    const size_t len = size * nitems;
    auto* response = static_cast<kiv_HttpResponse*>(userdata);
    if (!response || !buffer) {
        return len;
    }
    const char* begin = buffer;
    const char* end = buffer + len;
    const char* lineEnd = end;
    while (lineEnd > begin && (lineEnd[-1] == '\n' || lineEnd[-1] == '\r')) {
        --lineEnd;
    }
    response->add_header_line(std::string(begin, lineEnd));

    const char* separator = buffer;
    while (separator < end && *separator != ':' && *separator != '\0') {
        ++separator;
    }
    if (separator == end || *separator != ':') {
        // No colon first: the status line or the closing empty line, kept whole as a name.
        response->setResponseHeader(std::string(begin, separator), std::string());
        return len;
    }
    std::string key(begin, separator);
    const char* valueStart = separator + 1;
    while (valueStart < end && (*valueStart == ' ' || *valueStart == '\t')) {
        ++valueStart;
    }
    const char* valueEnd = valueStart;
    while (valueEnd < end && *valueEnd != '\r' && *valueEnd != '\n' && *valueEnd != '\0') {
        ++valueEnd;
    }
    std::string value(valueStart, valueEnd);
    KIV_LOG(6, "[TRACE]-[%s][%s:204]HEADER_KEY: %s, VALUE: %s\n\n", key.c_str(), value.c_str());
    response->setResponseHeader(std::move(key), std::move(value));
    return len;
} catch (const std::bad_alloc&) {
    return 0;  // a head that cannot be recorded ends the transfer
}

}  // namespace Networking
}  // namespace kiv

// ---------------------------------------------------------------------------------------------
// Task object

namespace kiv {
namespace Networking {

kiv_HttpTask_impl::kiv_HttpTask_impl()
    : my_callbackFn(nullptr),
      _callbackUserParam(nullptr),
      _is_canceled(false),
      _is_last(false),
      _is_https(false),
      _total_size(0),
      notEmpty(nullptr),
      _method(HTTP_REQUEST_METHOD_GET),
      _timer_mutex(nullptr),
      _audio_queue_mutex(nullptr),
      _started(false),
      _hasUserParam(false),
      _transferParam(nullptr),
      _gate(0),
      _upload_failed{false},
      _refused_bytes(0),
      _queue_limit(kDefaultUploadQueueLimit),
      _bytes_sent(0),
      _socket(CURL_SOCKET_BAD) {
    // Everything that can fail is made first, so a failure leaks nothing (the members above
    // are destroyed by the language, the ones below by the holders).
    auto condition = std::make_unique<AppConditionMutex>(0);
    auto timerMutex = std::make_unique<AppMutex>(false);
    auto queueMutex = std::make_unique<AppMutex>(false);
    // The final delivery never needs memory: when a response cannot be made at the end, this
    // one reports the error instead.
    _spare_final = kiv_HttpResponse::alloc();
    _spare_final->set_local_request_error(HTTP_REQUEST_CHUNK_REQ_ERROR);
    _spare_final->setErrorMessage(kTransferErrorMessage);

    pthread_mutex_init(&_cond_mutex, nullptr);
    // The upload reader's deadlines are on the monotonic clock, so a wall-clock change can
    // neither stall it nor make it spin.
    pthread_condattr_t attributes;
    pthread_condattr_init(&attributes);
    pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);
    pthread_cond_init(&_cond, &attributes);
    pthread_condattr_destroy(&attributes);
    notEmpty = condition.release();
    _timer_mutex = timerMutex.release();
    _audio_queue_mutex = queueMutex.release();
}

kiv_HttpTask_impl::~kiv_HttpTask_impl() {
    delete notEmpty;
    delete _timer_mutex;
    delete _audio_queue_mutex;
    pthread_mutex_destroy(&_cond_mutex);
    pthread_cond_destroy(&_cond);
    _timer = static_cast<RefreshTimer*>(nullptr);
    _upload_data = static_cast<PCMQueue*>(nullptr);
    selfRef = kiv_weak_ptr<kiv_http_request_maker>();
}

bool kiv_HttpTask_impl::isCancelled() {
    return (_gate.load(std::memory_order_acquire) & kEnded) != 0;
}

int64_t kiv_HttpTask_impl::bytes_sent() {
    return _bytes_sent.load(std::memory_order_relaxed);
}

// ---------------------------------------------------------------------------------------------
// The delivery gate
//
// Every delivery is admitted by one compare-and-swap on `_gate` that fails once the task has
// ended, and counted while it runs; cancel() ends the task with one atomic OR and then waits for
// the count to drain. So a delivery either was admitted before cancel()'s OR, and cancel() waits
// for it, or it is refused: none can start after cancel() has returned. The slow path (a thread
// waiting for running deliveries) uses `notEmpty`; `kWaiter` tells a leaving delivery that
// someone may be waiting, so the common path takes no lock at all.

bool kiv_HttpTask_impl::enterDelivery(bool final) {
    uint32_t gate = _gate.load(std::memory_order_acquire);
    for (;;) {
        if (gate & kEnded) {
            return false;
        }
        const uint32_t next = (gate + kOneDelivery) | (final ? kEnded : 0u);
        if (_gate.compare_exchange_weak(gate, next, std::memory_order_acq_rel,
                                        std::memory_order_acquire)) {
            break;
        }
    }
    if (!final) {
        return true;
    }
    __atomic_store_n(&_is_canceled, true, __ATOMIC_RELEASE);
    // A piece delivery still running on another thread (the worker, while the timer thread
    // times the download out) finishes first: a final delivery is the last one the caller sees,
    // and two deliveries of one task never run at once.
    waitDeliveries(1);
    if (_gate.load(std::memory_order_acquire) & kCancelled) {
        leaveDelivery();
        return false;
    }
    return true;
}

void kiv_HttpTask_impl::leaveDelivery() {
    const uint32_t before = _gate.fetch_sub(kOneDelivery, std::memory_order_acq_rel);
    if (before & kWaiter) {
        notEmpty->lock();
        notEmpty->broadcast();
        notEmpty->unlock();
    }
}

void kiv_HttpTask_impl::waitDeliveries(uint32_t allowed) {
    if ((_gate.load(std::memory_order_acquire) >> kDeliveryShift) <= allowed) {
        return;
    }
    notEmpty->lock();
    _gate.fetch_or(kWaiter, std::memory_order_acq_rel);
    while ((_gate.load(std::memory_order_acquire) >> kDeliveryShift) > allowed) {
        notEmpty->wait();
    }
    notEmpty->unlock();
}

bool kiv_HttpTask_impl::endSilently() {
    const uint32_t before = _gate.fetch_or(kEnded, std::memory_order_acq_rel);
    __atomic_store_n(&_is_canceled, true, __ATOMIC_RELEASE);
    return (before & kEnded) == 0;
}

bool kiv_HttpTask_impl::deliver(kiv_shared_ptr<kiv_HttpResponse>& response,
                                kiv_shared_ptr_base* param) {
    // Leaves the gate on every way out, a thread cancellation unwinding through here included.
    struct Admitted {
        kiv_HttpTask_impl* task;
        const kiv_HttpTask_impl* outer;
        explicit Admitted(kiv_HttpTask_impl* t) : task(t), outer(tl_delivering) {
            tl_delivering = t;
        }
        ~Admitted() {
            tl_delivering = outer;
            task->leaveDelivery();
        }
    } admitted(this);

    kiv_shared_ptr<kiv_http_request_maker> maker = selfRef.getPTR();
    if (!maker.getPTR() || !my_callbackFn) {
        return true;
    }
    try {
        my_callbackFn(maker, response, param);
        return true;
    } catch (abi::__forced_unwind&) {
        throw;
    } catch (const std::exception& e) {
        KIV_LOG(2, "[ERROR]-[%s][%s:380][kiv_HttpTask_impl::deliver] this=%p callback threw: %s\n",
                static_cast<void*>(this), e.what());
    } catch (...) {
        KIV_LOG(2, "[ERROR]-[%s][%s:383][kiv_HttpTask_impl::deliver] this=%p callback threw\n",
                static_cast<void*>(this));
    }
    return false;
}

void kiv_HttpTask_impl::deliverError(int32_t curlCode, const std::string& curlError,
                                     kiv_shared_ptr_base* param) {
    if (!enterDelivery(true)) {
        return;
    }
    kiv_shared_ptr<kiv_HttpResponse> resp;
    try {
        resp = kiv_HttpResponse::alloc();
        resp->set_local_request_error(HTTP_REQUEST_CHUNK_REQ_ERROR);
        resp->setErrorMessage(kTransferErrorMessage);
    } catch (const std::bad_alloc&) {
        resp = _spare_final;  // made with the task, for exactly this
    }
    try {
        resp->set_curl_error(curlCode, curlError);
    } catch (const std::bad_alloc&) {
        // The code is set; only its text is lost.
    }
    deliver(resp, param);
}

// ---------------------------------------------------------------------------------------------
// Start and cancel

void kiv_HttpTask_impl::start_request(kiv_shared_ptr<kiv_HttpRequest> request,
                                      request_callback_fn callbackFn,
                                      kiv_shared_ptr_base* callbackUserParam) {
    if (!request.getPTR()) {
        KIV_LOG(2,
                "[ERROR]-[%s][%s:700][kiv_HttpTask_impl::start_request] request is NULL, "
                "this=%p\n",
                static_cast<void*>(this));
        return;
    }
    if (__atomic_exchange_n(&_started, true, __ATOMIC_ACQ_REL)) {
        KIV_LOG(2,
                "[ERROR]-[%s][%s:705][kiv_HttpTask_impl::start_request] already started, "
                "this=%p\n",
                static_cast<void*>(this));
        return;
    }
    my_callbackFn = callbackFn;
    _callbackUserParam = callbackUserParam;
    _hasUserParam = callbackUserParam != nullptr;
    _method = request->_METHOD;
    if (request->_UPLOAD_QUEUE_LIMIT > 0) {
        _queue_limit = request->_UPLOAD_QUEUE_LIMIT;
    }
    int started = 0;
    int32_t failure = CURLE_OK;
    const char* reason = "";
    try {
        if (callbackUserParam) {
            _userParamHold.copyControlObject(callbackUserParam);
        }
        // Installed last and under the hand-off lock: a send_data racing with the start sees
        // either no queue (and does nothing) or the queue with everything above in place.
        kiv_shared_ptr<PCMQueue> queue = PCMQueue::newQueue(0);
        {
            PthreadLockGuard lock(_cond_mutex);
            _upload_data = queue;
        }
        if (_method == HTTP_REQUEST_METHOD_CHUNK_UP) {
            started = uploadChunkStart(request);
        } else if (_method == HTTP_REQUEST_METHOD_CHUNK_DOWN) {
            started = downloadChunkStart(request);
        } else {
            _userParamHold = static_cast<EventManagerDecChunk*>(nullptr);
            return;
        }
        if (started == -999) {
            failure = CURLE_FAILED_INIT;
            reason = "init curl failed";
        } else if (started == kStartBadUrl) {
            failure = CURLE_URL_MALFORMAT;
            reason = _pin_failure.c_str();
        } else if (started != 0) {
            reason = "no worker thread could be started for the transfer";
        }
    } catch (abi::__forced_unwind&) {
        throw;
    } catch (const std::exception&) {
        started = -1;
        failure = CURLE_OUT_OF_MEMORY;
        reason = "out of memory while starting the transfer";
    }
    if (started == 0) {
        return;
    }
    // Nothing was handed to a worker: this thread owns the caller's object and makes the one
    // final delivery that every started exchange gets.
    KIV_LOG(2, "[ERROR]-[%s][%s:740][kiv_HttpTask_impl::start_request] this=%p not started: %s\n",
            static_cast<void*>(this), reason);
    kiv_shared_ptr<EventManagerDecChunk> hold = _userParamHold;
    _userParamHold = static_cast<EventManagerDecChunk*>(nullptr);
    std::string text;
    try {
        text = reason;
    } catch (const std::bad_alloc&) {
    }
    deliverError(failure, text, _hasUserParam ? &hold : nullptr);
}

void kiv_HttpTask_impl::cancel() {
    KIV_LOG(5, "[DEBUG]-[%s][%s:662][kiv_HttpTask_impl::cancel] this=%p +\n",
            static_cast<void*>(this));
    const uint32_t before = _gate.fetch_or(kCancelled | kEnded, std::memory_order_acq_rel);
    __atomic_store_n(&_is_canceled, true, __ATOMIC_RELEASE);
    if (!(before & kEnded)) {
        {
            PthreadLockGuard lock(_cond_mutex);
            pthread_cond_broadcast(&_cond);
            // libcurl looks at the progress function only about once a second while it waits on
            // a socket (a peer that reads nothing, or sends nothing): shutting the connection
            // down wakes it now, and the transfer ends within milliseconds instead.
            if (_socket != CURL_SOCKET_BAD) {
                shutdown(_socket, SHUT_RDWR);
            }
        }
        AppLock lock(_timer_mutex);
        if (_timer.getPTR()) {
            KIV_LOG(5,
                    "[DEBUG]-[%s][%s:673][kiv_HttpTask_impl::timer_callback]this=%p, cancel "
                    "timer\n",
                    static_cast<void*>(this));
            _timer->cancel();
            _timer = static_cast<RefreshTimer*>(nullptr);
        }
    }
    if (tl_delivering != this) {
        waitDeliveries(0);
    }
    KIV_LOG(5, "[DEBUG]-[%s][%s:678][kiv_HttpTask_impl::cancel] -\n");
}

// ---------------------------------------------------------------------------------------------
// Driver

void kiv_HttpTask_impl::performRequest(kiv_shared_ptr_base* params) {
    // The layer's own reference to the caller's per-stream object: deliveries pass its address,
    // so the caller's variable may be long gone. Taken by start_request, where the caller's
    // parameter was sure to be valid; it lives until this function returns (and, through the
    // timeout task's copy, until a timeout delivery is over).
    kiv_shared_ptr<EventManagerDecChunk> chunk_tmp = _userParamHold;
    _userParamHold = static_cast<EventManagerDecChunk*>(nullptr);
    kiv_shared_ptr_base* param = _hasUserParam ? &chunk_tmp : nullptr;
    auto* ps = static_cast<kiv_shared_ptr<wrap_params>*>(params);
    wrap_params* record = ps ? ps->getPTR() : nullptr;
    if (!record || !record->curl) {
        deliverError(CURLE_FAILED_INIT, "no transfer to run", param);
        return;
    }
    CURL* curl = record->curl;
    const bool isDownload = _method == HTTP_REQUEST_METHOD_CHUNK_DOWN;
    _transferParam = param;

    CURLcode code = CURLE_OK;
    long status = 200;
    bool timerFired = false;
    try {
        if (isDownload) {
            KIV_LOG(5,
                    "[DEBUG]-[%s][%s:289][kiv_HttpTask_impl::performRequest]this=%p, set timer\n",
                    static_cast<void*>(this));
            AppLock lock(_timer_mutex);
            kiv_shared_ptr<kiv_HttpTask_impl> child;
            child.copyControlObject(&selfRef);
            // The timeout task carries its own reference to the caller's object, for the
            // timeout delivery, which may run after this function has returned.
            kiv_shared_ptr<ASRDispatchTaskBase> task =
                kiv_shared_ptr<ASRDispatchTaskBase>::adoptNew(
                    new ASRDispatchTaskWithResPointer<kiv_HttpTask_impl>(
                        child, &kiv_HttpTask_impl::timer_callback, param));
            _timer = RefreshTimer::createTimerWithTask(task, RESPONSE_TIME_OUT_MS);
        }
    } catch (const std::bad_alloc&) {
        code = CURLE_OUT_OF_MEMORY;
    }

    char errors[CURL_ERROR_SIZE] = {};
    record->errorBuffer = errors;
    curl_easy_setopt(curl, CURLOPT_ERRORBUFFER, errors);
    if (code == CURLE_OK) {
        code = curl_easy_perform(curl);
        curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
    }

    if (isDownload) {
        AppLock lock(_timer_mutex);
        if (_timer.getPTR()) {
            KIV_LOG(5,
                    "[DEBUG]-[%s][%s:309][kiv_HttpTask_impl::performRequest]this=%p, cancel "
                    "timer,  code:%d, status:%d\n",
                    static_cast<void*>(this), static_cast<int>(code), static_cast<int>(status));
            // A timer that is no longer armed has fired: the timer thread makes (or made) the
            // timeout delivery, which is this transfer's final one.
            timerFired = !_timer->cancel();
            _timer = static_cast<RefreshTimer*>(nullptr);
        }
    }
    _transferParam = nullptr;

    kiv_shared_ptr<kiv_http_request_maker> tmp;
    kiv_shared_ptr<kiv_HttpResponse> resp;
    try {
        std::string curlError = record->errorText(code);
        std::string reply = std::move(record->reply);
        record->release();
        record->errorBuffer = nullptr;  // it lives in this frame

        if (timerFired) {
            // The timeout delivery belongs to the timer thread.
        } else if (code != CURLE_OK) {
            KIV_LOG(5,
                    "[DEBUG]-[%s][%s:325][kiv_HttpTask_impl::performRequest] CURLcode=%d, "
                    "(_method == HTTP_REQUEST_METHOD_CHUNK_DOWN) ? %d, this=%p\n",
                    static_cast<int>(code), isDownload ? 1 : 0, static_cast<void*>(this));
            {
                PthreadLockGuard lock(_cond_mutex);
                if (_upload_failed) {
                    char text[160];
                    snprintf(text, sizeof text,
                             "upload abandoned: the queue refused a piece of %ld bytes (limit "
                             "%ld bytes queued)",
                             _refused_bytes, _queue_limit);
                    curlError = text;
                }
            }
            deliverError(static_cast<int32_t>(code), curlError, param);
        } else if (status >= 201 && status <= 299) {
            // Accepted without a body worth reporting: the transfer ends silently.
            endSilently();
        } else {
            KIV_LOG(5,
                    "[DEBUG]-[%s][%s:342][kiv_HttpTask_impl::performRequest] (_method == "
                    "HTTP_REQUEST_METHOD_CHUNK_DOWN) ? %d, status=%d\n",
                    isDownload ? 1 : 0, static_cast<int>(status));
            resp = kiv_HttpResponse::alloc();
            resp->set_http_status(static_cast<int32_t>(status));
            if (status == 200 && isDownload) {
                resp->set_local_request_error(HTTP_REQUEST_HTTPS_REQ_SUC);
            }
            resp->receive_new_data(reply.data(), static_cast<uint32_t>(reply.size()));
            // The completion takes part in the end guard too: a timeout that fired after
            // libcurl returned, or a cancel() that came first, has already ended the task, and a
            // task makes at most one final delivery.
            if (enterDelivery(true)) {
                deliver(resp, param);
            }
        }
    } catch (const std::bad_alloc&) {
        // No response could be made for the final delivery: the error delivery (which never
        // needs memory) reports that instead.
        record->release();
        if (!timerFired) {
            deliverError(CURLE_OUT_OF_MEMORY, std::string(), param);
        }
    }
    tmp = static_cast<kiv_http_request_maker*>(nullptr);
    resp = static_cast<kiv_HttpResponse*>(nullptr);
    chunk_tmp = static_cast<EventManagerDecChunk*>(nullptr);
}

void kiv_HttpTask_impl::timer_callback(kiv_shared_ptr_base* resource) {
    KIV_LOG(5, "[DEBUG]-[%s][%s:359][kiv_HttpTask_impl::timer_callback]this=%p\n",
            static_cast<void*>(this));
    if (isCancelled()) {
        return;
    }
    kiv_shared_ptr<kiv_http_request_maker> ret = selfRef.getPTR();
    // Ending the task also makes the transfer's progress callback abort libcurl (even without a
    // callback to tell); the worker then finds the timer fired and stays silent.
    if (!enterDelivery(true)) {
        return;
    }
    kiv_shared_ptr<kiv_HttpResponse> resp;
    try {
        resp = kiv_HttpResponse::alloc();
        resp->setErrorMessage("[kiv_httptask_impl] downStream timeout.");
    } catch (const std::bad_alloc&) {
        resp = _spare_final;  // its message is the transfer error's; the local error says timeout
    }
    resp->set_local_request_error(HTTP_REQUEST_TIMEOUT);
    if (ret.getPTR() && my_callbackFn) {
        KIV_LOG(5, "[DEBUG]-[%s][%s:371][kiv_HttpTask_impl::timer_callback]bf call cb this=%p\n",
                static_cast<void*>(this));
    }
    deliver(resp, resource);
}

int kiv_HttpTask_impl::dispatchTransfer(kiv_shared_ptr<wrap_params>& params) {
    kiv_shared_ptr<kiv_HttpTask_impl> child;
    child.copyControlObject(&selfRef);
    kiv_shared_ptr<ASRDispatchTaskBase> task = kiv_shared_ptr<ASRDispatchTaskBase>::adoptNew(
        new ASRDispatchTaskWithResPointer<kiv_HttpTask_impl>(
            child, &kiv_HttpTask_impl::performRequest, &params));
    kiv_shared_ptr<GlobalThreadPool> pool = kiv::Memory::Singleton<GlobalThreadPool>::instance();
    if (!pool.getPTR() || !pool->runTaskAsync(task)) {
        // Refused (no worker can be started, or the process is exiting): dropping the task
        // frees the transfer's libcurl objects with it.
        return -1;
    }
    return 0;
}

// ---------------------------------------------------------------------------------------------
// Host pinning

bool kiv_HttpTask_impl::containHttps(const char* url) {
    return url && strstr(url, "https") != nullptr;
}

namespace {

// Finds the host text of `url`: [start, end) between the first "//" (not at position 0) and the
// next "/". Positions are signed 32-bit; false when either delimiter is missing.
bool find_host(const std::string& url, int32_t& hostStart, int32_t& posEnd) {
    size_t head = url.find("//");
    if (head == std::string::npos || head == 0) {
        return false;
    }
    size_t end = url.find('/', head + 2);
    if (end == std::string::npos) {
        return false;
    }
    hostStart = static_cast<int32_t>(head + 2);
    posEnd = static_cast<int32_t>(end);
    return true;
}

}  // namespace

// NOLINTNEXTLINE(performance-unnecessary-value-param): the layer's fixed signature
std::string kiv_HttpTask_impl::getHostFromUrl(std::string url) {
    int32_t hostStart = 0;
    int32_t posEnd = 0;
    if (!find_host(url, hostStart, posEnd)) {
        return std::string();
    }
    return url.substr(static_cast<size_t>(hostStart), static_cast<size_t>(posEnd - hostStart));
}

// NOLINTNEXTLINE(performance-unnecessary-value-param): the layer's fixed signature
std::string kiv_HttpTask_impl::getResolveDNSMap(std::string hostUrl, char* ipUrl) {
    pinning::PinnedTarget target;
    std::string why;
    if (!ipUrl || !pinning::pin_target(hostUrl, ipUrl, &target, &why)) {
        return std::string();
    }
    return target.resolve;
}

// NOLINTNEXTLINE(performance-unnecessary-value-param): the layer's fixed signature
std::string kiv_HttpTask_impl::getHostUrl(std::string oriUrl, char* ipUrl) {
    pinning::PinnedTarget target;
    std::string why;
    if (!ipUrl || !pinning::pin_target(oriUrl, ipUrl, &target, &why)) {
        return std::string();
    }
    return target.url;
}

kiv_shared_ptr<wrap_params> kiv_HttpTask_impl::prepareTransfer(CURL* curl, kiv_HttpRequest* request,
                                                               const char* header1,
                                                               const char* header2) {
    kiv_shared_ptr<wrap_params> params;
    try {
        params = kiv_shared_ptr<wrap_params>::adoptNew(new wrap_params());
    } catch (const std::bad_alloc&) {
        curl_easy_cleanup(curl);
        throw;
    }
    params->curl = curl;  // owned by the record from here on
    if (!append_line(params->headers, header1) || !append_line(params->headers, header2)) {
        throw std::bad_alloc();
    }
    // A request without URL text gets an empty URL, which libcurl refuses: the transfer then
    // fails on the worker and the error delivery reports it.
    static char kNoUrl[1] = {0};
    char* ipUrl = request->_URL.getPTR() ? request->_URL.getPTR() : kNoUrl;
    pinning::UrlParts parts;
    const bool httpsScheme =
        pinning::split_url(ipUrl, &parts) && strcasecmp(parts.scheme.c_str(), "https") == 0;
    _is_https = containHttps(ipUrl) || httpsScheme;
    // Without a host-name form of its own (none, or the same text, as requestWithUrl leaves
    // it), an HTTPS URL is connected to directly: there is nothing to pin.
    const std::string& origin = request->_origin_URL;
    if (_is_https && !origin.empty() && origin != ipUrl) {
        pinning::PinnedTarget target;
        if (!pinning::pin_target(origin, ipUrl, &target, &_pin_failure)) {
            KIV_LOG(2, "[ERROR]-[%s][%s:470][kiv_HttpTask_impl::prepareTransfer] this=%p %s\n",
                    static_cast<void*>(this), _pin_failure.c_str());
            return kiv_shared_ptr<wrap_params>();  // frees the handle and the list
        }
        if (!append_line(params->resolve, target.resolve.c_str())) {
            throw std::bad_alloc();
        }
        curl_easy_setopt(curl, CURLOPT_RESOLVE, params->resolve);
        curl_easy_setopt(curl, CURLOPT_SSL_VERIFYHOST, 2L);
        curl_easy_setopt(curl, CURLOPT_SSL_VERIFYPEER, 0L);
        // libcurl copies the URL text when the option is set, so a local string is enough.
        curl_easy_setopt(curl, CURLOPT_URL, target.url.c_str());
    } else {
        curl_easy_setopt(curl, CURLOPT_URL, ipUrl);
    }
    return params;
}

void kiv_HttpTask_impl::setOptionsAfterTheFixedList(CURL* curl, const kiv_HttpRequest& request) {
    set_verification(curl, request);
    // libcurl has closed every socket of the handle by the time the worker releases the record,
    // so the task outlives both callbacks.
    curl_easy_setopt(curl, CURLOPT_SOCKOPTFUNCTION, &kiv_HttpTask_impl::socket_opened);
    curl_easy_setopt(curl, CURLOPT_SOCKOPTDATA, this);
    curl_easy_setopt(curl, CURLOPT_CLOSESOCKETFUNCTION, &kiv_HttpTask_impl::socket_closing);
    curl_easy_setopt(curl, CURLOPT_CLOSESOCKETDATA, this);
}

int kiv_HttpTask_impl::socket_opened(void* clientp, curl_socket_t fd, curlsocktype) {
    auto* task = static_cast<kiv_HttpTask_impl*>(clientp);
    PthreadLockGuard lock(task->_cond_mutex);
    if (task->isCancelled()) {
        return CURL_SOCKOPT_ERROR;
    }
    task->_socket = fd;
    return CURL_SOCKOPT_OK;
}

int kiv_HttpTask_impl::socket_closing(void* clientp, curl_socket_t fd) {
    auto* task = static_cast<kiv_HttpTask_impl*>(clientp);
    {
        PthreadLockGuard lock(task->_cond_mutex);
        if (task->_socket == fd) {
            task->_socket = CURL_SOCKET_BAD;
        }
    }
    return close(fd);
}

// ---------------------------------------------------------------------------------------------
// Chunked upload

int kiv_HttpTask_impl::uploadChunkStart(kiv_shared_ptr<kiv_HttpRequest> request) {
    CURL* curl = curl_easy_init();
    if (!curl) {
        KIV_LOG(2, "[ERROR]-[%s][%s:434]init curl failed\n");
        return -999;
    }
    kiv_shared_ptr<wrap_params> params = prepareTransfer(
        curl, request.getPTR(), "Transfer-Encoding: chunked", "Content-Encoding: gzip");
    if (!params.getPTR()) {
        return kStartBadUrl;
    }

    curl_easy_setopt(curl, CURLOPT_POST, 1L);
    curl_easy_setopt(curl, CURLOPT_VERBOSE, 0L);
    curl_easy_setopt(curl, CURLOPT_HEADER, 0L);
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, &kiv_HttpTask_impl::header_callback);
    curl_easy_setopt(curl, CURLOPT_FOLLOWLOCATION, 1L);
    curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, params->headers);
    curl_easy_setopt(curl, CURLOPT_READFUNCTION, &kiv_HttpTask_impl::read_callback);
    curl_easy_setopt(curl, CURLOPT_READDATA, &selfRef);
    curl_easy_setopt(curl, CURLOPT_PROGRESSDATA, this);
    set_progress_function(curl, &kiv_HttpTask_impl::chunk_http_progress_cb);
    curl_easy_setopt(curl, CURLOPT_NOPROGRESS, 0L);

    // A redirect is refused (libcurl's error 47): the streamed body cannot be sent again, and
    // libcurl would follow a 301-303 with a GET, so the final answer would be another request's
    // while the audio went nowhere.
    curl_easy_setopt(curl, CURLOPT_MAXREDIRS, 0L);
    // The server's answer is kept (bounded) for the final delivery.
    params->replyLimit = kUploadReplyLimit;
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, params.getPTR());
    setOptionsAfterTheFixedList(curl, *request.getPTR());

    return dispatchTransfer(params);
}

size_t kiv_HttpTask_impl::read_callback(char* buffer, size_t size, size_t nitems, void* instream) {
    kiv_shared_ptr<kiv_HttpTask_impl> strong;
    strong.copyControlObject(static_cast<kiv_weak_ptr<kiv_http_request_maker>*>(instream));
    kiv_HttpTask_impl* task = strong.getPTR();
    const size_t max_bytes = size * nitems;
    if (max_bytes == 0) {
        KIV_LOG(5, "[DEBUG]-[%s][%s:490][kiv_HttpTask_impl::read_callback] max_bytes < 1\n");
        return 0;
    }
    // Returning 0 would end the chunked body cleanly: the server would receive a complete,
    // valid request holding a partial utterance. Every way of giving up abandons it instead.
    if (!task) {
        return CURL_READFUNC_ABORT;
    }
    PthreadLockGuard lock(task->_cond_mutex);
    for (;;) {
        if (task->isCancelled()) {
            KIV_LOG(5,
                    "[DEBUG]-[%s][%s:497][kiv_HttpTask_impl::read_callback] "
                    "strong->_is_canceled\n");
            return CURL_READFUNC_ABORT;
        }
        if (task->_upload_failed) {
            return CURL_READFUNC_ABORT;
        }
        int relDeq = 0;
        if (task->_total_size > 0) {
            long relBytes = static_cast<long>(max_bytes) < task->_total_size
                                ? static_cast<long>(max_bytes)
                                : task->_total_size;
            relDeq = task->_upload_data->dequeSamples(reinterpret_cast<uint8_t*>(buffer),
                                                      static_cast<int>(relBytes), false);
            if (relDeq <= 0) {
                // The count and the queue disagree: never spin on it, abandon the body.
                KIV_LOG(2,
                        "[ERROR]-[%s][%s:512][kiv_HttpTask_impl::read_callback] queue lost "
                        "%ld bytes\n",
                        task->_total_size);
                return CURL_READFUNC_ABORT;
            }
            task->_total_size -= relDeq;
            task->_bytes_sent.fetch_add(relDeq, std::memory_order_relaxed);
            if (task->_is_last) {
                KIV_LOG(5, "[DEBUG]-[%s][%s:518][QS]1relDeq=%d\n", relDeq);
            } else {
                KIV_LOG(5, "[DEBUG]-[%s][%s:536][QS]2relDeq=%d\n", relDeq);
            }
            return static_cast<size_t>(relDeq);
        }
        if (task->_is_last) {
            return 0;  // every byte is out: this ends the chunked body
        }
        const timespec deadline = monotonic_after(kReaderSafetyWaitMs);
        pthread_cond_timedwait(&task->_cond, &task->_cond_mutex, &deadline);
    }
}

size_t kiv_HttpTask_impl::header_callback(char* buffer, size_t size, size_t nitems,
                                          void* userdata) {
    const size_t len = size * nitems;
    auto* record = static_cast<wrap_params*>(userdata);
    if (record && record->reply.size() < record->replyLimit) {
        const size_t keep = std::min(len, record->replyLimit - record->reply.size());
        try {
            record->reply.append(buffer, keep);
        } catch (const std::bad_alloc&) {
            record->replyLimit = 0;  // the answer cannot be kept; the transfer goes on
        }
    }
    return len;
}

int kiv_HttpTask_impl::chunk_http_progress_cb(void* clientp, double, double, double, double) {
    if (!clientp) {
        return 1;
    }
    auto* task = static_cast<kiv_HttpTask_impl*>(clientp);
    if (task->isCancelled()) {
        return 1;
    }
    // A refused piece abandons the upload, but the reader that acts on it runs only when the
    // socket takes more bytes: against a peer that has stopped reading, the upload would wait
    // for ever. The progress function runs regardless, so it abandons the body too.
    return task->_upload_failed.load(std::memory_order_acquire) ? 1 : 0;
}

void kiv_HttpTask_impl::send_data(kiv_shared_ptr<unsigned char>& post_data, long data_len,
                                  bool is_last) {
    if (data_len < 0 || data_len > INT32_MAX || (data_len > 0 && !post_data.getPTR())) {
        KIV_LOG(2,
                "[ERROR]-[%s][%s:560][kiv_HttpTask_impl::send_data] invalid data: ptr=%p, "
                "len=%ld, this=%p\n",
                static_cast<void*>(post_data.getPTR()), data_len, static_cast<void*>(this));
        return;
    }
    PthreadLockGuard lock(_cond_mutex);
    if (!_upload_data.getPTR()) {
        return;  // not started: nothing to feed
    }
    if (_method != HTTP_REQUEST_METHOD_CHUNK_UP) {
        KIV_LOG(2,
                "[ERROR]-[%s][%s:570][kiv_HttpTask_impl::send_data] not an upload task, %ld "
                "bytes refused, this=%p\n",
                data_len, static_cast<void*>(this));
        return;
    }
    if (isCancelled() || _upload_failed) {
        // A send racing with the end of the stream: nobody will read these bytes.
        KIV_LOG(5,
                "[DEBUG]-[%s][%s:577][kiv_HttpTask_impl::send_data] task ended, %ld bytes "
                "dropped, this=%p\n",
                data_len, static_cast<void*>(this));
        return;
    }
    if (_is_last) {
        KIV_LOG(2,
                "[ERROR]-[%s][%s:583][kiv_HttpTask_impl::send_data] after the last piece, %ld "
                "bytes refused, this=%p\n",
                data_len, static_cast<void*>(this));
        return;
    }
    if (data_len > 0) {
        int queued = -1;
        if (data_len <= _queue_limit - _total_size) {
            try {
                queued = _upload_data->queueAudio(post_data.getPTR(), static_cast<int>(data_len));
            } catch (const std::bad_alloc&) {
                queued = -1;
            }
        }
        if (queued != data_len) {
            // Losing the piece would corrupt the stream; end it instead, with the error
            // delivery (the reader abandons the body when it sees this).
            _upload_failed.store(true, std::memory_order_release);
            _refused_bytes = data_len;
            KIV_LOG(2,
                    "[ERROR]-[%s][%s:600][kiv_HttpTask_impl::send_data] queue refused %ld bytes "
                    "(%ld queued, limit %ld), upload ends, this=%p\n",
                    data_len, _total_size, _queue_limit, static_cast<void*>(this));
            pthread_cond_broadcast(&_cond);
            return;
        }
        _total_size += data_len;
    }
    _is_last = is_last;
    pthread_cond_broadcast(&_cond);
}

// ---------------------------------------------------------------------------------------------
// Chunked download

int kiv_HttpTask_impl::downloadChunkStart(kiv_shared_ptr<kiv_HttpRequest> request) {
    CURL* curl = curl_easy_init();
    if (!curl) {
        KIV_LOG(2, "[ERROR]-[%s][%s:547]init curl failed\n");
        return -999;
    }
    kiv_shared_ptr<wrap_params> params =
        prepareTransfer(curl, request.getPTR(), "Content-Type: application/octet-stream",
                        "Accept-Encoding:gzip,deflate");
    if (!params.getPTR()) {
        return kStartBadUrl;
    }

    curl_easy_setopt(curl, CURLOPT_POST, 1L);
    curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl, CURLOPT_VERBOSE, 0L);
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, params->headers);
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, &kiv_HttpTask_impl::write_callback);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &selfRef);
    curl_easy_setopt(curl, CURLOPT_POSTFIELDS, kDownloadBody);
    curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE, 1L);
    curl_easy_setopt(curl, CURLOPT_PROGRESSDATA, this);
    set_progress_function(curl, &kiv_HttpTask_impl::chunk_http_progress_cb);
    curl_easy_setopt(curl, CURLOPT_NOPROGRESS, 0L);
    setOptionsAfterTheFixedList(curl, *request.getPTR());

    return dispatchTransfer(params);
}

size_t kiv_HttpTask_impl::write_callback(char* ptr, size_t size, size_t nmemb, void* userdata) try {
    auto* self = static_cast<kiv_weak_ptr<kiv_http_request_maker>*>(userdata);
    kiv_shared_ptr<kiv_HttpTask_impl> strong;
    strong.copyControlObject(self);
    kiv_HttpTask_impl* task = strong.getPTR();
    if (!task) {
        return 0;
    }
    bool timerFired = false;
    {
        AppLock lock(task->_timer_mutex);
        if (task->_timer.getPTR()) {
            KIV_LOG(5,
                    "[DEBUG]-[%s][%s:610][kiv_HttpTask_impl::write_callback]this=%p, refresh "
                    "timer\n",
                    static_cast<void*>(task));
            // A timer that cannot be refreshed has fired: the download has timed out even if
            // the timer thread has not said so yet, and this piece is too late.
            timerFired = !task->_timer->refresh();
        } else {
            KIV_LOG(5, "[DEBUG]-[%s][%s:613][kiv_HttpTask_impl::write_callback]this=%p, no timer\n",
                    static_cast<void*>(task));
        }
    }
    const size_t bytes = size * nmemb;
    kiv_shared_ptr<kiv_HttpResponse> response = kiv_HttpResponse::alloc();
    response->receive_new_data(ptr, static_cast<uint32_t>(bytes));
    if (timerFired || !task->enterDelivery(false)) {
        if (can_log(5)) {
            char tmp[128] = {0};
            memcpy(tmp, ptr, bytes < 127 ? bytes : 127);
            KIV_LOG(5,
                    "[DEBUG]-[%s][%s:627][kiv_HttpTask_impl::write_callback] _is_canceled, will "
                    "ret 0, this=%p, res:%s, buf[0-4]:[%0#x, %0#x, %0#x, %0#x, %0#x], len:%d\n",
                    static_cast<void*>(task), tmp,
                    static_cast<int>(static_cast<signed char>(tmp[0])),
                    static_cast<int>(static_cast<signed char>(tmp[1])),
                    static_cast<int>(static_cast<signed char>(tmp[2])),
                    static_cast<int>(static_cast<signed char>(tmp[3])),
                    static_cast<int>(static_cast<signed char>(tmp[4])), static_cast<int>(bytes));
        }
        return 0;
    }
    // A callback that throws ends the transfer like a write error would.
    return task->deliver(response, task->_transferParam) ? bytes : 0;
} catch (const std::bad_alloc&) {
    return 0;  // no response for the piece: ending the transfer beats losing bytes silently
}

}  // namespace Networking
}  // namespace kiv
