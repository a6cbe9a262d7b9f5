#ifndef KIV_UTILITY_NETWORKING_KIV_HTTPRESPONSE_H
#define KIV_UTILITY_NETWORKING_KIV_HTTPRESPONSE_H

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "core/utility/Memory/kiv_shared_ptr.h"

namespace kiv {
namespace Networking {

// The library's verdict on an exchange, beside the HTTP status the server sent.
enum HTTP_REQUEST_ERROR : int32_t {
    HTTP_REQUEST_OK = 0,
    HTTP_REQUEST_TIMEOUT = 1,
    HTTP_REQUEST_ABORTED = 2,
    HTTP_REQUEST_CHUNK_REQ_PARAM_INVALID = 3,
    HTTP_REQUEST_CHUNK_REQ_ERROR = 4,
    HTTP_REQUEST_HTTPS_REQ_ERROR = 5,
    HTTP_REQUEST_HTTPS_REQ_SUC = 6,
    HTTP_REQUEST_UNDEFINED_ERROR = 7,
};

// The outcome of an exchange, or one piece of a streamed body.
//
// A new response has status 0 (which no server sends, so "no answer" is recognisable),
// HTTP_REQUEST_OK, an empty message, no header lines and an empty zero-terminated body. It is
// filled by the one thread that made it and only read once handed on; it has no lock.
class kiv_HttpResponse {
public:
    static kiv::Memory::kiv_shared_ptr<kiv_HttpResponse> alloc();

    void set_http_status(int32_t status) { _http_status = status; }
    int32_t get_http_status() const { return _http_status; }
    void set_local_request_error(HTTP_REQUEST_ERROR status) { _requestError = status; }
    HTTP_REQUEST_ERROR get_local_request_error() const { return _requestError; }

    // The body bytes followed by one zero byte. The share stays valid after the response goes.
    // Bytes may contain zeros: the length is get_response_len(), not strlen().
    kiv::Memory::kiv_shared_ptr<char> get_response_data() const {
        return _data.getPTR() ? _data : empty_body();
    }
    // Body length without the terminating zero.
    uint32_t get_response_len() const { return _data_len - 1; }
    // Stored length, terminator included.
    uint32_t get_response_data_len() const { return _data_len; }

    // Appends `len` bytes (amortised O(1): the buffer at least doubles when it grows).
    void receive_new_data(const char* data, uint32_t len);

    std::map<std::string, std::string>* getResponseHeaders() { return &_responseHeaders; }
    void setResponseHeader(std::string key, std::string value) {
        _responseHeaders[std::move(key)] = std::move(value);
    }
    void setErrorMessage(std::string msg) { _requestErrorMessage = std::move(msg); }
    std::string getErrorMessage() { return _requestErrorMessage; }
    void set_source(void* source) { _source = source; }
    void* get_source() { return _source; }

    // Why a transfer failed, as libcurl saw it: its result code (0 when libcurl completed the
    // transfer or never ran) and its error text (the transfer's error buffer, else libcurl's
    // description of the code; empty for 0). Set on every response that ends in a libcurl
    // error, one-shot and streaming alike, beside the local error and message above.
    int32_t get_curl_code() const { return _curl_code; }
    const std::string& get_curl_error() const { return _curl_error; }
    void set_curl_error(int32_t code, std::string text) {
        _curl_code = code;
        _curl_error = std::move(text);
    }

    // The response head exactly as received by a one-shot request: every line (status lines,
    // header lines, the empty line ending each head) in arrival order, duplicates kept, line
    // endings stripped. The header map above keeps one value per name; this keeps them all.
    const std::vector<std::string>& get_header_lines() const { return _header_lines; }
    void add_header_line(std::string line) { _header_lines.push_back(std::move(line)); }

private:
    friend class kiv::Memory::kiv_shared_ptr<kiv_HttpResponse>;

    // The shared zero-terminated empty body of every response that has received nothing. A new
    // response holds no buffer of its own, so a piece costs exactly one buffer allocation and
    // responses never touch one shared counter.
    static const kiv::Memory::kiv_shared_ptr<char>& empty_body();

    kiv_HttpResponse();
    ~kiv_HttpResponse() = default;
    kiv_HttpResponse(const kiv_HttpResponse&) = delete;
    kiv_HttpResponse& operator=(const kiv_HttpResponse&) = delete;

    std::string _requestErrorMessage;
    HTTP_REQUEST_ERROR _requestError;
    int32_t _http_status;
    kiv::Memory::kiv_shared_ptr<char> _data;
    uint32_t _data_len;
    std::map<std::string, std::string> _responseHeaders;
    void* _source;
    int32_t _curl_code;
    std::string _curl_error;
    std::vector<std::string> _header_lines;
};

}  // namespace Networking
}  // namespace kiv

#endif
