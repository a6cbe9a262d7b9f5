#include "core/utility/Networking/impl_curl/asr_http_task_CURL.h"

#include <curl/curl.h>

#include <cstring>
#include <string>

#include "core/utility/kiv_log.h"

namespace kiv {
namespace Networking {

using kiv::Memory::kiv_shared_ptr;

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

}  // namespace

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

size_t kiv_HttpTask_impl::http_receive_data_cb(void* ptr, size_t size, size_t nmemb,
                                               void* stream) {
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
