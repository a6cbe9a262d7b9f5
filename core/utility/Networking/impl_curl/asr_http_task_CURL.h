#ifndef KIV_UTILITY_NETWORKING_IMPL_CURL_ASR_HTTP_TASK_CURL_H
#define KIV_UTILITY_NETWORKING_IMPL_CURL_ASR_HTTP_TASK_CURL_H

#include <curl/curl.h>
#include <pthread.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>

#include "core/Audio/PCMQueue.h"
#include "core/EventManager/EventManagerDecChunk.h"
#include "core/utility/Memory/kiv_weak_ptr.h"
#include "core/utility/Networking/kiv_HttpRequestMaker.h"
#include "core/utility/Threads/Synchronization/AppMutex.h"
#include "core/utility/Threads/kiv_Timer_refresh.h"
#include "core/utility/thread_annotations.h"

namespace kiv {
namespace Networking {

// Inactivity limit of a chunked download: the time without a received body piece after which
// the download ends with a timeout delivery.
const int RESPONSE_TIME_OUT_MS = 12000;

// The libcurl objects of one transfer, and their only owner: the easy handle, the request header
// list and the resolve list are freed by the destructor (headers, resolve list, then the handle),
// on every path: a transfer that ran, a start that failed half-way, a queued transfer that never
// ran because the pool went away. A streaming start hands the record to the worker through a
// kiv_shared_ptr; the one-shot request keeps one on its stack.
struct wrap_params {
    CURL* curl = nullptr;
    curl_slist* headers = nullptr;
    curl_slist* resolve = nullptr;
    // libcurl's text for a failed transfer (CURLOPT_ERRORBUFFER): CURL_ERROR_SIZE bytes on the
    // stack of whoever runs the transfer, so an idle stream does not carry them on the heap.
    char* errorBuffer = nullptr;
    // The first bytes of an upload's reply body (the server's answer), up to `replyLimit`.
    std::string reply;
    size_t replyLimit = 0;

    wrap_params() = default;
    ~wrap_params() { release(); }
    // Frees what the record holds, now; the destructor then has nothing left to do.
    void release();
    // libcurl's text for `code`: the error buffer if libcurl filled it, else its description.
    std::string errorText(CURLcode code) const;

    wrap_params(const wrap_params&) = delete;
    wrap_params& operator=(const wrap_params&) = delete;
};

// A pthread mutex the lock analysis knows as a lock (the same type, only annotated).
typedef pthread_mutex_t kiv_pthread_mutex_t KIV_CAPABILITY("mutex");

// Scoped lock on a pthread mutex.
class KIV_SCOPED_CAPABILITY PthreadLockGuard {
public:
    explicit PthreadLockGuard(kiv_pthread_mutex_t& m) KIV_ACQUIRE(m) : _m(m) {
        pthread_mutex_lock(const_cast<pthread_mutex_t*>(&_m));
    }
    ~PthreadLockGuard() KIV_RELEASE() { pthread_mutex_unlock(const_cast<pthread_mutex_t*>(&_m)); }

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
// one final delivery: a transfer error (HTTP_REQUEST_CHUNK_REQ_ERROR, with libcurl's code and
// text), a download timeout (HTTP_REQUEST_TIMEOUT), or the server's status (with
// HTTP_REQUEST_HTTPS_REQ_SUC for a download answered 200, and the reply body for an upload); a
// status from 201 through 299 ends it silently. Nothing is delivered after the final delivery.
// Deliveries of one task never overlap: a final delivery waits for a piece delivery still
// running on another thread.
//
// Cancel. Once cancel() has returned on a thread, no delivery starts any more: cancel() waits
// for a delivery already running on another thread to return. Called from inside a delivery of
// this task it returns at once (the deliveries still stop). So the callback must not block on
// a thread that may be inside cancel() of the same task.
//
// Locks. `_timer_mutex` guards `_timer` and is taken before any lock inside the timer.
// `_cond_mutex` guards the upload queue, `_total_size`, `_is_last` and the upload's failure
// state. No operation holds both, and none is held while the callback runs, so the callback may
// call cancel() or send_data(). Which deliveries may start, and how many are running, is one
// atomic word (`_gate`).
class kiv_HttpTask_impl : public kiv_http_request_maker {
public:
    kiv_HttpTask_impl();
    ~kiv_HttpTask_impl() override;

