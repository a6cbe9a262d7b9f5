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

TEST(HostPinningTest, ResolveEntryAlwaysNamesPort443) {
    EXPECT_EQ(TaskTestAccess::resolve("https://asr.example.com/v1", "https://10.1.2.3/v1"),
              "asr.example.com:443:10.1.2.3");
    EXPECT_EQ(TaskTestAccess::resolve("https://asr.example.com:8443/v1", "https://10.1.2.3/v1"),
              "asr.example.com:8443:443:10.1.2.3");
    EXPECT_EQ(TaskTestAccess::resolve("https://asr.example.com", "https://10.1.2.3/v1"), "");
    EXPECT_EQ(TaskTestAccess::resolve("https://asr.example.com/v1", "https://10.1.2.3"), "");
}

TEST(HostPinningTest, HostUrlKeepsEverythingButTheHostOfTheIpUrl) {
    EXPECT_EQ(TaskTestAccess::hostUrl("https://asr.example.com/v1", "https://10.1.2.3/v2?q=1"),
              "https://asr.example.com/v2?q=1");
    EXPECT_EQ(TaskTestAccess::hostUrl("https://asr.example.com", "https://10.1.2.3/v1"),
              "https:///v1");
    EXPECT_EQ(TaskTestAccess::hostUrl("https://asr.example.com/v1", "https://10.1.2.3"), "");
}

TEST(HostPinningTest, HttpsIsAPlainCaseSensitiveSubstring) {
    EXPECT_TRUE(TaskTestAccess::https("https://h/"));
    EXPECT_TRUE(TaskTestAccess::https("http://h/https/x"));
    EXPECT_FALSE(TaskTestAccess::https("HTTPS://h/"));
    EXPECT_FALSE(TaskTestAccess::https(nullptr));
}
