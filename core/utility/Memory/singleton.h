#ifndef KIV_UTILITY_MEMORY_SINGLETON_H
#define KIV_UTILITY_MEMORY_SINGLETON_H

#include <pthread.h>

#include <cstdlib>

#include "core/utility/Memory/kiv_shared_ptr.h"
#include "core/utility/Memory/kiv_weak_ptr.h"
#include "core/utility/Memory/no_destructor.h"
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
// Process exit. The statics are never destroyed: threads that outlive static destruction (pool
// workers inside a transfer, which may start another transfer from a callback) can still call
// instance() safely. The instance itself is released during static destruction by an exit guard
// that is built during static initialisation, so it runs after the exit handlers that libraries
// register later (OpenSSL's clean-up among them): threads that the instance's destructor lets end
// then no longer run those libraries' per-thread clean-up against their freed state. From then
// on instance() returns an empty reference (the process is going; nothing new is created),
// which callers must check.
//
// fork(). A child process inherits the lock in whatever state another thread left it; the
// fork handlers hold it across fork() so the child gets it unlocked, with the instance intact.
template <typename T>
class Singleton {
public:
    // A strong reference to the one live instance, created on first use. Empty only once the
    // process has begun to exit.
    static kiv_shared_ptr<T> instance();

private:
    // Test hook: lets a test empty the strong static (the library itself never does).
    friend struct SingletonTestAccess;

    static void releaseAtExit();
    struct ExitGuard {
        ~ExitGuard() { releaseAtExit(); }
    };
    // Fork handlers: they lock in one function and unlock in another, which the lock analysis
    // cannot follow.
    static void lockForFork() KIV_NO_THREAD_SAFETY_ANALYSIS { mutex_->lock(); }
    static void unlockAfterFork() KIV_NO_THREAD_SAFETY_ANALYSIS { mutex_->unlock(); }
    static void resetInForkChild() KIV_NO_THREAD_SAFETY_ANALYSIS { mutex_.rebuild(true); }

    static NoDestructor<Threads::Synchronization::AppMutex> mutex_;
    static NoDestructor<kiv_weak_ptr<T>> instanceWeakRef KIV_GUARDED_BY(*mutex_);
    static NoDestructor<kiv_shared_ptr<T>> instanceStrongRef KIV_GUARDED_BY(*mutex_);
    // Set by releaseAtExit(); never cleared.
    static bool exiting_ KIV_GUARDED_BY(*mutex_);
    static bool handlersRegistered_ KIV_GUARDED_BY(*mutex_);
    static ExitGuard exitGuard_;
};

template <typename T>
NoDestructor<Threads::Synchronization::AppMutex> Singleton<T>::mutex_(true);
template <typename T>
NoDestructor<kiv_weak_ptr<T>> Singleton<T>::instanceWeakRef;
template <typename T>
NoDestructor<kiv_shared_ptr<T>> Singleton<T>::instanceStrongRef;
template <typename T>
bool Singleton<T>::exiting_ = false;
template <typename T>
bool Singleton<T>::handlersRegistered_ = false;
template <typename T>
typename Singleton<T>::ExitGuard Singleton<T>::exitGuard_;

template <typename T>
kiv_shared_ptr<T> Singleton<T>::instance() {
    (void)&exitGuard_;  // instantiated, so it is built at start-up and runs at exit
    Threads::Synchronization::AppLock lock(mutex_.get());
    if (exiting_) {
        return kiv_shared_ptr<T>();
    }

    // 1. The live instance, if any.
    kiv_shared_ptr<T> ref = instanceWeakRef->getPTR();

    // 2. None: create one. If the constructor throws, nothing below has run and both statics
    //    are unchanged; the lock is released by the guard.
    if (ref.getPTR() == nullptr) {
        T* created = new T();
        try {
            *instanceStrongRef = created;  // adoption; the previous content is released first
        } catch (...) {
            // The control block could not be allocated: adoption leaves the object to us.
            delete created;
            throw;
        }
        *instanceWeakRef = *instanceStrongRef;
        ref = instanceWeakRef->getPTR();
        ref->initInstance();
        if (!handlersRegistered_) {
            handlersRegistered_ = true;
            // Registered after whatever initInstance() registered, so our prepare handler runs
            // first: this lock is taken before the instance's own (instance() holds it while
            // calling initInstance()).
            pthread_atfork(&Singleton<T>::lockForFork, &Singleton<T>::unlockAfterFork,
                           &Singleton<T>::resetInForkChild);
        }
    }

    // 3. Found alive while the strong static had been emptied: fill it again.
    if (instanceStrongRef->getPTR() == nullptr) {
        *instanceStrongRef = *instanceWeakRef;
    }

    // 4. Cannot fail while creating a T either succeeds or throws.
    if (ref.getPTR() == nullptr) {
        abort();
    }

    // 5.
    return ref;
}

template <typename T>
void Singleton<T>::releaseAtExit() {
    kiv_shared_ptr<T> last;
    {
        Threads::Synchronization::AppLock lock(mutex_.get());
        exiting_ = true;
        last = *instanceStrongRef;
        *instanceStrongRef = static_cast<T*>(nullptr);
    }
    // The instance goes here, outside the lock (its destructor may take other locks).
}

}  // namespace Memory
}  // namespace kiv

#endif
