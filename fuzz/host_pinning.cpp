// Host pinning: a host-name URL and an address URL become libcurl's resolve entry and the URL it
// connects to. The input is the two URLs, cut at the first zero byte. Checked for every input:
// - a URL that splits puts itself back together exactly from its parts, with a port of 1 to
//   65535 in digits and a host of letters, digits and "-._~" (or an IPv6 address in brackets);
// - a pinned pair gives an entry "name:port:address" with exactly that grammar, an address that
//   is an IP literal, and a URL that splits again into the name, the same port and the address
//   URL's scheme and rest: libcurl is never handed a malformed entry, and always uses it;
// - a refused pair says why, and the task's wrappers then give empty strings.

#include <cctype>
#include <cstddef>
#include <cstdint>
#include <string>

#include "core/utility/Networking/impl_curl/host_pinning.h"
#include "fuzz/fuzz_check.h"

using namespace kiv::Networking::pinning;

namespace {

// The pair under test, for the failure message.
std::string gOrigin;
std::string gAddress;
#define PIN_CHECK(condition) \
    FUZZ_CHECK(condition, "origin '%s', address '%s'", gOrigin.c_str(), gAddress.c_str())

std::string joined(const UrlParts& p) {
    return p.scheme + "://" + (p.userinfo.empty() ? "" : p.userinfo + "@") + p.host +
           (p.port.empty() ? "" : ":" + p.port) + p.rest;
}

bool name_chars(const std::string& host) {
    for (char c : host) {
        if (!isalnum(static_cast<unsigned char>(c)) && c != '-' && c != '.' && c != '_' &&
            c != '~') {
            return false;
        }
    }
    return !host.empty();
}

void check_split(const std::string& url) {
    UrlParts parts;
    if (!split_url(url, &parts)) {
        return;
    }
    PIN_CHECK(joined(parts) == url ||
              (parts.userinfo.empty() && url.find('@') != std::string::npos));
    PIN_CHECK(!parts.host.empty());
    PIN_CHECK(parts.host[0] == '[' ? parts.host.back() == ']' : name_chars(parts.host));
    if (!parts.port.empty()) {
        PIN_CHECK(parts.port.size() <= 5);
        const long port = std::stol(parts.port);
        PIN_CHECK(port >= 1 && port <= 65535);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string input(reinterpret_cast<const char*>(data), size);
    const size_t cut = input.find('\0');
    const std::string origin = input.substr(0, cut);
    const std::string address = cut == std::string::npos ? std::string() : input.substr(cut + 1);
    gOrigin = origin;
    gAddress = address;
    check_split(origin);
    check_split(address);

    PinnedTarget target;
    std::string why;
    if (!pin_target(origin, address, &target, &why)) {
        PIN_CHECK(!why.empty());
        return 0;
    }
    UrlParts o, a, out;
    PIN_CHECK(split_url(origin, &o) && split_url(address, &a));
    PIN_CHECK(o.userinfo.empty() && a.userinfo.empty());
    // The entry: name ":" port ":" address, nothing else.
    const size_t first = target.resolve.find(':');
    PIN_CHECK(first != std::string::npos);
    const size_t second = target.resolve.find(':', first + 1);
    PIN_CHECK(second != std::string::npos);
    const std::string name = target.resolve.substr(0, first);
    const std::string port = target.resolve.substr(first + 1, second - first - 1);
    const std::string ip = target.resolve.substr(second + 1);
    PIN_CHECK(name_chars(name) && name == o.host);
    PIN_CHECK(!port.empty() && port.size() <= 5);
    for (char c : port) {
        PIN_CHECK(isdigit(static_cast<unsigned char>(c)));
    }
    PIN_CHECK(std::stol(port) >= 1 && std::stol(port) <= 65535);
    PIN_CHECK(is_ip_literal(ip) && ip == a.host);
    // The URL reaches the same name and port, with the address URL's scheme and rest.
    PIN_CHECK(split_url(target.url, &out));
    PIN_CHECK(out.host == name && out.scheme == a.scheme && out.rest == a.rest);
    PIN_CHECK((out.port.empty() ? std::string("443") : out.port) == port);
    return 0;
}
