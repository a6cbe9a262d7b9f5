// The recognition server's request path without a server: the request-head check fed the same
// bytes whole and in two arbitrary pieces, the router, session ids and error bodies. Checked:
// - the head check is a prefix property: the verdict on the whole input is the verdict on the
//   first piece unless that was still incomplete, and a complete head's size never passes the
//   input or the limit, ends in an empty line, and a refusal comes with a 4xx/5xx status;
// - the router accepts only its four routes, hands out only valid session ids, and refuses with
//   404, 405 or 400;
// - a session id is valid exactly when it is 1-128 characters of [A-Za-z0-9._-];
// - every error body is one line of JSON that parses back to the same message and session.
//
// Input: byte 0 picks where the head is cut in two; the rest is the head. The same bytes, cut
// at the first space and the first '?', are also a method and a path for the router.

#include <cctype>
#include <cstddef>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>

#include "fuzz/fuzz_check.h"
#include "tools/server/http_request.h"

using namespace kiv::demo;

namespace {

bool valid_id_model(const std::string& id) {
    if (id.empty() || id.size() > 128) {
        return false;
    }
    for (char c : id) {
        if (!isalnum(static_cast<unsigned char>(c)) && c != '.' && c != '_' && c != '-') {
            return false;
        }
    }
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) {
        return 0;
    }
    const std::string head(reinterpret_cast<const char*>(data) + 1, size - 1);
    const size_t limit = 1024 + data[0] * 16;
    const size_t cut = head.empty() ? 0 : data[0] % (head.size() + 1);

    const HeadCheck whole = check_request_head(head.data(), head.size(), limit);
    const HeadCheck first = check_request_head(head.data(), cut, limit);
    if (first.state != HeadCheck::kIncomplete) {
        FUZZ_CHECK(
            whole.state == first.state && whole.size == first.size && whole.status == first.status,
            "verdict changed when more bytes came (cut at %zu of %zu)", cut, head.size());
    }
    if (whole.state == HeadCheck::kComplete) {
        FUZZ_CHECK(whole.size <= head.size() && whole.size <= limit && whole.size >= 2,
                   "complete head of %zu bytes in %zu (limit %zu)", whole.size, head.size(), limit);
        FUZZ_CHECK(head[whole.size - 1] == '\n', "a complete head ends with a line end");
    }
    if (whole.state == HeadCheck::kBad) {
        FUZZ_CHECK(whole.status >= 400 && whole.status < 600 && !whole.message.empty(),
                   "refusal with status %u", whole.status);
    }

    const size_t space = head.find(' ');
    const std::string method = head.substr(0, space);
    std::string path = space == std::string::npos ? std::string() : head.substr(space + 1);
    path = path.substr(0, path.find('?'));
    const Route route = route_request(method, path);
    if (route.target == Route::kRefused) {
        FUZZ_CHECK(route.status == 404 || route.status == 405 || route.status == 400,
                   "route refused with %u", route.status);
    } else if (route.target == Route::kAudio || route.target == Route::kResults) {
        FUZZ_CHECK(method == "POST" && valid_session_id(route.session) &&
                       path == "/v1/sessions/" + route.session +
                                   (route.target == Route::kAudio ? "/audio" : "/results"),
                   "session route for '%s %s'", method.c_str(), path.c_str());
    } else {
        FUZZ_CHECK(method == "GET" || method == "HEAD", "read-only route with '%s'",
                   method.c_str());
    }
    FUZZ_CHECK(valid_session_id(head) == valid_id_model(head), "session id rule");

    const std::string body = error_body(head, route.session);
    FUZZ_CHECK(!body.empty() && body.back() == '\n' && body.find('\n') == body.size() - 1,
               "error body is not one line");
    const nlohmann::json parsed = nlohmann::json::parse(body);  // throws (a crash) if invalid
    FUZZ_CHECK(parsed.is_object() && parsed.at("error").is_string(), "error body shape");
    if (!route.session.empty()) {
        FUZZ_CHECK(parsed.at("session") == route.session, "session echoed");
    }
    return 0;
}
