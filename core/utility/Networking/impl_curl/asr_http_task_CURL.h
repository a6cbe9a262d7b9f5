#ifndef KIV_UTILITY_NETWORKING_IMPL_CURL_ASR_HTTP_TASK_CURL_H
#define KIV_UTILITY_NETWORKING_IMPL_CURL_ASR_HTTP_TASK_CURL_H

#include <cstddef>

#include "core/utility/Networking/kiv_HttpRequestMaker.h"

namespace kiv {
namespace Networking {

// The libcurl implementation of the request maker.
class kiv_HttpTask_impl : public kiv_http_request_maker {
private:
    friend class kiv_http_request_maker;
    friend struct TaskTestAccess;  // white-box tests of the libcurl callbacks

    // libcurl callbacks of the one-shot request. They run on the calling thread inside
    // curl_easy_perform and touch only the record libcurl hands them.

    // Write function: appends body bytes to the response (`stream`). Never reports a short
    // write; without a response the bytes are dropped with an error line.
    static size_t http_receive_data_cb(void* ptr, size_t size, size_t nmemb, void* stream);
    // Progress function: non-zero (abort) once the request (`clientp`) is cancelled.
    static int http_progress_cb(void* clientp, double dltotal, double dlnow, double ultotal,
                                double ulnow);
    // Header function: records each head line in the response (`userdata`) as name -> value.
    // Lines without a colon (the status line, the closing CR LF) become names with empty values.
    static size_t http_receive_header_cb(char* buffer, size_t size, size_t nitems,
                                         void* userdata);
};

}  // namespace Networking
}  // namespace kiv

#endif
