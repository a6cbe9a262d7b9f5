#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>

#include "core/utility/Networking/kiv_HttpRequestMaker.h"
#include "tools/cli/commands.h"

namespace kiv {
namespace cli {

using Memory::kiv_shared_ptr;
using namespace Networking;

bool stderr_is_terminal() {
    return isatty(STDERR_FILENO) == 1;
}

namespace {

bool read_whole_file(const std::string& path, std::string* bytes) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        return false;
    }
    bytes->assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    return true;
}

// "Name: value" -> map entry; the value keeps inner blanks.
bool add_header(const std::string& line, kiv_HttpRequest* request) {
    size_t colon = line.find(':');
    if (colon == std::string::npos || colon == 0) {
        return false;
    }
    size_t value = line.find_first_not_of(" \t", colon + 1);
    request->_HEADER_LIST[line.substr(0, colon)] =
        value == std::string::npos ? std::string() : line.substr(value);
    return true;
}

int run_one_shot(const OneShotOptions& options, bool post) {
    kiv_shared_ptr<kiv_HttpRequest> request = kiv_HttpRequest::requestWithUrl(options.url);
    request->_TIMEOUT_MS = options.timeout_ms;
    apply_tls(options.tls, request.getPTR());
    for (const std::string& header : options.headers) {
        if (!add_header(header, request.getPTR())) {
            fprintf(stderr, "kiv-http: bad header '%s' (want 'Name: value')\n", header.c_str());
            return kExitUsage;
        }
    }
    if (post) {
        std::string body = options.data;
        if (!body.empty() && body[0] == '@' && !read_whole_file(options.data.substr(1), &body)) {
            fprintf(stderr, "kiv-http: cannot read %s\n", options.data.c_str() + 1);
            return kExitUsage;
        }
        if (body.empty()) {
            // The layer sends a request without body bytes as a GET.
            fprintf(stderr, "kiv-http: post needs a non-empty body\n");
            return kExitUsage;
        }
        request->_METHOD = HTTP_REQUEST_METHOD_POST;
        request->_BODY_DATA = Memory::make_shared_array<unsigned char>(body.size() + 1);
        memcpy(request->_BODY_DATA.getPTR(), body.data(), body.size());
        request->_BODY_LENGTH = static_cast<long>(body.size());
    }

    kiv_shared_ptr<kiv_HttpResponse> response = kiv_http_request_maker::execute(request);
    if (!response.getPTR()) {
        fprintf(stderr, "kiv-http: unusable request (empty URL?)\n");
        return kExitUsage;
    }
    const int32_t status = response->get_http_status();
    if (status == 0) {
        fprintf(stderr, "kiv-http: no answer from %s: %s (libcurl code %d)\n", options.url.c_str(),
                response->get_local_request_error() == HTTP_REQUEST_ABORTED
                    ? "cancelled"
                    : response->get_curl_error().c_str(),
                response->get_curl_code());
        return kExitLocalError;
    }
    if (options.include_head) {
        // The status line and the header lines, as captured (the map is sorted by name).
        const auto* headers = response->getResponseHeaders();
        for (const auto& entry : *headers) {
            if (entry.first.compare(0, 5, "HTTP/") == 0) {
                fputs(entry.first.c_str(), stdout);
            }
        }
        for (const auto& entry : *headers) {
            if (entry.first.compare(0, 5, "HTTP/") != 0 && entry.first != "\r\n") {
                printf("%s: %s\r\n", entry.first.c_str(), entry.second.c_str());
            }
        }
        fputs("\r\n", stdout);
    }
    fwrite(response->get_response_data().getPTR(), 1, response->get_response_len(), stdout);
    fflush(stdout);
    if (status < 200 || status > 299) {
        fprintf(stderr, "kiv-http: server answered %d\n", status);
        return kExitHttpError;
    }
    return kExitOk;
}

}  // namespace

int run_get(const OneShotOptions& options) {
    return run_one_shot(options, false);
}
int run_post(const OneShotOptions& options) {
    return run_one_shot(options, true);
}

}  // namespace cli
}  // namespace kiv
