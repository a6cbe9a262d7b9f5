#include "core/utility/Networking/impl_curl/asr_http_task_CURL.h"

#include <sys/time.h>

#include <cstring>
#include <string>

#include "core/EventManager/EventManagerDecChunk.h"
#include "core/utility/Memory/singleton.h"
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

// Sets the host-pinning options in their fixed order.
void set_pinning(CURL* curl, curl_slist* hostMap, const std::string& url) {
    curl_easy_setopt(curl, CURLOPT_RESOLVE, hostMap);
    curl_easy_setopt(curl, CURLOPT_SSL_VERIFYHOST, 2L);
    curl_easy_setopt(curl, CURLOPT_SSL_VERIFYPEER, 0L);
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
}

}  // namespace

kiv_shared_ptr<kiv_http_request_maker> kiv_http_request_maker::get_instance() {
    KIV_LOG(5, "[DEBUG]-[%s][%s:21][asr_http_task_CURL::get_instance] +\n");
    kiv_shared_ptr<kiv_HttpTask_impl> task(new kiv_HttpTask_impl());
    kiv_shared_ptr<kiv_http_request_maker> result;
    result.copyControlObject(&task);
    if (result.getPTR()) {
        // Before anyone else can see the task, so selfRef is read without a lock afterwards.
        task->selfRef = result;
    }
    task = static_cast<kiv_HttpTask_impl*>(nullptr);
    KIV_LOG(5, "[DEBUG]-[%s][%s:28][asr_http_task_CURL::get_instance] -\n");
    return result;
}

kiv_shared_ptr<kiv_HttpResponse> kiv_http_request_maker::execute(
    kiv_shared_ptr<kiv_HttpRequest> request) {
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

    CURL* curl_handle = curl_easy_init();
    long status = 200;

    curl_slist* header = nullptr;
    std::string line;
    for (const auto& entry : req->_HEADER_LIST) {
        line.assign(entry.first).append(": ").append(entry.second);
        header = curl_slist_append(header, line.c_str());
    }

    KIV_LOG(5, "[DEBUG]-[%s][%s:86][ASRHttpTask::execute] url = %s\n", url);

    kiv_shared_ptr<kiv_HttpResponse> response = kiv_HttpResponse::alloc();
    CURLcode curl_return_code = CURLE_FAILED_INIT;

    if (curl_handle) {
        if (strncmp(url, "https://", 8) == 0) {
            curl_easy_setopt(curl_handle, CURLOPT_SSL_VERIFYPEER, 0L);
            curl_easy_setopt(curl_handle, CURLOPT_SSL_VERIFYHOST, 0L);
        }
        curl_easy_setopt(curl_handle, CURLOPT_NOSIGNAL, 1L);
        curl_easy_setopt(curl_handle, CURLOPT_URL, url);
        curl_easy_setopt(curl_handle, CURLOPT_VERBOSE, 0L);
        curl_easy_setopt(curl_handle, CURLOPT_TIMEOUT_MS, req->_TIMEOUT_MS);
        curl_easy_setopt(curl_handle, CURLOPT_HTTPHEADER, header);
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

        curl_return_code = curl_easy_perform(curl_handle);
        curl_easy_getinfo(curl_handle, CURLINFO_RESPONSE_CODE, &status);
        curl_easy_cleanup(curl_handle);
    }
    curl_slist_free_all(header);

    KIV_LOG(5,
            "[DEBUG]-[%s][%s:121][ASRHttpTask::execute][curl_code=%d, http_stauts=%ld, "
            "response_len=%d] receive response: %s\n",
            static_cast<int>(curl_return_code), status,
            static_cast<int>(response->get_response_len()), response->get_response_data().getPTR());

    if (curl_return_code == CURLE_OK) {
        response->set_http_status(static_cast<int32_t>(status));
    } else if (curl_return_code == CURLE_ABORTED_BY_CALLBACK) {
        KIV_LOG(5, "[DEBUG]-[%s][%s:126][ASRHttpTask::execute] curl is aborted by call back\n");
        response->set_local_request_error(HTTP_REQUEST_ABORTED);
    } else {
        KIV_LOG(2, "[ERROR]-[%s][%s:129][ASRHttpTask::execute][curl_code=%d] curl error!\n",
                static_cast<int>(curl_return_code));
    }
    return response;
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
    static_cast<kiv_HttpResponse*>(stream)->receive_new_data(static_cast<const char*>(ptr),
                                                             static_cast<uint32_t>(len));
    return len;
}

