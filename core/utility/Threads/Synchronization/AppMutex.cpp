#include "core/utility/Threads/Synchronization/AppMutex.h"

#include <ctime>

namespace kiv {
namespace Threads {
namespace Synchronization {

AppMutex::AppMutex(bool recursive) {
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes,
                              recursive ? PTHREAD_MUTEX_RECURSIVE : PTHREAD_MUTEX_NORMAL);
    pthread_mutex_init(&iMutex, &attributes);
    pthread_mutexattr_destroy(&attributes);
}

AppMutex::~AppMutex() {
    pthread_mutex_destroy(&iMutex);
}

void AppMutex::lock() {
    pthread_mutex_lock(&iMutex);
}
void AppMutex::unlock() {
    pthread_mutex_unlock(&iMutex);
}
bool AppMutex::tryLock() {
    return pthread_mutex_trylock(&iMutex) == 0;
}

AppConditionMutex::AppConditionMutex(int /*flags*/) {
    pthread_mutex_init(&iMutex, nullptr);
    pthread_condattr_t attributes;
    pthread_condattr_init(&attributes);
    pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);
    pthread_cond_init(&iCondition, &attributes);
    pthread_condattr_destroy(&attributes);
}

AppConditionMutex::~AppConditionMutex() {
    pthread_cond_destroy(&iCondition);
    pthread_mutex_destroy(&iMutex);
}

void AppConditionMutex::lock() {
    pthread_mutex_lock(&iMutex);
}
void AppConditionMutex::unlock() {
    pthread_mutex_unlock(&iMutex);
}
void AppConditionMutex::wait() {
    pthread_cond_wait(&iCondition, &iMutex);
}

bool AppConditionMutex::waitUntilMs(uint64_t deadlineMs) {
    timespec deadline;
    deadline.tv_sec = static_cast<time_t>(deadlineMs / 1000);
    deadline.tv_nsec = static_cast<long>((deadlineMs % 1000) * 1000000);
    return pthread_cond_timedwait(&iCondition, &iMutex, &deadline) == 0;
}

void AppConditionMutex::signal() {
    pthread_cond_signal(&iCondition);
}
void AppConditionMutex::broadcast() {
    pthread_cond_broadcast(&iCondition);
}

}  // namespace Synchronization
}  // namespace Threads
}  // namespace kiv