    // Records the callback, parameter and method, and starts the transfer for
    // HTTP_REQUEST_METHOD_CHUNK_UP or _CHUNK_DOWN on the worker pool; other methods start
    // nothing. A task carries one streaming request: a second call, or an empty request, is
    // refused with an error line.
    //
    // `callbackUserParam` is the address of the caller's kiv_shared_ptr<EventManagerDecChunk>
    // (or null). It is read here, on the caller's thread, and only here: the layer takes its own
    // strong reference to the object, and every delivery passes the address of a reference the
    // layer owns (null stays null), so the caller's variable may go as soon as this returns.
    // The layer's reference is dropped when the task's work ends (the transfer has returned and
    // no delivery is running or can start any more), not when the task object goes: the
    // object's destruction tells the caller that the stream is over.
    //
    // A transfer that cannot be started (no libcurl handle, no worker thread, no memory) still
    // ends with one HTTP_REQUEST_CHUNK_REQ_ERROR delivery, made on this thread before
    // start_request returns.
    void start_request(kiv::Memory::kiv_shared_ptr<kiv_HttpRequest> request,
                       request_callback_fn callbackFn,
                       kiv::Memory::kiv_shared_ptr_base* callbackUserParam) override;

    // Queues `data_len` upload bytes (the caller's bytes, already gzip-compressed); `is_last`
    // marks the end of the body, for good. Never waits for the network. Refused, with an error
    // line and nothing queued: a negative length, a null buffer with a positive length, a task
    // that is not an upload, and any call after the last piece. A piece the queue cannot take
    // (over the request's _UPLOAD_QUEUE_LIMIT, or no memory) ends the upload with one
    // HTTP_REQUEST_CHUNK_REQ_ERROR delivery. Before start_request, and once the task has ended,
    // it does nothing.
    void send_data(kiv::Memory::kiv_shared_ptr<unsigned char>& post_data, long data_len,
                   bool is_last) override;

    // Stops the task from any thread, at any time, any number of times: a waiting upload
    // reader wakes at once, the transfer's connection is shut down (so a transfer waiting on a
    // silent or stalled peer wakes too) and the transfer aborts at its next libcurl callback (an
    // upload's body is abandoned, never completed), the download timer is cancelled, and no
    // delivery starts after this returns (see "Cancel" above).
    void cancel() override;

    // Upload bytes handed to libcurl so far (not merely queued).
    int64_t bytes_sent() override;

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

    // The delivery gate (`_gate`). enterDelivery() admits a delivery unless the task has ended;
    // a final delivery also ends the task (true for exactly one caller) and waits for a piece
    // delivery running on another thread. Every admitted delivery calls leaveDelivery().
    bool enterDelivery(bool final);
    void leaveDelivery();
    // Waits until at most `allowed` deliveries are running.
    void waitDeliveries(uint32_t allowed);
    // Ends the task without a delivery; false if it had already ended.
    bool endSilently();
    // Runs the caller's callback for an admitted delivery: exceptions stop at this boundary
    // (logged; false returned), and cancel() from inside it knows not to wait for itself.
    bool deliver(kiv::Memory::kiv_shared_ptr<kiv_HttpResponse>& response,
                 kiv::Memory::kiv_shared_ptr_base* param);
    // The one error delivery of a transfer that failed, or could not start.
    void deliverError(int32_t curlCode, const std::string& curlError,
                      kiv::Memory::kiv_shared_ptr_base* param);

