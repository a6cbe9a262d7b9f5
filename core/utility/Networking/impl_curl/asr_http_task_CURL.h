#ifndef KIV_UTILITY_NETWORKING_IMPL_CURL_ASR_HTTP_TASK_CURL_H
#define KIV_UTILITY_NETWORKING_IMPL_CURL_ASR_HTTP_TASK_CURL_H

#include <curl/curl.h>
#include <pthread.h>

#include <cstddef>
#include <string>

#include "core/Audio/PCMQueue.h"
#include "core/EventManager/EventManagerDecChunk.h"
#include "core/utility/Memory/kiv_weak_ptr.h"
#include "core/utility/Networking/kiv_HttpRequestMaker.h"
#include "core/utility/Threads/Synchronization/AppMutex.h"
#include "core/utility/Threads/kiv_Timer_refresh.h"

namespace kiv {
namespace Networking {

// Inactivity limit of a chunked download: the time without a received body piece after which
// the download ends with a timeout delivery.
const int RESPONSE_TIME_OUT_MS = 12000;

// libcurl handle and lists of one streaming transfer, handed from the start operation to the
// worker that runs it. The worker frees the handle and lists; deleting the record frees only the
// record.
typedef struct {
    CURL* curl;
    curl_slist* headers;
    curl_slist* resolve;
} wrap_params;

// Scoped lock on a pthread mutex.
class PthreadLockGuard {
public:
    explicit PthreadLockGuard(pthread_mutex_t& m) : _m(m) {
        pthread_mutex_lock(const_cast<pthread_mutex_t*>(&_m));
    }
    ~PthreadLockGuard() { pthread_mutex_unlock(const_cast<pthread_mutex_t*>(&_m)); }

private:
    PthreadLockGuard();
    PthreadLockGuard(const PthreadLockGuard&);
    PthreadLockGuard& operator=(const PthreadLockGuard&);

    const pthread_mutex_t& _m;
};

// The libcurl task object: one streaming exchange (a chunked upload or a chunked download).
//
// Threads. start_request, send_data and cancel run on caller threads; one pool worker runs the
// whole transfer, every libcurl callback of it, the per-piece deliveries of a download and the
// final delivery; the shared timer thread runs the download timeout and its delivery.
//
// Lifetime. The task holds a weak reference to itself and makes a strong one for every piece of
// work handed to another thread (the worker task, the timeout task, each delivery), so a caller
// may drop its reference at any time: the task lives until its transfer's work is done and
// still makes its final delivery.
//
// Deliveries. A download delivers each body piece as it arrives. A transfer ends with at most
// one final delivery: a transfer error (HTTP_REQUEST_CHUNK_REQ_ERROR), a download timeout
// (HTTP_REQUEST_TIMEOUT), or the server's status (with HTTP_REQUEST_HTTPS_REQ_SUC for a download
// answered 200); a status from 201 through 299 ends it silently. After cancel() no delivery
// starts; one that had already started on the worker may still be running when cancel() returns
// (cancel may be called from inside the callback, so it never waits for one).
//
// Locks. `_timer_mutex` guards `_timer` and is taken before any lock inside the timer.
// `_cond_mutex` guards the upload queue, `_total_size` and `_is_last`. No operation holds both,
// and none is held while the callback runs, so the callback may call cancel() or send_data().
class kiv_HttpTask_impl : public kiv_http_request_maker {
public:
    kiv_HttpTask_impl();
    ~kiv_HttpTask_impl() override;

    // Records the callback, parameter and method, and starts the transfer for
    // HTTP_REQUEST_METHOD_CHUNK_UP or _CHUNK_DOWN on the worker pool; other methods start
    // nothing. `callbackUserParam` is the address of a kiv_shared_ptr<EventManagerDecChunk>
    // (or null), kept alive by the transfer and passed back unchanged. A task carries one
    // streaming request: a second call, or an empty request, is refused with an error line.
    void start_request(kiv::Memory::kiv_shared_ptr<kiv_HttpRequest> request,
                       request_callback_fn callbackFn,
                       kiv::Memory::kiv_shared_ptr_base* callbackUserParam) override;

    // Queues `data_len` upload bytes (the caller's bytes, already gzip-compressed) and sets the
    // end-of-body mark to `is_last`; never waits for the network. Before start_request it does
    // nothing. A negative length, or a null buffer with a positive length, is refused with an
    // error line. `data_len` 0 with `is_last` true ends the body.
    void send_data(kiv::Memory::kiv_shared_ptr<unsigned char>& post_data, long data_len,
                   bool is_last) override;

