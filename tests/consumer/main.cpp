#include <curl/curl.h>

#include "core/utility/Networking/kiv_HttpRequestMaker.h"

// Links and runs against the library: a request to a closed port fails cleanly.
int main() {
    curl_global_init(CURL_GLOBAL_ALL);
    auto request = kiv::Networking::kiv_HttpRequest::requestWithUrl("http://127.0.0.1:9/");
    request->_TIMEOUT_MS = 2000;
    auto response = kiv::Networking::kiv_http_request_maker::execute(request);
    int ok = response.getPTR() && response->get_http_status() == 0;
    curl_global_cleanup();
    return ok ? 0 : 1;
}
