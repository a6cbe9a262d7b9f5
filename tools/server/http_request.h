#ifndef KIV_TOOLS_SERVER_HTTP_REQUEST_H
#define KIV_TOOLS_SERVER_HTTP_REQUEST_H

#include <cstddef>
#include <string>

namespace kiv {
namespace demo {

// The recognition server's reading of what a client sent, as plain functions of their input:
// no server, socket or global state, so each can be fed arbitrary bytes on its own.

// How far a request head has come. A head is checked as its bytes arrive: a malformed one is
// refused at its first bad byte rather than when the head ends or its time runs out.
struct HeadCheck {
    enum State { kIncomplete, kComplete, kBad };
    State state = kIncomplete;
    size_t size = 0;      // kComplete: bytes up to and including the empty line
    unsigned status = 0;  // kBad: the HTTP status to answer with
    std::string message;  // kBad: why, for the client
};

// Checks the start of a request, `size` bytes at `data`: the request line (a method token, an
// origin-form target starting with '/', HTTP/1.0 or HTTP/1.1), then header lines (a token
// name, a colon, a value without control characters; no folded lines), each ended by CRLF or
// LF, then an empty line. Empty lines before the request line are skipped. The head as a whole
// must carry one Host header when it is HTTP/1.1, at most one well-formed Content-Length, no
// Transfer-Encoding other than chunked, and not both of the last two; it must end within
// `limit` bytes. Statuses: 400 malformed, 431 too large, 501 transfer coding, 505 version.
HeadCheck check_request_head(const char* data, size_t size, size_t limit);

// What the server does with a request, from its method and its decoded path (no query).
struct Route {
    enum Target { kHealth, kGrammar, kAudio, kResults, kRefused };
    Target target = kRefused;
    std::string session;  // kAudio and kResults: the session id
    unsigned status = 0;  // kRefused: the HTTP status to answer with
    std::string message;  // kRefused: why
};

// GET or HEAD /v1/health and /v1/grammar; POST /v1/sessions/{id}/audio and .../results.
// Refusals: 404 unknown path, 405 wrong method, 400 invalid session id.
Route route_request(const std::string& method, const std::string& path);

// Session ids are 1-128 characters of [A-Za-z0-9._-].
bool valid_session_id(const std::string& id);

// The JSON body of every error answer: {"error":message} or {"error":message,"session":id},
// and a newline. Bytes that are not UTF-8 (a client's path, say) become U+FFFD.
std::string error_body(const std::string& message, const std::string& session = std::string());

}  // namespace demo
}  // namespace kiv

#endif
