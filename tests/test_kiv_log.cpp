#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "core/utility/kiv_log.h"
#include "core/utility/kiv_utility.h"

namespace {

std::vector<std::string> read_lines(const std::string& path) {
    std::vector<std::string> lines;
    std::ifstream in(path);
    for (std::string line; std::getline(in, line);) {
        lines.push_back(line);
    }
    return lines;
}

class LogTest : public testing::Test {
protected:
    void SetUp() override {
        path_ = testing::TempDir() + "kiv_log_" +
                testing::UnitTest::GetInstance()->current_test_info()->name() + ".log";
        std::remove(path_.c_str());
        std::remove((path_ + ".1").c_str());
    }
    void TearDown() override {
        kiv::set_log_level(2);
        kiv::LogFile::close_log_file();
        std::remove(path_.c_str());
        std::remove((path_ + ".1").c_str());
    }
    std::string path_;
};

// True when `text` has the shape of `shape`, where '9' stands for any digit.
bool matches_shape(const std::string& text, const std::string& shape) {
    if (text.size() != shape.size()) {
        return false;
    }
    for (size_t i = 0; i < shape.size(); ++i) {
        bool digit = text[i] >= '0' && text[i] <= '9';
        if (shape[i] == '9' ? !digit : text[i] != shape[i]) {
            return false;
        }
    }
    return true;
}

const char kTimeShape[] = "9999-99-99 99:99:99.999";

int g_evaluations = 0;
const char* counted(const char* text) {
    ++g_evaluations;
    return text;
}

}  // namespace

TEST_F(LogTest, DisabledLevelEvaluatesNothingAndEnabledLineHasFixedHead) {
    kiv::LogFile::open_log_file(path_.c_str(), 0);
    EXPECT_EQ(kiv::get_log_level(), 2);
    EXPECT_TRUE(kiv::can_log(2));
    EXPECT_FALSE(kiv::can_log(5));
    g_evaluations = 0;
    KIV_LOG(5, "[DEBUG]-[%s][%s:1][x] %s\n", counted("never"));
    EXPECT_EQ(g_evaluations, 0);
    kiv::set_log_level(5);
    KIV_LOG(5, "[DEBUG]-[%s][%s:662][kiv_HttpTask_impl::cancel] this=%p +\n", nullptr);
    KIV_LOG(2, "[ERROR]-[%s][%s:42][x] %s\n", counted("counted"));
    EXPECT_EQ(g_evaluations, 1);
    kiv::LogFile::close_log_file();

    std::vector<std::string> lines = read_lines(path_);
    ASSERT_EQ(lines.size(), 2u);
    const std::string expected = std::string("[DEBUG]-[") + kTimeShape +
                                 "][test_kiv_log.cpp:662][kiv_HttpTask_impl::cancel] this=(nil) +";
    EXPECT_TRUE(matches_shape(lines[0], expected)) << lines[0];
    EXPECT_NE(lines[1].find("[test_kiv_log.cpp:42][x] counted"), std::string::npos);
}

TEST_F(LogTest, OverlongLineIsCutNotDropped) {
    kiv::LogFile::open_log_file(path_.c_str(), 0);
    std::string big(20000, 'a');
    KIV_LOG(2, "[ERROR]-[%s][%s:1]%s\n", big.c_str());
    KIV_LOG(2, "[ERROR]-[%s][%s:2]next\n");
    kiv::LogFile::close_log_file();
    std::vector<std::string> lines = read_lines(path_);
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].size(), 10239u);
    EXPECT_NE(lines[1].find("[test_kiv_log.cpp:2]next"), std::string::npos);
}

TEST_F(LogTest, RotatesAtSizeLimitKeepingOneBackup) {
    kiv::LogFile::open_log_file(path_.c_str(), 1000);
    for (int i = 0; i < 100; ++i) {
        KIV_LOG(2, "[ERROR]-[%s][%s:1]line %03d\n", i);
    }
    kiv::LogFile::close_log_file();
    std::vector<std::string> current = read_lines(path_);
    std::vector<std::string> backup = read_lines(path_ + ".1");
    ASSERT_FALSE(current.empty());
    ASSERT_FALSE(backup.empty());
    EXPECT_NE(current.back().find("line 099"), std::string::npos);
    // No file passes the limit, and nothing is lost between the backup and the current file.
    std::ifstream a(path_, std::ios::ate), b(path_ + ".1", std::ios::ate);
    EXPECT_LE(static_cast<long>(a.tellg()), 1000);
    EXPECT_LE(static_cast<long>(b.tellg()), 1000);
    int last = std::stoi(backup.back().substr(backup.back().size() - 3));
    int first = std::stoi(current.front().substr(current.front().size() - 3));
    EXPECT_EQ(first, last + 1);
}

TEST_F(LogTest, ConcurrentWritersNeverInterleave) {
    kiv::LogFile::open_log_file(path_.c_str(), 0);
    constexpr int kThreads = 4;
    constexpr int kLines = 500;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t] {
            std::string body(100 + t * 50, static_cast<char>('a' + t));
            for (int i = 0; i < kLines; ++i) {
                KIV_LOG(2, "[ERROR]-[%s][%s:1]%d %s\n", t, body.c_str());
            }
        });
    }
    for (auto& th : threads) {
        th.join();
    }
    kiv::LogFile::close_log_file();
    std::vector<std::string> lines = read_lines(path_);
    ASSERT_EQ(lines.size(), static_cast<size_t>(kThreads * kLines));
    for (const std::string& line : lines) {
        size_t at = line.find("]", line.find("[test_kiv_log.cpp")) + 1;
        int t = line[at] - '0';
        ASSERT_TRUE(t >= 0 && t < kThreads) << line;
        ASSERT_EQ(line.substr(at + 2), std::string(100 + t * 50, static_cast<char>('a' + t)));
    }
}

TEST(TimeTest, GmtTimeAndMicrosecondClock) {
    EXPECT_TRUE(matches_shape(kiv::get_gmt_time(), kTimeShape)) << kiv::get_gmt_time();
    unsigned long long a = kiv::get_current_time();
    unsigned long long b = kiv::get_current_time();
    EXPECT_GE(b, a);
    EXPECT_GT(a, 1600000000ULL * 1000000ULL);  // microseconds since the epoch, not seconds
    EXPECT_STREQ(kiv::get_file_name("/a/b/c.cpp"), "c.cpp");
    EXPECT_STREQ(kiv::get_file_name("c.cpp"), "c.cpp");
}
