#ifndef KIV_UTILITY_KIV_UTILITY_H
#define KIV_UTILITY_KIV_UTILITY_H

#include <cstdint>
#include <string>

namespace kiv {

// The current UTC time as "YYYY-MM-DD HH:MM:SS.mmm".
std::string get_gmt_time();

// Microseconds since the Unix epoch (wall clock).
unsigned long long get_current_time();

// Milliseconds on the monotonic clock: for deadlines and intervals, never for dates.
uint64_t monotonic_ms();

}  // namespace kiv

#endif
