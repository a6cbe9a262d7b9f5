#include "bench/streams.h"

#include <curl/curl.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>

#include "bench/harness.h"

namespace kiv_bench {

using kiv::Networking::HTTP_REQUEST_HTTPS_REQ_SUC;
using kiv::Networking::HTTP_REQUEST_OK;

void Sink::feed(const char* data, size_t len) {
    bytes += len;
    if (!records) {
        return;
    }
    const int64_t now = now_ns();
    while (len > 0) {
        const size_t take = std::min(len, kRecord - have);
        memcpy(record + have, data, take);
        have += take;
        data += take;
        len -= take;
        if (have == kRecord) {
            int64_t stamp;
            memcpy(&stamp, record, sizeof stamp);
            delay_ms.push_back(static_cast<float>(static_cast<double>(now - stamp) * 1e-6));
            have = 0;
        }
    }
}

kiv_shared_ptr<kiv_http_request_maker> LayerStream::start(const std::string& url, bool upload,
                                                          kiv_shared_ptr<LayerStream>& self) {
    self->upload = upload;
    kiv_shared_ptr<kiv_http_request_maker> task = kiv_http_request_maker::get_instance();
    auto request = kiv::Networking::kiv_HttpRequest::requestWithUrl(url);
    request->_METHOD = upload ? kiv::Networking::HTTP_REQUEST_METHOD_CHUNK_UP
                              : kiv::Networking::HTTP_REQUEST_METHOD_CHUNK_DOWN;
    task->start_request(request, &LayerStream::callback, &self);
    return task;
}

void LayerStream::callback(kiv_shared_ptr<kiv_http_request_maker>&,
                           kiv_shared_ptr<kiv::Networking::kiv_HttpResponse>& response,
                           kiv::Memory::kiv_shared_ptr_base* param) {
    LayerStream* self = static_cast<kiv_shared_ptr<LayerStream>*>(param)->getPTR();
    kiv::Networking::kiv_HttpResponse* r = response.getPTR();
    if (r->get_http_status() == 0 && r->get_local_request_error() == HTTP_REQUEST_OK) {
        self->sink.feed(r->get_response_data().getPTR(), r->get_response_len());
        return;
    }
    {
        std::lock_guard<std::mutex> lock(self->mutex_);
        self->status = r->get_http_status();
        self->error = r->get_local_request_error();
        self->finished = true;
    }
    self->done_.notify_all();
}

bool LayerStream::wait_ok(int ms) {
    std::unique_lock<std::mutex> lock(mutex_);
    return done_.wait_for(lock, std::chrono::milliseconds(std::max(ms, 1)),
                          [&] { return finished; }) &&
           status == 200 && (upload || error == HTTP_REQUEST_HTTPS_REQ_SUC);
}

void PlainQueue::push(const unsigned char* data, size_t len, bool is_last) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (len > 0) {
            pieces_.emplace_back(data, data + len);
        }
        last_ = last_ || is_last;
    }
    ready_.notify_one();
}

size_t PlainQueue::read(char* buffer, size_t size, size_t nitems, void* self_) {
    PlainQueue* self = static_cast<PlainQueue*>(self_);
    const size_t max = size * nitems;
    std::unique_lock<std::mutex> lock(self->mutex_);
    if (!self->ready_.wait_for(lock, std::chrono::seconds(60),
                               [&] { return !self->pieces_.empty() || self->last_; })) {
        return CURL_READFUNC_ABORT;
    }
    size_t copied = 0;
    while (copied < max && !self->pieces_.empty()) {
        std::vector<unsigned char>& front = self->pieces_.front();
        const size_t take = std::min(max - copied, front.size() - self->offset_);
        memcpy(buffer + copied, front.data() + self->offset_, take);
        copied += take;
        self->offset_ += take;
        if (self->offset_ == front.size()) {
            self->pieces_.pop_front();
            self->offset_ = 0;
        }
    }
    return copied;  // 0 only at the end
}

namespace {

// The layer polls for cancellation from the progress function; so does the baseline, so that
// libcurl runs the same paths.
int raw_progress(void* cancelled, double, double, double, double) {
    return static_cast<std::atomic<bool>*>(cancelled)->load() ? 1 : 0;
}

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

long perform(CURL* curl, const std::string& url, curl_slist* headers, bool post = true) {
    std::atomic<bool> cancelled{false};
    char error[CURL_ERROR_SIZE];
    curl_easy_setopt(curl, CURLOPT_ERRORBUFFER, error);
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl, CURLOPT_POST, post ? 1L : 0L);
    curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl, CURLOPT_VERBOSE, 0L);
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
    curl_easy_setopt(curl, CURLOPT_PROGRESSDATA, &cancelled);
    curl_easy_setopt(curl, CURLOPT_PROGRESSFUNCTION, &raw_progress);
    curl_easy_setopt(curl, CURLOPT_NOPROGRESS, 0L);
    const CURLcode code = curl_easy_perform(curl);
    long status = 0;
    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
    curl_easy_cleanup(curl);
    curl_slist_free_all(headers);
    return code == CURLE_OK ? status : -static_cast<long>(code);
}
#pragma GCC diagnostic pop

size_t to_sink(char* ptr, size_t size, size_t nmemb, void* sink) {
    static_cast<Sink*>(sink)->feed(ptr, size * nmemb);
    return size * nmemb;
}

size_t discard(char*, size_t size, size_t nmemb, void*) {
    return size * nmemb;
}

size_t to_string(char* ptr, size_t size, size_t nmemb, void* text) {
    static_cast<std::string*>(text)->append(ptr, size * nmemb);
    return size * nmemb;
}

size_t to_lines(char* ptr, size_t size, size_t nmemb, void* lines) {
    static_cast<std::vector<std::string>*>(lines)->emplace_back(ptr, size * nmemb);
    return size * nmemb;
}

const char kZeroByte[1] = {0};

}  // namespace

long raw_download(const std::string& url, Sink* sink) {
    CURL* curl = curl_easy_init();
    curl_slist* headers = curl_slist_append(nullptr, "Content-Type: application/octet-stream");
    headers = curl_slist_append(headers, "Accept-Encoding:gzip,deflate");
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, &to_sink);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, sink);
    curl_easy_setopt(curl, CURLOPT_POSTFIELDS, kZeroByte);
    curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE, 1L);
    return perform(curl, url, headers);
}

long raw_upload(const std::string& url, PlainQueue* queue) {
    CURL* curl = curl_easy_init();
    curl_slist* headers = curl_slist_append(nullptr, "Transfer-Encoding: chunked");
    headers = curl_slist_append(headers, "Content-Encoding: gzip");
    curl_easy_setopt(curl, CURLOPT_HEADER, 0L);
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, &discard);
    curl_easy_setopt(curl, CURLOPT_FOLLOWLOCATION, 1L);
    curl_easy_setopt(curl, CURLOPT_READFUNCTION, &PlainQueue::read);
    curl_easy_setopt(curl, CURLOPT_READDATA, queue);
    return perform(curl, url, headers);
}

long raw_get(const std::string& url, std::string* body) {
    CURL* curl = curl_easy_init();
    std::vector<std::string> header_lines;
    curl_easy_setopt(curl, CURLOPT_TIMEOUT_MS, 0L);
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, &to_string);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, body);
    curl_easy_setopt(curl, CURLOPT_HEADERFUNCTION, &to_lines);
    curl_easy_setopt(curl, CURLOPT_HEADERDATA, &header_lines);
    return perform(curl, url, nullptr, false);
}

}  // namespace kiv_bench
