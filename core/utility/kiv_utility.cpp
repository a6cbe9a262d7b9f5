#include "core/utility/kiv_utility.h"

#include <cstdio>
#include <ctime>

namespace kiv {

std::string get_gmt_time() {
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    tm utc;
    gmtime_r(&now.tv_sec, &utc);
    char text[32];
    int len = snprintf(text, sizeof text, "%04d-%02d-%02d %02d:%02d:%02d.%03ld", utc.tm_year + 1900,
                       utc.tm_mon + 1, utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec,
                       now.tv_nsec / 1000000);
    if (len < 0) {
        return std::string();
    }
    return std::string(text, static_cast<size_t>(len) < sizeof text ? len : sizeof text - 1);
}

unsigned long long get_current_time() {
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<unsigned long long>(now.tv_sec) * 1000000ULL +
           static_cast<unsigned long long>(now.tv_nsec / 1000);
}

uint64_t monotonic_ms() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000ULL +
           static_cast<uint64_t>(now.tv_nsec / 1000000);
}

}  // namespace kiv
