#include "core/utility/kiv_log.h"

#include <cstdarg>
#include <cstring>

#include "core/utility/Threads/Synchronization/AppLock.h"

namespace kiv {

using Threads::Synchronization::AppLock;
using Threads::Synchronization::AppMutex;

namespace log_detail {
std::atomic<int32_t> g_log_level{2};

void write_line(const char* format, ...) {
    char line[10240];
    va_list args;
    va_start(args, format);
    vsnprintf(line, sizeof line, format, args);
    va_end(args);
    LogFile::log(line);
}
}  // namespace log_detail

void set_log_level(int32_t level) {
    log_detail::g_log_level.store(level, std::memory_order_relaxed);
}
int32_t get_log_level() {
    return log_detail::g_log_level.load(std::memory_order_relaxed);
}

const char* get_file_name(const char* path) {
    if (!path) {
        return "";
    }
    const char* slash = strrchr(path, '/');
    return slash ? slash + 1 : path;
}

Memory::NoDestructor<std::string> LogFile::_s_log_file_name;
FILE* LogFile::_s_log_file = nullptr;
unsigned long LogFile::_s_log_file_size = 0;
Memory::NoDestructor<AppMutex> LogFile::_s_log_file_mutex(false);
unsigned long LogFile::_s_log_file_limit = 0;

// The fork handlers lock in one function and unlock in another, which the lock analysis cannot
// follow.
void LogFile::lockForFork() KIV_NO_THREAD_SAFETY_ANALYSIS {
    _s_log_file_mutex->lock();
}
void LogFile::unlockAfterFork() KIV_NO_THREAD_SAFETY_ANALYSIS {
    _s_log_file_mutex->unlock();
}
void LogFile::resetInForkChild() {
    // The only thread of the child is the one that forked: nobody else can hold the lock.
    _s_log_file_mutex.rebuild(false);
}

namespace {
// Registered during static initialisation, before any pool or timer registers its own handlers:
// prepare handlers run in reverse order of registration, so this leaf lock is taken last, after
// every lock whose holders may log.
[[maybe_unused]] const int kForkHandlers =
    pthread_atfork(&LogFile::lockForFork, &LogFile::unlockAfterFork, &LogFile::resetInForkChild);
}  // namespace

void LogFile::log(const char* line) {
    if (!line) {
        return;
    }
    size_t len = strlen(line);
    bool needsNewline = len == 0 || line[len - 1] != '\n';
    size_t total = len + (needsNewline ? 1 : 0);

    AppLock lock(_s_log_file_mutex.get());
    FILE* out = _s_log_file;
    if (out) {
        if (_s_log_file_limit > 0 && _s_log_file_size > 0 &&
            _s_log_file_size + total > _s_log_file_limit) {
            rotate_locked();
            out = _s_log_file ? _s_log_file : stderr;
        }
    } else {
        out = stderr;
    }
    fwrite(line, 1, len, out);
    if (needsNewline) {
        fputc('\n', out);
    }
    fflush(out);
    if (out == _s_log_file) {
        _s_log_file_size += total;
    }
}

void LogFile::rotate_locked() {
    fclose(_s_log_file);
    _s_log_file = nullptr;
    std::string backup = *_s_log_file_name + ".1";
    rename(_s_log_file_name->c_str(), backup.c_str());
    _s_log_file = fopen(_s_log_file_name->c_str(), "a");
    _s_log_file_size = 0;
}

void LogFile::open_log_file(const char* path, int maxBytes) {
    AppLock lock(_s_log_file_mutex.get());
    if (_s_log_file) {
        fclose(_s_log_file);
        _s_log_file = nullptr;
    }
    *_s_log_file_name = path ? path : "";
    _s_log_file_limit = maxBytes > 0 ? static_cast<unsigned long>(maxBytes) : 0;
    _s_log_file_size = 0;
    if (_s_log_file_name->empty()) {
        return;
    }
    _s_log_file = fopen(_s_log_file_name->c_str(), "a");
    if (_s_log_file) {
        long existing = ftell(_s_log_file);
        if (existing <= 0 && fseek(_s_log_file, 0, SEEK_END) == 0) {
            existing = ftell(_s_log_file);
        }
        _s_log_file_size = existing > 0 ? static_cast<unsigned long>(existing) : 0;
    }
}

void LogFile::close_log_file() {
    AppLock lock(_s_log_file_mutex.get());
    if (_s_log_file) {
        fflush(_s_log_file);
        fclose(_s_log_file);
        _s_log_file = nullptr;
    }
    _s_log_file_size = 0;
}

}  // namespace kiv