size_t kiv_HttpTask_impl::http_receive_header_cb(char* buffer, size_t size, size_t nitems,
                                                 void* userdata) {
    const size_t len = size * nitems;
    auto* response = static_cast<kiv_HttpResponse*>(userdata);
    if (!response || !buffer) {
        return len;
    }
    const char* begin = buffer;
    const char* end = buffer + len;
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
      notEmpty(new AppConditionMutex(0)),
      _method(HTTP_REQUEST_METHOD_GET),
      _timer_mutex(nullptr),
      _audio_queue_mutex(nullptr),
      _started(false) {
    pthread_mutex_init(&_cond_mutex, nullptr);
    pthread_cond_init(&_cond, nullptr);
    _timer_mutex = new AppMutex(false);
    _audio_queue_mutex = new AppMutex(false);
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
    return __atomic_load_n(&_is_canceled, __ATOMIC_ACQUIRE);
}

bool kiv_HttpTask_impl::claimEnd() {
    return !__atomic_exchange_n(&_is_canceled, true, __ATOMIC_ACQ_REL);
}

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
    {
        // The queue is swapped under the hand-off lock so that a send_data racing with the
        // start sees either no queue or the new one.
        kiv_shared_ptr<PCMQueue> queue = PCMQueue::newQueue(0);
        PthreadLockGuard lock(_cond_mutex);
        _upload_data = queue;
    }
    my_callbackFn = callbackFn;
    _callbackUserParam = callbackUserParam;
    if (callbackUserParam) {
        _userParamHold.copyControlObject(callbackUserParam);
    }
    _method = request->_METHOD;
    if (_method == HTTP_REQUEST_METHOD_CHUNK_UP) {
        uploadChunkStart(request);
    } else if (_method == HTTP_REQUEST_METHOD_CHUNK_DOWN) {
        downloadChunkStart(request);
    }
}

