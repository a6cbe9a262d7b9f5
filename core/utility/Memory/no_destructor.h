#ifndef KIV_UTILITY_MEMORY_NO_DESTRUCTOR_H
#define KIV_UTILITY_MEMORY_NO_DESTRUCTOR_H

#include <new>
#include <utility>

#include "core/utility/thread_annotations.h"

namespace kiv {
namespace Memory {

// Storage for a static object that is built once and never destroyed.
//
// Pool workers are detached and may still be inside a transfer when the process exits; anything
// they can reach (the log sink, the singleton's lock) must stay usable until the process is
// gone, so it must not be torn down by static destruction. NoDestructor<T> is trivially
// destructible, so the compiler registers no destructor for it, and the object's memory stays
// reachable from the static (leak checkers count it as live).
template <typename T>
class NoDestructor {
public:
    template <typename... Args>
    explicit NoDestructor(Args&&... args) {
        new (storage_) T(std::forward<Args>(args)...);
    }

    // All three name the same object, also for the lock analysis when T is a lock.
    T& operator*() KIV_RETURN_CAPABILITY(*reinterpret_cast<T*>(storage_)) { return *get(); }
    T* operator->() KIV_RETURN_CAPABILITY(*reinterpret_cast<T*>(storage_)) { return get(); }
    T* get() KIV_RETURN_CAPABILITY(*reinterpret_cast<T*>(storage_)) {
        return std::launder(reinterpret_cast<T*>(storage_));
    }

    // Builds a fresh object over the old one without destroying it: for a child process after
    // fork(), where the old object (a lock held by a thread that does not exist there) can
    // neither be used nor safely destroyed.
    template <typename... Args>
    void rebuild(Args&&... args) {
        new (storage_) T(std::forward<Args>(args)...);
    }

    NoDestructor(const NoDestructor&) = delete;
    NoDestructor& operator=(const NoDestructor&) = delete;

private:
    alignas(T) unsigned char storage_[sizeof(T)];
};

}  // namespace Memory
}  // namespace kiv

#endif
