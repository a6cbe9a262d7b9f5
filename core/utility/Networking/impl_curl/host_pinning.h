#ifndef KIV_UTILITY_NETWORKING_IMPL_CURL_HOST_PINNING_H
#define KIV_UTILITY_NETWORKING_IMPL_CURL_HOST_PINNING_H

#include <string>

namespace kiv {
namespace Networking {
namespace pinning {

// The parts of an absolute URL, scheme "://" [userinfo "@"] host [":" port] rest, as written.
struct UrlParts {
    std::string scheme;
    std::string userinfo;  // without the '@'; empty when absent
    std::string host;      // an IPv6 literal keeps its brackets
    std::string port;      // digits only; empty when the URL names none
    std::string rest;      // from the first '/', '?' or '#' after the authority; may be empty
};

// Splits `url`; false for anything that is not such a URL: no "://", an empty scheme or host,
// an unclosed IPv6 bracket, a port that is not 1 to 65535 in digits.
bool split_url(const std::string& url, UrlParts* parts);

// True for a numeric IPv4 address or a bracketed IPv6 address.
bool is_ip_literal(const std::string& host);

// How a transfer reaches the server at the address in `ipUrl` while speaking to it under the
// host name in `originUrl`.
struct PinnedTarget {
    std::string resolve;  // libcurl's CURLOPT_RESOLVE entry, "name:port:address"
    std::string url;      // the URL handed to libcurl: the name, the port, `ipUrl`'s rest
};

// The connection port is the one `ipUrl` names, else the one `originUrl` names, else 443; the
// resolve entry and the URL both carry it, so libcurl always uses the entry (without ports
// this gives exactly "name:443:address" and `ipUrl` with its host replaced). The scheme and
// everything after the authority come from `ipUrl`. Refused, with the reason in `why`: either
// URL unparsable, user information in either, an `ipUrl` host that is not an IP literal, an
// `originUrl` host that is an IPv6 literal. No exception, no log line.
bool pin_target(const std::string& originUrl, const std::string& ipUrl, PinnedTarget* target,
                std::string* why);

}  // namespace pinning
}  // namespace Networking
}  // namespace kiv

#endif
