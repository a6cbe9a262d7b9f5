#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <string>

#include "core/utility/Networking/impl_curl/asr_http_task_CURL.h"
#include "core/utility/kiv_log.h"

using kiv::Memory::kiv_shared_ptr;

namespace kiv {
namespace Networking {
struct TaskTestAccess {
    // Feeds one head line exactly as libcurl would: a buffer that is not zero-terminated.
    static size_t header(kiv_HttpResponse* response, const std::string& line) {
        std::string copy = line + "GARBAGE";  // bytes past the line must never be read
        return kiv_HttpTask_impl::http_receive_header_cb(&copy[0], 1, line.size(), response);
    }
};
}  // namespace Networking
}  // namespace kiv

using kiv::Networking::kiv_HttpResponse;
using kiv::Networking::TaskTestAccess;

namespace {

class HeaderCaptureTest : public testing::Test {
protected:
    void SetUp() override {
        path_ = testing::TempDir() + "header_capture_" +
                testing::UnitTest::GetInstance()->current_test_info()->name() + ".log";
        std::remove(path_.c_str());
        kiv::LogFile::open_log_file(path_.c_str(), 0);
        kiv::set_log_level(6);
        response_ = kiv_HttpResponse::alloc();
    }
    void TearDown() override {
        kiv::set_log_level(2);
        kiv::LogFile::close_log_file();
        std::remove(path_.c_str());
    }

    const std::string& value(const std::string& name) {
        static const std::string missing = "<missing>";
        auto* headers = response_->getResponseHeaders();
        auto it = headers->find(name);
        return it == headers->end() ? missing : it->second;
    }

    // The log file's lines with the time stamp cut out.
    std::vector<std::string> trace_lines() {
        kiv::LogFile::close_log_file();
        std::vector<std::string> lines;
        std::ifstream in(path_);
        for (std::string line; std::getline(in, line);) {
            size_t open = line.find("-[");
            size_t close = line.find(']', open);
            if (open != std::string::npos && close != std::string::npos) {
                line.erase(open + 2, close - open - 2);
            }
            lines.push_back(line);
        }
        kiv::LogFile::open_log_file(path_.c_str(), 0);
        return lines;
    }

    std::string path_;
    kiv_shared_ptr<kiv_HttpResponse> response_;
};

}  // namespace

TEST_F(HeaderCaptureTest, SplitsNameAndValueAtFirstColon) {
    kiv_HttpResponse* r = response_.getPTR();
    EXPECT_EQ(TaskTestAccess::header(r, "Content-Type: text/plain\r\n"), 26u);
    TaskTestAccess::header(r, "X-Empty:\r\n");
    TaskTestAccess::header(r, "X-Ws: \t \tv a l \t\r\n");
    TaskTestAccess::header(r, "X-NoEnd:  tail");
    TaskTestAccess::header(r, "Location: http://h:80/x\r\n");
    TaskTestAccess::header(r, "Spaced Name : v\r\n");
    TaskTestAccess::header(r, ": nameless\r\n");
    TaskTestAccess::header(r, "X-Bare:   \r\n");
    EXPECT_EQ(value("Content-Type"), "text/plain");
    EXPECT_EQ(value("X-Empty"), "");
    EXPECT_EQ(value("X-Ws"), "v a l \t");
    EXPECT_EQ(value("X-NoEnd"), "tail");
    EXPECT_EQ(value("Location"), "http://h:80/x");
    EXPECT_EQ(value("Spaced Name "), "v");
    EXPECT_EQ(value(""), "nameless");
    EXPECT_EQ(value("X-Bare"), "");

    std::vector<std::string> lines = trace_lines();
    ASSERT_GE(lines.size(), 2u);
    EXPECT_EQ(lines[0],
              "[TRACE]-[][asr_http_task_CURL.cpp:204]HEADER_KEY: Content-Type, VALUE: "
              "text/plain");
    EXPECT_EQ(lines[1], "");  // the format ends in two newlines
}

TEST_F(HeaderCaptureTest, LinesWithoutColonAreWholeNamesAndNotTraced) {
    kiv_HttpResponse* r = response_.getPTR();
    TaskTestAccess::header(r, "HTTP/1.1 200 OK\r\n");
    TaskTestAccess::header(r, "\r\n");
    TaskTestAccess::header(r, "");
    TaskTestAccess::header(r, std::string("Na\0me: v\r\n", 10));
    EXPECT_EQ(value("HTTP/1.1 200 OK\r\n"), "");
    EXPECT_EQ(value("\r\n"), "");
    EXPECT_EQ(value(""), "");
    EXPECT_EQ(value("Na"), "") << "a zero byte before any colon ends the name";
    EXPECT_TRUE(trace_lines().empty());
}

TEST_F(HeaderCaptureTest, LaterValueReplacesEarlierAndZeroByteEndsValue) {
    kiv_HttpResponse* r = response_.getPTR();
    TaskTestAccess::header(r, "Set: one\r\n");
    TaskTestAccess::header(r, "Set: two\r\n");
    TaskTestAccess::header(r, "set: three\r\n");
    TaskTestAccess::header(r, std::string("Z: ab\0cd\r\n", 10));
    TaskTestAccess::header(r, std::string("Y: \0cd\r\n", 8));
    EXPECT_EQ(value("Set"), "two");
    EXPECT_EQ(value("set"), "three");
    EXPECT_EQ(value("Z"), "ab");
    EXPECT_EQ(value("Y"), "");
    EXPECT_EQ(TaskTestAccess::header(nullptr, "X: y\r\n"), 6u) << "no response: line consumed";
}
