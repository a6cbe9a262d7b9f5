#ifndef KIV_UTILITY_KIV_LOG_H
#define KIV_UTILITY_KIV_LOG_H

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <string>

#include "core/utility/Memory/no_destructor.h"
#include "core/utility/Threads/Synchronization/AppMutex.h"
#include "core/utility/kiv_utility.h"

namespace kiv {

namespace log_detail {
extern std::atomic<int32_t> g_log_level;
}

// Lines of level n are written when n <= the current level. Levels used by the library:
// 2 errors (the default), 5 debug, 6 trace. Any thread may change the level at any time.
void set_log_level(int32_t level);
int32_t get_log_level();

inline bool can_log(int32_t level) {
    return level <= log_detail::g_log_level.load(std::memory_order_relaxed);
}

// The part of `path` after its last '/'; points into `path`.
const char* get_file_name(const char* path);

// The process-wide log sink. Lines go to standard error until a file is opened, and back to it
// once the file is closed. Every call is safe from any thread; a line is written whole, never
// interleaved with another, and flushed at once so that it survives a crash. The sink never calls
// back into the library and takes no lock but its own.
//
// Its state is never destroyed, so threads still running while the process exits (pool workers
// inside a transfer) keep logging, rotation included; and a child process made by fork() gets a
// usable, unlocked sink even if another thread was writing a line at the time.
class LogFile {
public:
    // Appends one finished line. A line that does not end in '\n' (one cut at the formatting
    // buffer's size) gets one, so the next line starts on its own.
    static void log(const char* line);

    // Appends to `path` from now on. When a line would take the file past `maxBytes` bytes
    // (0 or less: no limit), the file is renamed to `path` + ".1", replacing an older backup,
    // and a new file is started. A file that cannot be opened leaves lines on standard error.
    static void open_log_file(const char* path, int maxBytes);

    // Flushes and closes the file; later lines go to standard error.
    static void close_log_file();

    // fork() handlers (registered by the sink itself).
    static void lockForFork();
    static void unlockAfterFork();
    static void resetInForkChild();

private:
    static void rotate_locked() KIV_REQUIRES(*_s_log_file_mutex);

    static Memory::NoDestructor<Threads::Synchronization::AppMutex> _s_log_file_mutex;
    static Memory::NoDestructor<std::string> _s_log_file_name KIV_GUARDED_BY(*_s_log_file_mutex);
    static FILE* _s_log_file KIV_GUARDED_BY(*_s_log_file_mutex);
    static unsigned long _s_log_file_size KIV_GUARDED_BY(*_s_log_file_mutex);
    static unsigned long _s_log_file_limit KIV_GUARDED_BY(*_s_log_file_mutex);
};

}  // namespace kiv

namespace kiv {
namespace log_detail {
// Formats one line into a 10240-byte stack buffer (cut at 10239 characters, never dropped) and
// hands it to LogFile::log. Kept out of line so that the buffer lives in this function's frame
// only, not in the frame of every function that logs (worker threads stay small).
__attribute__((noinline, format(printf, 1, 2))) void write_line(const char* format, ...);
}  // namespace log_detail
}  // namespace kiv

// Writes one log line at `level` when that level is enabled. The format starts with the level's
// tag, "-[%s]" for the time and "[%s:LINE]" for the file; the macro supplies those two values.
// A disabled level evaluates no argument and reads no clock.
#define KIV_LOG(level, format, ...)                                                       \
    do {                                                                                  \
        if (::kiv::can_log(level)) {                                                      \
            ::kiv::log_detail::write_line(format, ::kiv::get_gmt_time().c_str(),          \
                                          ::kiv::get_file_name(__FILE__), ##__VA_ARGS__); \
        }                                                                                 \
    } while (0)

#endif