void kiv_HttpTask_impl::cancel() {
    KIV_LOG(5, "[DEBUG]-[%s][%s:662][kiv_HttpTask_impl::cancel] this=%p +\n",
            static_cast<void*>(this));
    if (claimEnd()) {
        {
            PthreadLockGuard lock(_cond_mutex);
            pthread_cond_broadcast(&_cond);
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
    KIV_LOG(5, "[DEBUG]-[%s][%s:678][kiv_HttpTask_impl::cancel] -\n");
}

// ---------------------------------------------------------------------------------------------
// Driver

void kiv_HttpTask_impl::performRequest(kiv_shared_ptr_base* params) {
    // Keeps the caller's per-stream object alive for the whole transfer. The reference was
    // taken by start_request: the caller's parameter storage may be gone by the time a busy
    // pool starts this transfer.
    kiv_shared_ptr<EventManagerDecChunk> chunk_tmp = _userParamHold;
    _userParamHold = static_cast<EventManagerDecChunk*>(nullptr);
    auto* ps = static_cast<kiv_shared_ptr<wrap_params>*>(params);
    wrap_params* record = ps ? ps->getPTR() : nullptr;
    if (!record || !record->curl) {
        return;  // the start operations never dispatch without a handle
    }
    CURL* curl = record->curl;
    const bool isDownload = _method == HTTP_REQUEST_METHOD_CHUNK_DOWN;

    if (isDownload) {
        KIV_LOG(5, "[DEBUG]-[%s][%s:289][kiv_HttpTask_impl::performRequest]this=%p, set timer\n",
                static_cast<void*>(this));
        AppLock lock(_timer_mutex);
        kiv_shared_ptr<kiv_HttpTask_impl> child;
        child.copyControlObject(&selfRef);
        kiv_shared_ptr<ASRDispatchTaskBase> task(
            new ASRDispatchTaskWithResPointer<kiv_HttpTask_impl>(
                child, &kiv_HttpTask_impl::timer_callback, nullptr));
        _timer = RefreshTimer::createTimerWithTask(task, RESPONSE_TIME_OUT_MS);
    }

    CURLcode code = curl_easy_perform(curl);
    long status = 200;
    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);

    if (isDownload) {
        AppLock lock(_timer_mutex);
        if (_timer.getPTR()) {
            KIV_LOG(5,
                    "[DEBUG]-[%s][%s:309][kiv_HttpTask_impl::performRequest]this=%p, cancel "
                    "timer,  code:%d, status:%d\n",
                    static_cast<void*>(this), static_cast<int>(code), static_cast<int>(status));
            _timer->cancel();
            _timer = static_cast<RefreshTimer*>(nullptr);
        }
    }

    curl_slist_free_all(record->headers);
    if (record->resolve) {
        curl_slist_free_all(record->resolve);
    }
    curl_easy_cleanup(curl);
    record->curl = nullptr;
    record->headers = nullptr;
    record->resolve = nullptr;

    kiv_shared_ptr<kiv_http_request_maker> tmp;
    kiv_shared_ptr<kiv_HttpResponse> resp;
    if (code != CURLE_OK) {
        KIV_LOG(5,
                "[DEBUG]-[%s][%s:325][kiv_HttpTask_impl::performRequest] CURLcode=%d, (_method "
                "== HTTP_REQUEST_METHOD_CHUNK_DOWN) ? %d, this=%p\n",
                static_cast<int>(code), isDownload ? 1 : 0, static_cast<void*>(this));
        resp = kiv_HttpResponse::alloc();
        resp->set_local_request_error(HTTP_REQUEST_CHUNK_REQ_ERROR);
        resp->setErrorMessage("[kiv_Chunk_Connection]downStream encouter error.");
        tmp = selfRef.getPTR();
        if (claimEnd() && tmp.getPTR() && my_callbackFn) {
            my_callbackFn(tmp, resp, _callbackUserParam);
        }
    } else if (status >= 201 && status <= 299) {
        // Accepted without a body worth reporting: the transfer ends silently.
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
        tmp = selfRef.getPTR();
        // The completion takes part in the end guard too: a timeout that fired after libcurl
        // returned, or a cancel() that came first, has already ended the task, and a task makes
        // at most one final delivery.
        if (claimEnd() && tmp.getPTR() && my_callbackFn) {
            my_callbackFn(tmp, resp, _callbackUserParam);
        }
    }
    tmp = static_cast<kiv_http_request_maker*>(nullptr);
    resp = static_cast<kiv_HttpResponse*>(nullptr);
    chunk_tmp = static_cast<EventManagerDecChunk*>(nullptr);
}

void kiv_HttpTask_impl::timer_callback(kiv_shared_ptr_base*) {
    KIV_LOG(5, "[DEBUG]-[%s][%s:359][kiv_HttpTask_impl::timer_callback]this=%p\n",
            static_cast<void*>(this));
    if (isCancelled()) {
        return;
    }
    kiv_shared_ptr<kiv_HttpResponse> resp = kiv_HttpResponse::alloc();
    resp->set_local_request_error(HTTP_REQUEST_TIMEOUT);
    resp->setErrorMessage("[kiv_httptask_impl] downStream timeout.");
    kiv_shared_ptr<kiv_http_request_maker> ret = selfRef.getPTR();
    // Setting the flag also makes the transfer's progress callback abort libcurl (even without a
    // callback to tell); the worker's error path then finds the task ended and stays silent.
    if (claimEnd() && ret.getPTR() && my_callbackFn) {
        KIV_LOG(5, "[DEBUG]-[%s][%s:371][kiv_HttpTask_impl::timer_callback]bf call cb this=%p\n",
                static_cast<void*>(this));
        my_callbackFn(ret, resp, _callbackUserParam);
    }
}

int kiv_HttpTask_impl::dispatchTransfer(kiv_shared_ptr<wrap_params>& params) {
    kiv_shared_ptr<kiv_HttpTask_impl> child;
    child.copyControlObject(&selfRef);
    kiv_shared_ptr<ASRDispatchTaskBase> task(new ASRDispatchTaskWithResPointer<kiv_HttpTask_impl>(
        child, &kiv_HttpTask_impl::performRequest, &params));
    kiv_shared_ptr<GlobalThreadPool> pool = kiv::Memory::Singleton<GlobalThreadPool>::instance();
    pool->runTaskAsync(task);
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

std::string kiv_HttpTask_impl::getHostFromUrl(std::string url) {
    int32_t hostStart = 0;
    int32_t posEnd = 0;
    if (!find_host(url, hostStart, posEnd)) {
        return std::string();
    }
    return url.substr(static_cast<size_t>(hostStart), static_cast<size_t>(posEnd - hostStart));
}

std::string kiv_HttpTask_impl::getResolveDNSMap(std::string hostUrl, char* ipUrl) {
    std::string host = getHostFromUrl(std::move(hostUrl));
    std::string ip = getHostFromUrl(ipUrl ? std::string(ipUrl) : std::string());
    if (host.empty() || ip.empty()) {
        return std::string();
    }
    return host + ":443:" + ip;
}

std::string kiv_HttpTask_impl::getHostUrl(std::string oriUrl, char* ipUrl) {
    std::string host = getHostFromUrl(std::move(oriUrl));
    std::string url = ipUrl ? std::string(ipUrl) : std::string();
    int32_t hostStart = 0;
    int32_t posEnd = 0;
    if (!find_host(url, hostStart, posEnd)) {
        return std::string();
    }
    url.replace(static_cast<size_t>(hostStart), static_cast<size_t>(posEnd - hostStart), host);
    return url;
}

kiv_shared_ptr<wrap_params> kiv_HttpTask_impl::prepareTransfer(CURL* curl, kiv_HttpRequest* request,
                                                               const char* header1,
                                                               const char* header2) {
    kiv_shared_ptr<wrap_params> params(new wrap_params());
    params->curl = curl;
    params->headers = curl_slist_append(curl_slist_append(nullptr, header1), header2);
    params->resolve = nullptr;
    // A request without URL text gets an empty URL, which libcurl refuses: the transfer then
    // fails on the worker and the error delivery reports it.
    static char kNoUrl[1] = {0};
    char* ipUrl = request->_URL.getPTR() ? request->_URL.getPTR() : kNoUrl;
    _is_https = containHttps(ipUrl);
    if (_is_https) {
        std::string resolveDNSMap = getResolveDNSMap(request->_origin_URL, ipUrl);
        curl_slist* hostMap = curl_slist_append(nullptr, resolveDNSMap.c_str());
        params->resolve = hostMap;
        // libcurl copies the URL text when the option is set, so a local string is enough.
        set_pinning(curl, hostMap, getHostUrl(request->_origin_URL, ipUrl));
    } else {
        curl_easy_setopt(curl, CURLOPT_URL, ipUrl);
    }
    return params;
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
    if (!task) {
        return 0;
    }
    for (;;) {
        PthreadLockGuard lock(task->_cond_mutex);
        if (task->isCancelled()) {
            KIV_LOG(5,
                    "[DEBUG]-[%s][%s:497][kiv_HttpTask_impl::read_callback] "
                    "strong->_is_canceled\n");
            return 0;
        }
        int relDeq = 0;
        if (task->_total_size != 0) {
            long relBytes = static_cast<long>(max_bytes) < task->_total_size
                                ? static_cast<long>(max_bytes)
                                : task->_total_size;
            relDeq = task->_upload_data->dequeSamples(reinterpret_cast<uint8_t*>(buffer),
                                                      static_cast<int>(relBytes), false);
            task->_total_size -= relDeq;
        }
        if (task->_is_last) {
            if (relDeq > 0) {
                KIV_LOG(5, "[DEBUG]-[%s][%s:518][QS]1relDeq=%d\n", relDeq);
                return static_cast<size_t>(relDeq);
            }
            if (task->_total_size <= 0) {
                return 0;  // ends the chunked body
            }
            continue;
        }
        if (relDeq > 0) {
            KIV_LOG(5, "[DEBUG]-[%s][%s:536][QS]2relDeq=%d\n", relDeq);
            return static_cast<size_t>(relDeq);
        }
        // Nothing queued yet: sleep until send_data or cancel broadcasts, at most 10 ms, so a
        // missed wake-up costs one slice, never a hang.
        timeval current_time;
        gettimeofday(&current_time, nullptr);
        timespec out_of_time;
        long nsec = current_time.tv_usec * 1000L + 10L * 1000L * 1000L;
        out_of_time.tv_sec = current_time.tv_sec + nsec / 1000000000L;
        out_of_time.tv_nsec = nsec % 1000000000L;
        pthread_cond_timedwait(&task->_cond, &task->_cond_mutex, &out_of_time);
    }
}

size_t kiv_HttpTask_impl::header_callback(char*, size_t size, size_t nitems, void*) {
    return size * nitems;
}

int kiv_HttpTask_impl::chunk_http_progress_cb(void* clientp, double, double, double, double) {
    if (!clientp) {
        return 1;
    }
    return static_cast<kiv_HttpTask_impl*>(clientp)->isCancelled() ? 1 : 0;
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
    _upload_data->queueAudio(post_data.getPTR(), static_cast<int>(data_len));
    _total_size += data_len;
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

    return dispatchTransfer(params);
}

size_t kiv_HttpTask_impl::write_callback(char* ptr, size_t size, size_t nmemb, void* userdata) {
    auto* self = static_cast<kiv_weak_ptr<kiv_http_request_maker>*>(userdata);
    kiv_shared_ptr<kiv_HttpTask_impl> strong;
    strong.copyControlObject(self);
    kiv_HttpTask_impl* task = strong.getPTR();
    if (!task) {
        return 0;
    }
    {
        AppLock lock(task->_timer_mutex);
        if (task->_timer.getPTR()) {
            KIV_LOG(5,
                    "[DEBUG]-[%s][%s:610][kiv_HttpTask_impl::write_callback]this=%p, refresh "
                    "timer\n",
                    static_cast<void*>(task));
            task->_timer->refresh();
        } else {
            KIV_LOG(5, "[DEBUG]-[%s][%s:613][kiv_HttpTask_impl::write_callback]this=%p, no timer\n",
                    static_cast<void*>(task));
        }
    }
    const size_t bytes = size * nmemb;
    kiv_shared_ptr<kiv_HttpResponse> response = kiv_HttpResponse::alloc();
    response->receive_new_data(ptr, static_cast<uint32_t>(bytes));
    if (task->isCancelled()) {
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
    kiv_shared_ptr<kiv_http_request_maker> maker(*self);
    if (task->my_callbackFn) {
        task->my_callbackFn(maker, response, task->_callbackUserParam);
    }
    return bytes;
}

}  // namespace Networking
}  // namespace kiv
