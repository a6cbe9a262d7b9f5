#ifndef KIV_UTILITY_MEMORY_SINGLETON_H
#define KIV_UTILITY_MEMORY_SINGLETON_H

#include <cstdlib>

#include "core/utility/Memory/kiv_shared_ptr.h"
#include "core/utility/Memory/kiv_weak_ptr.h"
#include "core/utility/Threads/Synchronization/AppLock.h"
#include "core/utility/Threads/Synchronization/AppMutex.h"

namespace kiv {
namespace Memory {

// Lazy, process-wide, reference-counted access to one instance of T.
//
// Two static references are kept: the strong one keeps the instance alive for the life of the
// process, the weak one is how instance() finds it. If the strong static has been emptied while
// other strong references still hold the instance, the next instance() finds the live instance
// through the weak static and puts it back into the strong static instead of making a second one.
//
// Requirements on T: a default constructor, and `virtual void initInstance()` as the first entry
// of its virtual table; instance() calls it once on every instance that it creates, while holding
// mutex_. mutex_ is recursive, so an initInstance() may call instance() of the same T.
//
// If T's constructor throws, the exception leaves instance(), the lock is released, both statics
// keep their previous state and the next call tries again.
//
// Static initialisation and destruction order. The three statics are defined below and are
// built during static initialisation, mutex_ first, then instanceWeakRef, then
// instanceStrongRef; they are destroyed at exit in the reverse order, so the strong static goes
// first (destroying the instance unless another strong reference still holds it) while the weak
// static and the mutex are still alive. The language leaves the dynamic initialisation of
// implicitly instantiated static members unordered; GCC and Clang initialise them in the order
// in which a translation unit first uses them, so instance() (and anything else that touches
// them, such as the test hook) uses them strictly in the order mutex_, instanceWeakRef,
// instanceStrongRef.
template <typename T>
class Singleton {
public:
    // A strong reference to the one live instance, created on first use; never empty.
    static kiv_shared_ptr<T> instance();

private:
    // Test hook: lets a test empty the strong static (the library itself never does).
    friend struct SingletonTestAccess;

    static kiv_shared_ptr<T> instanceStrongRef;
    static kiv_weak_ptr<T> instanceWeakRef;
    static Threads::Synchronization::AppMutex mutex_;
};

// Definitions in construction order (see the class comment for how the order is obtained).
template <typename T>
Threads::Synchronization::AppMutex Singleton<T>::mutex_(true);
template <typename T>
kiv_weak_ptr<T> Singleton<T>::instanceWeakRef;
template <typename T>
kiv_shared_ptr<T> Singleton<T>::instanceStrongRef;

template <typename T>
kiv_shared_ptr<T> Singleton<T>::instance() {
    Threads::Synchronization::AppLock lock(&mutex_);

    // 1. The live instance, if any.
    kiv_shared_ptr<T> ref = instanceWeakRef.getPTR();

    // 2. None: create one. If the constructor throws, nothing below has run and both statics
    //    are unchanged; the lock is released by the guard.
    if (ref.getPTR() == nullptr) {
        T* created = new T();
        try {
            instanceStrongRef = created;  // adoption; the previous content is released first
        } catch (...) {
            // The control block could not be allocated: adoption leaves the object to us.
            delete created;
            throw;
        }
        instanceWeakRef = instanceStrongRef;
        ref = instanceWeakRef.getPTR();
        ref->initInstance();
    }

    // 3. Found alive while the strong static had been emptied: fill it again.
    if (instanceStrongRef.getPTR() == nullptr) {
        instanceStrongRef = instanceWeakRef;
    }

    // 4. Cannot fail while creating a T either succeeds or throws.
    if (ref.getPTR() == nullptr) {
        abort();
    }

    // 5.
    return ref;
}

}  // namespace Memory
}  // namespace kiv

#endif
