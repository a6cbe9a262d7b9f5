#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <system_error>

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

using Clock = std::chrono::steady_clock;

// The bytes a data argument names: "@-" standard input, "@FILE" that file, else the text itself.
// curl drops CR and LF from what -d reads (not from its literal text); --data-binary keeps all.
bool read_data(const std::string& arg, bool strip_newlines, std::string* bytes) {
    if (arg.empty() || arg[0] != '@') {
        *bytes = arg;
        return true;
    }
    if (arg == "@-") {
        char chunk[64 * 1024];
        size_t n;
        while ((n = fread(chunk, 1, sizeof chunk, stdin)) > 0) {
            bytes->append(chunk, n);
        }
        if (ferror(stdin)) {
            return false;
        }
    } else {
        std::ifstream in(arg.substr(1), std::ios::binary);
        if (!in) {
            return false;
        }
        bytes->assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
        if (in.bad()) {
            return false;
        }
    }
    if (strip_newlines) {
        bytes->erase(std::remove_if(bytes->begin(), bytes->end(),
                                    [](char c) { return c == '\r' || c == '\n'; }),
                     bytes->end());
    }
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

// Where the body goes (and, with -i, the head before it): stdout or a file. Like curl, the file
// is made when the first bytes arrive, so a failed connection leaves none behind. Keeps the first
// error, so the reason line can name it.
class Output {
public:
    explicit Output(const std::string& path) : path_(path) {
        if (path.empty()) {
            file_ = stdout;
        }
    }
    ~Output() {
        if (file_ && file_ != stdout) {
            fclose(file_);
        }
    }
    bool write(const char* data, size_t size) {
        if (open() && fwrite(data, 1, size, file_) != size) {
            error_ = errno != 0 ? errno : EIO;
        }
        return error_ == 0;
    }
    // Flushes and closes; `make` makes the file even when no byte arrived (an empty body).
    // False when anything failed.
    bool finish(bool make) {
        if ((file_ || (make && open())) && error_ == 0 && fflush(file_) != 0) {
            error_ = errno;
        }
        if (file_ && file_ != stdout && fclose(file_) != 0 && error_ == 0) {
            error_ = errno;
        }
        file_ = nullptr;
        return error_ == 0;
    }
    bool is_terminal() const { return path_.empty() && isatty(STDOUT_FILENO) == 1; }
    const char* name() const { return path_.empty() ? "stdout" : path_.c_str(); }
    std::string error_text() const { return std::system_category().message(error_); }

private:
    bool open() {
        if (!file_ && error_ == 0 && !(file_ = fopen(path_.c_str(), "wb"))) {
            error_ = errno;
        }
        return file_ != nullptr;
    }

    std::string path_;
    FILE* file_ = nullptr;
    int error_ = 0;
};

// One line on a terminal, rewritten at most ten times a second, for bodies that do not go to it.
class Progress {
public:
    explicit Progress(bool enabled) : enabled_(enabled), start_(Clock::now()) {}
    void add(size_t bytes) {
        received_ += bytes;
        if (enabled_ && Clock::now() - shown_ >= std::chrono::milliseconds(100)) {
            show();
        }
    }
    // Ends the line, so what follows starts on a line of its own.
    void finish() {
        if (shown_ != Clock::time_point()) {
            show();
            fputc('\n', stderr);
        }
    }

private:
    void show() {
        shown_ = Clock::now();
        const double elapsed = std::chrono::duration<double>(shown_ - start_).count();
        fprintf(stderr, "\rreceived %llu bytes, %.0f KB/s, %.1f s   ",
                static_cast<unsigned long long>(received_),
                elapsed > 0 ? static_cast<double>(received_) / 1024.0 / elapsed : 0.0, elapsed);
    }

    bool enabled_;
    Clock::time_point start_;
    Clock::time_point shown_;
    unsigned long long received_ = 0;
};

// What curl -v prints: libcurl's notes after "* ", the request head after "> " and the response
// heads after "< ", line by line (libcurl hands over a request head whole).
void print_trace(kiv_HttpTraceKind kind, const char* data, size_t size) {
    const char* prefix = kind == KIV_HTTP_TRACE_HEAD_OUT  ? "> "
                         : kind == KIV_HTTP_TRACE_HEAD_IN ? "< "
                                                          : "* ";
    for (size_t at = 0; at < size;) {
        const void* newline = memchr(data + at, '\n', size - at);
        const size_t end = newline ? static_cast<const char*>(newline) - data + 1 : size;
        fputs(prefix, stderr);
        fwrite(data + at, 1, end - at, stderr);
        if (!newline) {
            fputc('\n', stderr);
        }
        at = end;
    }
}

// "404 Not Found" from the last status line received, for the reason line.
std::string final_status_text(const kiv_HttpResponse& response) {
    const std::vector<std::string>& lines = response.get_header_lines();
    for (auto line = lines.rbegin(); line != lines.rend(); ++line) {
        if (line->compare(0, 5, "HTTP/") == 0) {
            const size_t code = line->find(' ');
            const size_t end = line->find_last_not_of(" \t");
            if (code != std::string::npos && end > code) {
                return line->substr(code + 1, end - code);
            }
        }
    }
    return std::to_string(response.get_http_status());
}

int run_one_shot(const OneShotOptions& options, bool post) {
    kiv_shared_ptr<kiv_HttpRequest> request = kiv_HttpRequest::requestWithUrl(options.url);
    // Rounded up: a limit below a millisecond is still a limit, not "none".
    request->_TIMEOUT_MS = options.max_time > 0
                               ? static_cast<long>(std::ceil(options.max_time * 1000))
                               : options.timeout_ms;
    apply_tls(options.tls, request.getPTR());
    for (const std::string& header : options.headers) {
        if (!add_header(header, request.getPTR())) {
            fprintf(stderr, "kiv-http: bad header '%s' (want 'Name: value')\n", header.c_str());
            return kExitUsage;
        }
    }
    request->_CUSTOM_METHOD = options.head_only ? "HEAD" : options.method;
    if (options.follow) {
        request->_MAX_REDIRECTS = 50;  // curl's default limit
    }
    if (post) {
        const bool binary = options.data.empty();
        const std::string& arg = binary ? options.data_binary : options.data;
        std::string body;
        if (!read_data(arg, !binary, &body)) {
            fprintf(stderr, "kiv-http: cannot read %s\n",
                    arg == "@-" ? "standard input" : arg.c_str() + 1);
            return kExitUsage;
        }
        if (body.empty()) {
            // The layer sends a request without body bytes as a GET: name the method and say
            // the body is empty, as curl's -d '' does.
            if (request->_CUSTOM_METHOD.empty()) {
                request->_CUSTOM_METHOD = "POST";
            }
            request->_HEADER_LIST.emplace("Content-Length", "0");
        } else {
            request->_BODY_DATA = Memory::make_shared_array<unsigned char>(body.size());
            memcpy(request->_BODY_DATA.getPTR(), body.data(), body.size());
            request->_BODY_LENGTH = static_cast<long>(body.size());
        }
    }

    Output output(options.output);
    Progress progress(!options.silent && !options.verbose && stderr_is_terminal() &&
                      !output.is_terminal());
    // The body goes out piece by piece as it arrives, so a body of any size costs no memory.
    request->_BODY_SINK = [&output, &progress](const char* data, size_t size) {
        progress.add(size);
        return output.write(data, size);
    };
    // The heads come from the trace: they have to reach the output before the body does, and
    // the response (which keeps them too) only comes back once the body has been written.
    const bool include = options.include_head || options.head_only;
    if (include || options.verbose) {
        const bool verbose = options.verbose;
        request->_TRACE_SINK = [&output, include, verbose](kiv_HttpTraceKind kind, const char* data,
                                                           size_t size) {
            if (include && kind == KIV_HTTP_TRACE_HEAD_IN) {
                output.write(data, size);
            }
            if (verbose) {
                print_trace(kind, data, size);
            }
        };
    }

    kiv_shared_ptr<kiv_HttpResponse> response = kiv_http_request_maker::execute(request);
    progress.finish();
    if (!output.finish(response.getPTR() && response->get_http_status() != 0)) {
        fprintf(stderr, "kiv-http: cannot write to %s: %s\n", output.name(),
                output.error_text().c_str());
        return kExitLocalError;
    }
    if (!response.getPTR()) {
        fprintf(stderr, "kiv-http: unusable request (empty URL?)\n");
        return kExitUsage;
    }
    const int32_t status = response->get_http_status();
    if (status == 0) {
        if (response->get_curl_code() != 0) {
            fprintf(stderr, "kiv-http: (%d) %s\n", response->get_curl_code(),
                    response->get_curl_error().c_str());
        } else {
            fprintf(stderr, "kiv-http: no answer from %s\n", options.url.c_str());
        }
        return kExitLocalError;
    }
    if (status < 200 || status > 299) {
        fprintf(stderr, "kiv-http: server answered %s%s\n",
                final_status_text(*response.getPTR()).c_str(),
                status >= 300 && status <= 399 && !options.follow ? " (-L follows redirects)" : "");
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
