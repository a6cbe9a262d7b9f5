#ifndef KIV_TESTS_SUPPORT_LOG_CAPTURE_H
#define KIV_TESTS_SUPPORT_LOG_CAPTURE_H

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/temp_dir.h"

namespace kiv {
namespace test {

// Sends the library's log to a file of its own at `level` while it lives; at destruction (or
// finish()) the file is closed, the log goes back to standard error and the level back to 2.
//
// kFile: a regular file, read back by finish().
// kPipe: a named pipe drained by a reader thread, so a test can wait for a line to be written,
// a handshake with whatever thread writes it.
class LogCapture {
public:
    enum class Mode { kFile, kPipe };

    explicit LogCapture(int32_t level, Mode mode = Mode::kFile);
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    // Ends the capture and returns every line written, without the '\n' that ends each.
    std::vector<std::string> finish();

    // kPipe only: waits until a line containing `needle` has been written.
    bool wait_for(const std::string& needle, std::chrono::milliseconds wait);

    const std::string& path() const { return path_; }

private:
    void drain();

    TempDir dir_;
    std::string path_;
    Mode mode_;
    bool finished_ = false;
    std::vector<std::string> result_;

    int pipe_fd_ = -1;
    std::thread reader_;
    std::mutex mutex_;
    std::condition_variable grew_;
    std::string piped_;
    bool eof_ = false;
};

// Splits text at '\n'; a final '\n' does not start another line.
std::vector<std::string> split_lines(const std::string& text);

// "[TAG]-[YYYY-MM-DD HH:MM:SS.mmm]rest" becomes "[TAG]-[]rest"; other lines are returned as they
// are. A log line whose time stamp does not have that form is returned unchanged too, so that a
// comparison with the expected "[TAG]-[]..." text fails.
std::string strip_log_time(const std::string& line);

}  // namespace test
}  // namespace kiv

#endif
