#include <gtest/gtest.h>

#include <string>

#include "core/utility/Networking/impl_curl/asr_http_task_CURL.h"

namespace kiv {
namespace Networking {
struct TaskTestAccess {
    static std::string host(const std::string& url) { return task().getHostFromUrl(url); }
    static std::string resolve(const std::string& hostUrl, std::string ipUrl) {
        return task().getResolveDNSMap(hostUrl, &ipUrl[0]);
    }
    static std::string hostUrl(const std::string& oriUrl, std::string ipUrl) {
        return task().getHostUrl(oriUrl, &ipUrl[0]);
    }
    static bool https(const char* url) { return task().containHttps(url); }
    static kiv_HttpTask_impl& task() {
        static kiv_HttpTask_impl instance;
        return instance;
    }
};
}  // namespace Networking
}  // namespace kiv

using kiv::Networking::TaskTestAccess;

TEST(HostPinningTest, HostIsTextBetweenFirstDoubleSlashAndNextSlash) {
    EXPECT_EQ(TaskTestAccess::host("https://asr.example.com/v1/a"), "asr.example.com");
    EXPECT_EQ(TaskTestAccess::host("https://asr.example.com"), "");
    EXPECT_EQ(TaskTestAccess::host("https://asr.example.com:8443/v1"), "asr.example.com:8443");
    EXPECT_EQ(TaskTestAccess::host("//asr.example.com/v1"), "");
    EXPECT_EQ(TaskTestAccess::host("asr.example.com/v1"), "");
    EXPECT_EQ(TaskTestAccess::host("https:///v1"), "");
    EXPECT_EQ(TaskTestAccess::host("https://h/a//b"), "h");
    EXPECT_EQ(TaskTestAccess::host(""), "");
}

// The resolve entry and the URL handed to libcurl for pairs of (host-name URL, address URL).
// Without ports: "name:443:address" and the address URL with the name in its place. With a
// port on either side, the entry and the URL carry the same port, so libcurl uses the entry.
// What cannot be pinned gives empty strings (the start then fails with one error delivery).
TEST(HostPinningTest, ResolveEntriesAndUrlsForEveryFormOfUrl) {
    struct Case {
        const char* origin;
        const char* ip;
        const char* resolve;
        const char* url;
    };
    const Case cases[] = {
        {"https://asr.example.com/v1", "https://10.1.2.3/v2?q=1", "asr.example.com:443:10.1.2.3",
         "https://asr.example.com/v2?q=1"},
        {"https://asr.example.com:8443/v1", "https://10.1.2.3:8443/v1",
         "asr.example.com:8443:10.1.2.3", "https://asr.example.com:8443/v1"},
        {"https://asr.example.com:8443/v1", "https://10.1.2.3/v1", "asr.example.com:8443:10.1.2.3",
         "https://asr.example.com:8443/v1"},
        {"https://asr.example.com/v1", "https://10.1.2.3:8443/v1", "asr.example.com:8443:10.1.2.3",
         "https://asr.example.com:8443/v1"},
        {"https://asr.example.com", "https://10.1.2.3", "asr.example.com:443:10.1.2.3",
         "https://asr.example.com"},
        {"https://asr.example.com/x", "https://10.1.2.3?q=/a", "asr.example.com:443:10.1.2.3",
         "https://asr.example.com?q=/a"},
        {"https://asr.example.com/x", "https://[::1]:8443/x", "asr.example.com:8443:[::1]",
         "https://asr.example.com:8443/x"},
        {"HTTPS://asr.example.com/x", "HTTPS://10.1.2.3/x", "asr.example.com:443:10.1.2.3",
         "HTTPS://asr.example.com/x"},
        // Refused: credentials, a name where the address belongs, an IPv6 "name", bad ports,
        // broken brackets, no scheme.
        {"https://u:p@asr.example.com/x", "https://10.1.2.3/x", "", ""},
        {"https://asr.example.com/x", "https://u@10.1.2.3/x", "", ""},
        {"https://asr.example.com/x", "https://backend.internal/x", "", ""},
        {"https://[::1]/x", "https://10.1.2.3/x", "", ""},
        {"https://asr.example.com:99999/x", "https://10.1.2.3/x", "", ""},
        {"https://asr.example.com:/x", "https://10.1.2.3/x", "", ""},
        {"https://asr.example.com/x", "https://[::1/x", "", ""},
        {"https://asr.example.com/x", "https://10.1.2.3:84a3/x", "", ""},
        {"asr.example.com/x", "https://10.1.2.3/x", "", ""},
        {"https:///x", "https://10.1.2.3/x", "", ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.origin) + " + " + c.ip);
        EXPECT_EQ(TaskTestAccess::resolve(c.origin, c.ip), c.resolve);
        EXPECT_EQ(TaskTestAccess::hostUrl(c.origin, c.ip), c.url);
    }
}

TEST(HostPinningTest, HttpsIsAPlainCaseSensitiveSubstring) {
    EXPECT_TRUE(TaskTestAccess::https("https://h/"));
    EXPECT_TRUE(TaskTestAccess::https("http://h/https/x"));
    EXPECT_FALSE(TaskTestAccess::https("HTTPS://h/"));
    EXPECT_FALSE(TaskTestAccess::https(nullptr));
}