    // Stops the task from any thread, at any time, any number of times: a waiting upload
    // reader wakes at once, the transfer aborts at its next libcurl callback, the download timer
    // is cancelled, and no delivery starts afterwards.
    void cancel() override;

    // True once the task has ended: cancelled, timed out, or past its final delivery.
    bool isCancelled();

    kiv::Memory::kiv_weak_ptr<kiv_http_request_maker> selfRef;

private:
    friend class kiv_http_request_maker;
    friend struct TaskTestAccess;  // white-box tests of the callbacks and URL functions

    // Driver (worker and timer threads).
    void performRequest(kiv::Memory::kiv_shared_ptr_base* params);
    void timer_callback(kiv::Memory::kiv_shared_ptr_base* resource);
    int dispatchTransfer(kiv::Memory::kiv_shared_ptr<wrap_params>& params);
    // The end guard: true for exactly one caller, the first to end the task.
    bool claimEnd();

    // Chunked upload.
    int uploadChunkStart(kiv::Memory::kiv_shared_ptr<kiv_HttpRequest> request);
    static size_t read_callback(char* buffer, size_t size, size_t nitems, void* instream);
    static size_t header_callback(char* buffer, size_t size, size_t nitems, void* userdata);
    static int chunk_http_progress_cb(void* clientp, double dltotal, double dlnow, double ultotal,
                                      double ulnow);

    // Chunked download.
    int downloadChunkStart(kiv::Memory::kiv_shared_ptr<kiv_HttpRequest> request);
    static size_t write_callback(char* ptr, size_t size, size_t nmemb, void* userdata);
    // First steps shared by both start operations: the record with the handle and the two
    // header lines, then the URL, with HTTPS pinning where the URL asks for it.
    kiv::Memory::kiv_shared_ptr<wrap_params> prepareTransfer(CURL* curl, kiv_HttpRequest* request,
                                                             const char* header1,
                                                             const char* header2);

    // One-shot request callbacks. They run on the calling thread inside curl_easy_perform and
    // touch only the record libcurl hands them.
    // Write function: appends body bytes to the response (`stream`). Never reports a short
    // write; without a response the bytes are dropped with an error line.
    static size_t http_receive_data_cb(void* ptr, size_t size, size_t nmemb, void* stream);
    // Progress function: non-zero (abort) once the request (`clientp`) is cancelled.
    static int http_progress_cb(void* clientp, double dltotal, double dlnow, double ultotal,
                                double ulnow);
    // Header function: records each head line in the response (`userdata`) as name -> value.
    // Lines without a colon (the status line, the closing CR LF) become names with empty values.
    static size_t http_receive_header_cb(char* buffer, size_t size, size_t nitems, void* userdata);

    // Host pinning. Pure functions of their arguments; a failure is the empty string.
    // True when "https" occurs anywhere in `url` (case-sensitive).
    bool containHttps(const char* url);
    // The text between the first "//" (not at position 0) and the next "/".
    std::string getHostFromUrl(std::string url);
    // "host:443:ip" from the host-name URL and the IP URL.
    std::string getResolveDNSMap(std::string hostUrl, char* ipUrl);
    // `ipUrl` with its host text replaced by that of `oriUrl`.
    std::string getHostUrl(std::string oriUrl, char* ipUrl);

    request_callback_fn my_callbackFn;
    kiv::Memory::kiv_shared_ptr_base* _callbackUserParam;
    kiv::Memory::kiv_shared_ptr<kiv::PCMQueue> _upload_data;
    kiv::Memory::kiv_shared_ptr<kiv::Threads::RefreshTimer> _timer;
    // The end guard, shared by the caller's thread, the worker and the timer thread; only ever
    // read and set with atomic operations.
    bool _is_canceled;
    bool _is_last;
    bool _is_https;
    long _total_size;
    kiv::Threads::Synchronization::AppConditionMutex* notEmpty;
    pthread_cond_t _cond;
    pthread_mutex_t _cond_mutex;
    HTTP_REQUEST_METHOD _method;
    kiv::Threads::Synchronization::AppMutex* _timer_mutex;
    kiv::Threads::Synchronization::AppMutex* _audio_queue_mutex;
    // Set by the first start_request, so a task never runs two transfers.
    bool _started;
    // The caller's per-stream object, taken by start_request on the caller's thread (where the
    // parameter is sure to be valid) and handed to the transfer, which holds it to its end.
    kiv::Memory::kiv_shared_ptr<kiv::EventManagerDecChunk> _userParamHold;

    kiv_HttpTask_impl(const kiv_HttpTask_impl&) = delete;
    kiv_HttpTask_impl& operator=(const kiv_HttpTask_impl&) = delete;
};

}  // namespace Networking
}  // namespace kiv

#endif
