#include "core/utility/Networking/impl_curl/host_pinning.h"

#include <arpa/inet.h>

#include <cctype>

namespace kiv {
namespace Networking {
namespace pinning {

bool split_url(const std::string& url, UrlParts* parts) {
    const size_t schemeEnd = url.find("://");
    if (schemeEnd == std::string::npos || schemeEnd == 0) {
        return false;
    }
    for (size_t i = 0; i < schemeEnd; ++i) {
        const unsigned char c = static_cast<unsigned char>(url[i]);
        if (!isalnum(c) && c != '+' && c != '-' && c != '.') {
            return false;
        }
    }
    const size_t authorityStart = schemeEnd + 3;
    size_t authorityEnd = url.find_first_of("/?#", authorityStart);
    if (authorityEnd == std::string::npos) {
        authorityEnd = url.size();
    }
    std::string authority = url.substr(authorityStart, authorityEnd - authorityStart);
    UrlParts result;
    result.scheme = url.substr(0, schemeEnd);
    result.rest = url.substr(authorityEnd);
    const size_t at = authority.rfind('@');
    if (at != std::string::npos) {
        result.userinfo = authority.substr(0, at);
        authority.erase(0, at + 1);
    }
    size_t portColon = std::string::npos;
    if (!authority.empty() && authority[0] == '[') {
        const size_t close = authority.find(']');
        if (close == std::string::npos) {
            return false;
        }
        result.host = authority.substr(0, close + 1);
        if (close + 1 < authority.size()) {
            if (authority[close + 1] != ':') {
                return false;
            }
            portColon = close + 1;
        }
    } else {
        portColon = authority.find(':');
        result.host = authority.substr(0, portColon);
    }
    if (result.host.empty() || result.host == "[]") {
        return false;
    }
    if (portColon != std::string::npos) {
        result.port = authority.substr(portColon + 1);
        if (result.port.empty() || result.port.size() > 5) {
            return false;
        }
        for (char c : result.port) {
            if (!isdigit(static_cast<unsigned char>(c))) {
                return false;
            }
        }
        const long port = std::stol(result.port);
        if (port < 1 || port > 65535) {
            return false;
        }
    }
    *parts = std::move(result);
    return true;
}

bool is_ip_literal(const std::string& host) {
    unsigned char address[16];
    if (host.size() > 2 && host.front() == '[' && host.back() == ']') {
        return inet_pton(AF_INET6, host.substr(1, host.size() - 2).c_str(), address) == 1;
    }
    return inet_pton(AF_INET, host.c_str(), address) == 1;
}

bool pin_target(const std::string& originUrl, const std::string& ipUrl, PinnedTarget* target,
                std::string* why) {
    UrlParts origin;
    UrlParts ip;
    if (!split_url(originUrl, &origin)) {
        *why = "cannot parse the host-name URL '" + originUrl + "'";
        return false;
    }
    if (!split_url(ipUrl, &ip)) {
        *why = "cannot parse the address URL '" + ipUrl + "'";
        return false;
    }
    if (!origin.userinfo.empty() || !ip.userinfo.empty()) {
        *why = "user information in '" + (ip.userinfo.empty() ? originUrl : ipUrl) +
               "' is not supported with a pinned host";
        return false;
    }
    if (!is_ip_literal(ip.host)) {
        *why = "the host of the address URL '" + ipUrl + "' is not an IP address";
        return false;
    }
    if (origin.host[0] == '[') {
        *why = "the host-name URL '" + originUrl + "' names an IPv6 address, not a host name";
        return false;
    }
    const std::string& port = !ip.port.empty() ? ip.port : origin.port;
    target->resolve = origin.host + ":" + (port.empty() ? "443" : port) + ":" + ip.host;
    target->url = ip.scheme + "://" + origin.host + (port.empty() ? "" : ":" + port) + ip.rest;
    return true;
}

}  // namespace pinning
}  // namespace Networking
}  // namespace kiv
