// Header capture of the one-shot request: libcurl hands http_receive_header_cb one head line at
// a time, in a buffer that is not zero-terminated. Each input is a series of such lines, fed to
// one response; every call must return the line's length, read nothing outside the line (each
// line gets a heap buffer of exactly its size) and leave the response's headers equal to a
// model of the capture rules:
// - the name is the bytes before the first colon, unless a zero byte comes first: then the name
//   is the bytes before the zero byte and the value is empty (as for a line without a colon,
//   whose whole text is the name);
// - the value starts after the colon, past blanks and tabs, and stops at CR, LF, a zero byte or
//   the end of the line;
// - a later line with the same name replaces the earlier value;
// - every line is also kept whole, in order and with duplicates, less its trailing CRs and LFs.
//
// Input: byte 0 says how the rest is cut into lines. Odd: after each LF, as libcurl does (the
// LF stays in the line). Even: at each byte equal to byte 0, which is dropped, so that lines
// may carry LFs anywhere. Bit 1 of byte 0 passes the length as (1, n) or (n, 1); bit 2 turns on
// the trace line (to /dev/null) that prints every name and value.

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "core/utility/Networking/impl_curl/asr_http_task_CURL.h"
#include "core/utility/kiv_log.h"
#include "fuzz/fuzz_check.h"

namespace kiv {
namespace Networking {
struct TaskTestAccess {
    static size_t header(char* buffer, size_t size, size_t nitems, kiv_HttpResponse* response) {
        return kiv_HttpTask_impl::http_receive_header_cb(buffer, size, nitems, response);
    }
};
}  // namespace Networking
}  // namespace kiv

using kiv::Networking::kiv_HttpResponse;
using kiv::Networking::TaskTestAccess;

namespace {

// The capture rules, written from their description rather than from the code.
std::pair<std::string, std::string> expected_header(const std::string& line) {
    const size_t stop = line.find_first_of(std::string(":\0", 2));
    if (stop == std::string::npos || line[stop] == '\0') {
        return {line.substr(0, stop), std::string()};
    }
    size_t value = line.find_first_not_of(" \t", stop + 1);
    if (value == std::string::npos) {
        value = line.size();
    }
    const size_t end = line.find_first_of(std::string("\r\n\0", 3), value);
    return {line.substr(0, stop), line.substr(value, end == std::string::npos ? end : end - value)};
}

std::string printable(const std::string& s) {
    std::string out;
    for (unsigned char c : s) {
        if (c >= 0x20 && c < 0x7f && c != '\\') {
            out += static_cast<char>(c);
        } else {
            char hex[8];
            snprintf(hex, sizeof hex, "\\x%02x", c);
            out += hex;
        }
    }
    return out;
}

struct Model {
    std::map<std::string, std::string> headers;
    std::vector<std::string> lines;
};

void feed(kiv_HttpResponse* response, Model& model, const uint8_t* data, size_t len,
          bool itemsAreBytes) {
    // Exactly the line's bytes, so that ASan reports any read past either end.
    std::unique_ptr<char[]> buffer(new char[len]);
    if (len > 0) {
        memcpy(buffer.get(), data, len);
    }
    const size_t returned = itemsAreBytes ? TaskTestAccess::header(buffer.get(), 1, len, response)
                                          : TaskTestAccess::header(buffer.get(), len, 1, response);
    FUZZ_CHECK(returned == len, "returned %zu for a line of %zu bytes", returned, len);
    FUZZ_CHECK(memcmp(buffer.get(), data, len) == 0, "the line was modified");

    const std::string line(reinterpret_cast<const char*>(data), len);
    const auto header = expected_header(line);
    model.headers[header.first] = header.second;
    const size_t kept = line.find_last_not_of("\r\n");
    model.lines.push_back(line.substr(0, kept == std::string::npos ? 0 : kept + 1));
    const auto& lines = response->get_header_lines();
    FUZZ_CHECK(lines.size() == model.lines.size() && lines.back() == model.lines.back(),
               "line \"%s\" kept as \"%s\"", printable(line).c_str(),
               lines.empty() ? "<none>" : printable(lines.back()).c_str());
    const auto* headers = response->getResponseHeaders();
    const auto found = headers->find(header.first);
    FUZZ_CHECK(found != headers->end(), "line \"%s\": name \"%s\" not recorded",
               printable(line).c_str(), printable(header.first).c_str());
    FUZZ_CHECK(found->second == header.second, "line \"%s\": value \"%s\", expected \"%s\"",
               printable(line).c_str(), printable(found->second).c_str(),
               printable(header.second).c_str());
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    kiv::LogFile::open_log_file("/dev/null", 0);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) {
        return 0;
    }
    const uint8_t mode = data[0];
    const bool cutAfterLf = mode & 1;
    const bool itemsAreBytes = mode & 2;
    kiv::set_log_level(mode & 4 ? 6 : 2);
    ++data;
    --size;

    auto response = kiv_HttpResponse::alloc();
    Model model;
    size_t start = 0;
    for (size_t i = 0; i < size; ++i) {
        if (cutAfterLf && data[i] == '\n') {
            feed(response.getPTR(), model, data + start, i + 1 - start, itemsAreBytes);
            start = i + 1;
        } else if (!cutAfterLf && data[i] == mode) {
            feed(response.getPTR(), model, data + start, i - start, itemsAreBytes);
            start = i + 1;
        }
    }
    feed(response.getPTR(), model, data + start, size - start, itemsAreBytes);
    FUZZ_CHECK(*response->getResponseHeaders() == model.headers,
               "%zu headers recorded, %zu expected", response->getResponseHeaders()->size(),
               model.headers.size());
    FUZZ_CHECK(response->get_header_lines() == model.lines, "head lines differ");

    // No response (a request made without one) and no buffer: the line is consumed unread.
    FUZZ_CHECK(TaskTestAccess::header(nullptr, 1, size, response.getPTR()) == size, "null buffer");
    FUZZ_CHECK(TaskTestAccess::header(reinterpret_cast<char*>(const_cast<uint8_t*>(data)), 1, size,
                                      nullptr) == size,
               "null response");
    return 0;
}
