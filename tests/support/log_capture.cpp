#include "tests/support/log_capture.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <stdexcept>

#include "core/utility/kiv_log.h"

namespace kiv {
namespace test {

LogCapture::LogCapture(int32_t level, Mode mode) : path_(dir_.file("kiv.log")), mode_(mode) {
    if (mode_ == Mode::kPipe) {
        if (mkfifo(path_.c_str(), 0600) != 0) {
            throw std::runtime_error("mkfifo failed");
        }
        // The read end must exist before the log opens the write end, or that open blocks; it
        // is opened without blocking, as no writer exists yet.
        pipe_fd_ = open(path_.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
        if (pipe_fd_ < 0) {
            throw std::runtime_error("cannot open the log pipe");
        }
    }
    LogFile::open_log_file(path_.c_str(), 0);
    if (mode_ == Mode::kPipe) {
        reader_ = std::thread([this] { drain(); });
    }
    set_log_level(level);
}

LogCapture::~LogCapture() {
    finish();
}

void LogCapture::drain() {
    // Runs until the log closes its end of the pipe; the poll slice only bounds each wait.
    for (;;) {
        pollfd p{pipe_fd_, POLLIN, 0};
        int ready = poll(&p, 1, 1000);
        if (ready < 0 && errno != EINTR) {
            break;
        }
        if (ready <= 0) {
            continue;
        }
        char chunk[16 * 1024];
        ssize_t n = read(pipe_fd_, chunk, sizeof chunk);
        if (n < 0 && (errno == EAGAIN || errno == EINTR)) {
            continue;
        }
        if (n <= 0) {
            break;
        }
        std::lock_guard<std::mutex> lock(mutex_);
        piped_.append(chunk, static_cast<size_t>(n));
        grew_.notify_all();
    }
    std::lock_guard<std::mutex> lock(mutex_);
    eof_ = true;
    grew_.notify_all();
}

bool LogCapture::wait_for(const std::string& needle, std::chrono::milliseconds wait) {
    std::unique_lock<std::mutex> lock(mutex_);
    bool found = false;
    grew_.wait_for(lock, wait, [&] {
        // Only whole lines count: a long line may reach the pipe in several writes.
        size_t end = piped_.rfind('\n');
        found = end != std::string::npos && piped_.find(needle) < end;
        return found || eof_;
    });
    return found;
}

std::vector<std::string> LogCapture::finish() {
    if (finished_) {
        return result_;
    }
    finished_ = true;
    set_log_level(2);
    LogFile::close_log_file();
    if (mode_ == Mode::kPipe) {
        reader_.join();
        close(pipe_fd_);
        result_ = split_lines(piped_);
    } else {
        result_ = split_lines(read_file(path_));
    }
    return result_;
}

std::vector<std::string> split_lines(const std::string& text) {
    std::vector<std::string> lines;
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        if (end == std::string::npos) {
            lines.push_back(text.substr(start));
            break;
        }
        lines.push_back(text.substr(start, end - start));
        start = end + 1;
    }
    return lines;
}

std::string strip_log_time(const std::string& line) {
    // "[TAG]-[" then 23 characters of "YYYY-MM-DD HH:MM:SS.mmm" then "]".
    size_t open = line.find("]-[");
    if (line.empty() || line[0] != '[' || open == std::string::npos || open > 8) {
        return line;
    }
    const std::string shape = "dddd-dd-dd dd:dd:dd.ddd]";
    size_t time = open + 3;
    if (line.size() < time + shape.size()) {
        return line;
    }
    for (size_t i = 0; i < shape.size(); ++i) {
        char c = line[time + i];
        bool fits = shape[i] == 'd' ? isdigit(static_cast<unsigned char>(c)) != 0 : c == shape[i];
        if (!fits) {
            return line;
        }
    }
    return line.substr(0, time) + line.substr(time + shape.size() - 1);
}

}  // namespace test
}  // namespace kiv
