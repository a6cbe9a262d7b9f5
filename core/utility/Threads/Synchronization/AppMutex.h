#ifndef KIV_UTILITY_THREADS_SYNCHRONIZATION_APPMUTEX_H
#define KIV_UTILITY_THREADS_SYNCHRONIZATION_APPMUTEX_H

#include <pthread.h>

#include <cstdint>

#include "core/utility/thread_annotations.h"

namespace kiv {
namespace Threads {
namespace Synchronization {

// A pthread mutex. `recursive` = true lets the holding thread lock it again (it must then unlock
// it as many times); false gives a plain, non-recursive mutex.
class KIV_CAPABILITY("mutex") AppMutex {
public:
    explicit AppMutex(bool recursive);
    virtual ~AppMutex();

    void lock() KIV_ACQUIRE();
    void unlock() KIV_RELEASE();
    bool tryLock() KIV_TRY_ACQUIRE(true);

    AppMutex(const AppMutex&) = delete;
    AppMutex& operator=(const AppMutex&) = delete;

private:
    pthread_mutex_t iMutex;
};

// A non-recursive mutex with one condition, waiting on the monotonic clock so that deadlines
// survive wall-clock changes.
//
// The usual discipline applies: wait() and waitUntilMs() are called with the mutex held (through
// lock()), return with it held again, and may wake spuriously, so callers re-check their
// predicate in a loop. signal() and broadcast() may be called with or without the mutex held.
class KIV_CAPABILITY("mutex") AppConditionMutex {
public:
    // `flags` is reserved for variants of the condition object; the library only uses 0.
    explicit AppConditionMutex(int flags);
    virtual ~AppConditionMutex();

    void lock() KIV_ACQUIRE();
    void unlock() KIV_RELEASE();

    void wait() KIV_REQUIRES(this);
    // Waits until the monotonic clock (kiv::monotonic_ms()) reaches `deadlineMs`. Returns false
    // when the deadline passed, true when woken earlier (signal, broadcast or spuriously).
    bool waitUntilMs(uint64_t deadlineMs) KIV_REQUIRES(this);

    void signal();
    void broadcast();

    AppConditionMutex(const AppConditionMutex&) = delete;
    AppConditionMutex& operator=(const AppConditionMutex&) = delete;

private:
    pthread_mutex_t iMutex;
    pthread_cond_t iCondition;
};

}  // namespace Synchronization
}  // namespace Threads
}  // namespace kiv

#endif