    // Chunked upload.
    // send_data's work under the hand-off lock; true when the reader must look again.
    bool queuePiece(kiv::Memory::kiv_shared_ptr<unsigned char>& post_data, long data_len,
                    bool is_last);
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
    // Options every streaming transfer sets after its fixed list: the certificate verification
    // the request asks for, and the socket callbacks below.
    void setOptionsAfterTheFixedList(CURL* curl, const kiv_HttpRequest& request);
    // libcurl's socket callbacks (`clientp` is the task): they keep `_socket` while libcurl has
    // the transfer's connection open, so that cancel() can wake a transfer that waits on the
    // network. A socket opened after cancel() is refused.
    static int socket_opened(void* clientp, curl_socket_t fd, curlsocktype purpose);
    static int socket_closing(void* clientp, curl_socket_t fd);

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
    // The resolve entry "host:port:ip" from the host-name URL and the IP URL; the port is the
    // one the IP URL names, else the one the host-name URL names, else 443.
    std::string getResolveDNSMap(std::string hostUrl, char* ipUrl);
    // `ipUrl` with its host replaced by that of `oriUrl` (and the port of the resolve entry
    // when either URL names one).
    std::string getHostUrl(std::string oriUrl, char* ipUrl);

    request_callback_fn my_callbackFn;
    kiv::Memory::kiv_shared_ptr_base* _callbackUserParam;
    kiv::Memory::kiv_shared_ptr<kiv::PCMQueue> _upload_data KIV_GUARDED_BY(_cond_mutex);
    kiv::Memory::kiv_shared_ptr<kiv::Threads::RefreshTimer> _timer KIV_GUARDED_BY(_timer_mutex);
    // The end guard, shared by the caller's thread, the worker and the timer thread; only ever
    // read and set with atomic operations.
    bool _is_canceled;
    bool _is_last KIV_GUARDED_BY(_cond_mutex);
    bool _is_https;
    long _total_size KIV_GUARDED_BY(_cond_mutex);
    // Where a thread waits for running deliveries to finish (the delivery gate's slow path).
    kiv::Threads::Synchronization::AppConditionMutex* notEmpty;
    pthread_cond_t _cond;
    kiv_pthread_mutex_t _cond_mutex;
    HTTP_REQUEST_METHOD _method;
    kiv::Threads::Synchronization::AppMutex* _timer_mutex;
    kiv::Threads::Synchronization::AppMutex* _audio_queue_mutex;
    // Set by the first start_request, so a task never runs two transfers.
    bool _started;
    // The caller's per-stream object, taken by start_request on the caller's thread (where the
    // parameter is sure to be valid) and handed to the transfer, which holds it to its end.
    kiv::Memory::kiv_shared_ptr<kiv::EventManagerDecChunk> _userParamHold;
    // Whether the caller passed a parameter at all (deliveries then pass null).
    bool _hasUserParam;
    // While the transfer runs: the address of the worker's reference to the caller's object,
    // passed to the piece deliveries (worker thread only).
    kiv::Memory::kiv_shared_ptr_base* _transferParam;
    // Bit 0: cancel() was called. Bit 1: the task has ended. Bit 2: a thread waits for running
    // deliveries to finish. Bits 3 and up: deliveries running.
    std::atomic<uint32_t> _gate;
    // Upload: the queue refused a piece; the reader abandons the body. Under _cond_mutex.
    // Also read, without the lock, by the progress function: against a peer that has stopped
    // reading, the reader is not called, and the progress function abandons the body instead.
    std::atomic<bool> _upload_failed;
    long _refused_bytes KIV_GUARDED_BY(_cond_mutex);
    // Upload bytes that may be queued and not yet sent (the request's _UPLOAD_QUEUE_LIMIT).
    long _queue_limit;
    std::atomic<int64_t> _bytes_sent;
    // What the one final delivery uses when no response can be allocated at the end (made with
    // the task, so the final delivery never depends on memory).
    kiv::Memory::kiv_shared_ptr<kiv_HttpResponse> _spare_final;
    // Why the URLs could not be pinned (set by a start that refused them).
    std::string _pin_failure;
    // The transfer's connection while libcurl has it open, else CURL_SOCKET_BAD. Under
    // _cond_mutex, which libcurl's close goes through: cancel() never touches a reused number.
    curl_socket_t _socket KIV_GUARDED_BY(_cond_mutex);

    kiv_HttpTask_impl(const kiv_HttpTask_impl&) = delete;
    kiv_HttpTask_impl& operator=(const kiv_HttpTask_impl&) = delete;
};

}  // namespace Networking
}  // namespace kiv

#endif
