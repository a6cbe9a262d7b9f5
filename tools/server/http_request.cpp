#include "tools/server/http_request.h"

#include <strings.h>

#include <cctype>
#include <cstring>
#include <nlohmann/json.hpp>

namespace kiv {
namespace demo {

namespace {

// RFC 9110 token characters (method and header names).
bool is_tchar(unsigned char c) {
    return std::isalnum(c) || (c != 0 && std::strchr("!#$%&'*+-.^_`|~", c) != nullptr);
}

// A header value byte: visible ASCII, space, tab, or any byte of a non-ASCII character.
bool is_value_byte(unsigned char c) {
    return c == '\t' || (c >= 0x20 && c != 0x7f);
}

std::string trim(const std::string& text) {
    const size_t first = text.find_first_not_of(" \t");
    if (first == std::string::npos) {
        return std::string();
    }
    return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

// Reads the request head byte by byte; each step either advances or ends the check.
class HeadReader {
public:
    HeadReader(const char* data, size_t size, size_t limit)
        : p_(reinterpret_cast<const unsigned char*>(data)), size_(size), limit_(limit) {}

    HeadCheck run() {
        while (at_ < size_ && (p_[at_] == '\n' || p_[at_] == '\r')) {
            if (p_[at_] == '\r' && (at_ + 1 == size_ || p_[at_ + 1] != '\n')) {
                return at_ + 1 == size_ ? incomplete() : bad(400, "malformed request line");
            }
            at_ += p_[at_] == '\r' ? 2 : 1;
        }
        if (!request_line()) {
            return result_;
        }
        while (true) {
            if (at_ >= size_) {
                return incomplete();
            }
            if (p_[at_] == '\r' || p_[at_] == '\n') {
                if (!line_end("malformed header line")) {
                    return result_;
                }
                return complete();
            }
            if (!header_line()) {
                return result_;
            }
        }
    }

private:
    HeadCheck& bad(unsigned status, const std::string& message) {
        result_.state = HeadCheck::kBad;
        result_.status = status;
        result_.message = message;
        return result_;
    }
    HeadCheck& incomplete() {
        if (size_ >= limit_) {
            return too_large();
        }
        result_.state = HeadCheck::kIncomplete;
        return result_;
    }
    HeadCheck& too_large() {
        return bad(431, "request head larger than " + std::to_string(limit_) + " bytes");
    }

    // True when the bytes at `at_` end a line (CRLF or LF); advances past them. Otherwise the
    // result says why: more bytes needed, or malformed.
    bool line_end(const char* malformed) {
        if (p_[at_] == '\n') {
            ++at_;
            return true;
        }
        if (at_ + 1 == size_) {
            incomplete();
            return false;
        }
        if (p_[at_ + 1] != '\n') {
            bad(400, malformed);
            return false;
        }
        at_ += 2;
        return true;
    }

    bool request_line() {
        const size_t method_start = at_;
        while (at_ < size_ && is_tchar(p_[at_])) {
            ++at_;
        }
        if (at_ == size_) {
            incomplete();
            return false;
        }
        if (p_[at_] != ' ' || at_ == method_start) {
            bad(400, "malformed request line: expected METHOD /path HTTP/1.1");
            return false;
        }
        ++at_;
        const size_t target_start = at_;
        while (at_ < size_ && p_[at_] > 0x20 && p_[at_] < 0x7f) {
            ++at_;
        }
        if (at_ > target_start && p_[target_start] != '/') {
            bad(400, "the request target must be a path starting with '/'");
            return false;
        }
        if (at_ == size_) {
            incomplete();
            return false;
        }
        if (p_[at_] != ' ' || at_ == target_start) {
            bad(400, "malformed request line: expected METHOD /path HTTP/1.1");
            return false;
        }
        ++at_;
        // "HTTP/" DIGIT "." DIGIT, compared as far as it has arrived.
        static const char kShape[] = "HTTP/0.0";
        const size_t version_start = at_;
        for (size_t i = 0; i < 8; ++i, ++at_) {
            if (at_ == size_) {
                incomplete();
                return false;
            }
            const bool ok = kShape[i] == '0' ? std::isdigit(p_[at_]) != 0
                                             : p_[at_] == static_cast<unsigned char>(kShape[i]);
            if (!ok) {
                bad(400, "malformed request line: expected METHOD /path HTTP/1.1");
                return false;
            }
        }
        const std::string version(reinterpret_cast<const char*>(p_) + version_start, 8);
        if (version != "HTTP/1.1" && version != "HTTP/1.0") {
            bad(505, version + " is not supported: use HTTP/1.1");
            return false;
        }
        http11_ = version == "HTTP/1.1";
        if (at_ == size_) {
            incomplete();
            return false;
        }
        if (p_[at_] != '\r' && p_[at_] != '\n') {
            bad(400, "malformed request line: expected METHOD /path HTTP/1.1");
            return false;
        }
        return line_end("malformed request line: a CR not followed by LF");
    }

    bool header_line() {
        if (p_[at_] == ' ' || p_[at_] == '\t') {
            bad(400, "folded header lines are not accepted");
            return false;
        }
        const size_t name_start = at_;
        while (at_ < size_ && is_tchar(p_[at_])) {
            ++at_;
        }
        if (at_ == size_) {
            incomplete();
            return false;
        }
        if (p_[at_] != ':' || at_ == name_start) {
            bad(400, "malformed header line: expected Name: value");
            return false;
        }
        const std::string name(reinterpret_cast<const char*>(p_) + name_start, at_ - name_start);
        const size_t value_start = ++at_;
        while (at_ < size_ && is_value_byte(p_[at_])) {
            ++at_;
        }
        if (at_ == size_) {
            incomplete();
            return false;
        }
        if (p_[at_] != '\r' && p_[at_] != '\n') {
            bad(400, "control character in the value of header " + name);
            return false;
        }
        const std::string value =
            trim(std::string(reinterpret_cast<const char*>(p_) + value_start, at_ - value_start));
        if (!line_end("malformed header line: a CR not followed by LF")) {
            return false;
        }
        if (strcasecmp(name.c_str(), "Host") == 0) {
            ++hosts_;
        } else if (strcasecmp(name.c_str(), "Content-Length") == 0) {
            ++lengths_;
            length_ = value;
        } else if (strcasecmp(name.c_str(), "Transfer-Encoding") == 0) {
            ++encodings_;
            encoding_ = value;
        }
        return true;
    }

    HeadCheck& complete() {
        if (at_ > limit_) {
            return too_large();
        }
        if (hosts_ > 1 || (http11_ && hosts_ == 0)) {
            return bad(400, hosts_ ? "more than one Host header" : "missing Host header");
        }
        if (lengths_ > 1 || encodings_ > 1) {
            return bad(400, "repeated Content-Length or Transfer-Encoding header");
        }
        if (lengths_ && encodings_) {
            return bad(400, "both Content-Length and Transfer-Encoding");
        }
        if (lengths_ && (length_.empty() || length_.size() > 18 ||
                         length_.find_first_not_of("0123456789") != std::string::npos)) {
            return bad(400, "malformed Content-Length");
        }
        if (encodings_ && strcasecmp(encoding_.c_str(), "chunked") != 0) {
            return bad(501, "unsupported Transfer-Encoding: only chunked is accepted");
        }
        result_.state = HeadCheck::kComplete;
        result_.size = at_;
        return result_;
    }

    const unsigned char* p_;
    const size_t size_;
    const size_t limit_;
    size_t at_ = 0;
    bool http11_ = false;
    unsigned hosts_ = 0, lengths_ = 0, encodings_ = 0;
    std::string length_, encoding_;
    HeadCheck result_;
};

}  // namespace

HeadCheck check_request_head(const char* data, size_t size, size_t limit) {
    return HeadReader(data, size, limit).run();
}

bool valid_session_id(const std::string& id) {
    if (id.empty() || id.size() > 128) {
        return false;
    }
    for (unsigned char c : id) {
        if (!std::isalnum(c) && c != '.' && c != '_' && c != '-') {
            return false;
        }
    }
    return true;
}

Route route_request(const std::string& method, const std::string& path) {
    Route route;
    auto refuse = [&route](unsigned status, const std::string& message) {
        route.target = Route::kRefused;
        route.status = status;
        route.message = message;
        return route;
    };
    if (path == "/v1/health" || path == "/v1/grammar") {
        if (method != "GET" && method != "HEAD") {
            return refuse(405, "use GET for " + path);
        }
        route.target = path == "/v1/health" ? Route::kHealth : Route::kGrammar;
        return route;
    }
    const std::string prefix = "/v1/sessions/";
    const size_t slash = path.rfind('/');
    const std::string tail = slash == std::string::npos ? "" : path.substr(slash + 1);
    if (path.compare(0, prefix.size(), prefix) != 0 || slash < prefix.size() ||
        (tail != "audio" && tail != "results")) {
        return refuse(404, "no such path: " + path);
    }
    if (method != "POST") {
        return refuse(405, "use POST for " + path);
    }
    route.session = path.substr(prefix.size(), slash - prefix.size());
    if (!valid_session_id(route.session)) {
        route.session.clear();
        return refuse(400, "session id must be 1-128 characters of [A-Za-z0-9._-]");
    }
    route.target = tail == "audio" ? Route::kAudio : Route::kResults;
    return route;
}

std::string error_body(const std::string& message, const std::string& session) {
    nlohmann::ordered_json body = {{"error", message}};
    if (!session.empty()) {
        body["session"] = session;
    }
    return body.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + "\n";
}

}  // namespace demo
}  // namespace kiv
