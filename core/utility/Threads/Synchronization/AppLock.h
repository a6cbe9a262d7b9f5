#ifndef KIV_UTILITY_THREADS_SYNCHRONIZATION_APPLOCK_H
#define KIV_UTILITY_THREADS_SYNCHRONIZATION_APPLOCK_H

#include "core/utility/Threads/Synchronization/AppMutex.h"

namespace kiv {
namespace Threads {
namespace Synchronization {

// Scoped lock on an AppMutex: locked in the constructor, unlocked in the destructor (also when
// an exception leaves the scope) unless ReleaseMutex() already unlocked it. A null mutex makes
// the guard a no-op.
class KIV_SCOPED_CAPABILITY AppLock {
public:
    explicit AppLock(AppMutex* mutex) KIV_ACQUIRE(mutex) : iMutex(mutex) {
        if (iMutex) {
            iMutex->lock();
        }
    }
    ~AppLock() KIV_RELEASE() { ReleaseMutex(); }

    void ReleaseMutex() KIV_RELEASE() {
        if (iMutex) {
            iMutex->unlock();
            iMutex = nullptr;
        }
    }

    AppLock(const AppLock&) = delete;
    AppLock& operator=(const AppLock&) = delete;

private:
    AppMutex* iMutex;
};

}  // namespace Synchronization
}  // namespace Threads
}  // namespace kiv

#endif
