#include "core/utility/Threads/kiv_Timer_refresh.h"

#include <sched.h>
#include <signal.h>

#include <atomic>
#include <cstdlib>
#include <exception>
#include <new>

#include "core/utility/kiv_log.h"
#include "core/utility/kiv_utility.h"

namespace kiv {
namespace Threads {

using kiv::Memory::kiv_shared_ptr;
using kiv::Memory::kiv_shared_ptr_base;

namespace {

const unsigned long long kNoWakeUp = ~0ULL;

// Exit guard for the statics below. They are destroyed at process exit while the detached timer
// thread, pool workers or other static destructors may still call in, so every code path that
// touches them is counted in `gStaticsUsers`, and the exit handler waits for the count to drain
// after setting `gExiting`. The check after the increment and the handler's check after setting
// the flag are both sequentially consistent, so either the user sees the flag or the handler sees
// the user. Both atomics are trivially destructible and stay valid to the very end.
std::atomic<int> gStaticsUsers{0};
std::atomic<bool> gExiting{false};

// Guarded by TimerThreadState.
bool gHandlersRegistered = false;
bool gForkLocked = false;

bool enterStatics() {
    gStaticsUsers.fetch_add(1);
    if (gExiting.load()) {
        gStaticsUsers.fetch_sub(1);
        return false;
    }
    return true;
}

void leaveStatics() {
    gStaticsUsers.fetch_sub(1);
}

// Deadline for an arming that began at `now`. One is added because monotonic_ms() truncates:
// an arming at 100.9 ms with a 200 ms timeout must not fire at 300.0 ms.
unsigned long long deadlineFrom(unsigned long long now, int timeoutMS) {
    return now + static_cast<unsigned long long>(timeoutMS) + 1;
}

}  // namespace

Synchronization::AppConditionMutex RefreshTimer::TimerThreadState(0);
std::list<kiv_shared_ptr<RefreshTimer>> RefreshTimer::iTimers;
RefreshTimer::DeadlineQueue RefreshTimer::iDeadlines;
unsigned long long RefreshTimer::iWakeAt = kNoWakeUp;
bool RefreshTimer::iThreadStarted = false;
pthread_t RefreshTimer::iThread;

RefreshTimer::RefreshTimer(kiv_shared_ptr<ASRDispatchTaskBase> task, int timeout)
    : timeoutMS(timeout), nextTimeoutTime(0), scheduledTime(0), iTargetTask(task) {}

kiv_shared_ptr<RefreshTimer> RefreshTimer::createTimerWithTask(
    kiv_shared_ptr<ASRDispatchTaskBase> task, int timeoutMS) {
    if (task.getPTR() == nullptr) {
        KIV_LOG(2, "[ERROR]-[%s][%s:71][RefreshTimer::createTimerWithTask] empty task\n");
        return kiv_shared_ptr<RefreshTimer>();
    }
    if (timeoutMS < 0) {
        KIV_LOG(
            2,
            "[ERROR]-[%s][%s:75][RefreshTimer::createTimerWithTask] timeout %d ms < 0, using 0\n",
            timeoutMS);
        timeoutMS = 0;
    }
    kiv_shared_ptr<RefreshTimer> timer =
        kiv_shared_ptr<RefreshTimer>::adoptNew(new RefreshTimer(task, timeoutMS));
    // Both container nodes are allocated here, outside the lock; under it they are only linked.
    TimerList listNode;
    listNode.push_back(timer);
    DeadlineQueue queueNodeHolder;
    DeadlineQueue::node_type queueNode =
        queueNodeHolder.extract(queueNodeHolder.emplace(0ULL, timer.getPTR()));

    if (!enterStatics()) {
        // Not logged: the log sink may already be destroyed this late in exit.
        return kiv_shared_ptr<RefreshTimer>();
    }
    TimerThreadState.lock();
    if (!iThreadStarted) {
        // The thread must not take signals meant for the application's own threads.
        sigset_t all;
        sigset_t previous;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &previous);
        pthread_attr_t attributes;
        pthread_attr_init(&attributes);
        pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
        int error = pthread_create(&iThread, &attributes, &timerThreadEntry, nullptr);
        pthread_attr_destroy(&attributes);
        pthread_sigmask(SIG_SETMASK, &previous, nullptr);
        if (error != 0) {
            TimerThreadState.unlock();
            leaveStatics();
            KIV_LOG(2,
                    "[ERROR]-[%s][%s:109][RefreshTimer::createTimerWithTask] pthread_create "
                    "failed: %d\n",
                    error);
            return kiv_shared_ptr<RefreshTimer>();
        }
        pthread_setname_np(iThread, "kiv-timer");
        iThreadStarted = true;
        if (!gHandlersRegistered) {
            gHandlersRegistered = true;
            // Registered after TimerThreadState and iTimers were constructed, so it runs before
            // their destructors.
            atexit(&stopAtExit);
            pthread_atfork(&beforeFork, &afterForkInParent, &afterForkInChild);
        }
    }
    unsigned long long now = monotonic_ms();
    unsigned long long deadline = deadlineFrom(now, timeoutMS);
    RefreshTimer* raw = timer.getPTR();
    __atomic_store_n(&raw->scheduledTime, now, __ATOMIC_RELAXED);
    __atomic_store_n(&raw->nextTimeoutTime, deadline, __ATOMIC_RELEASE);
    queueNode.key() = deadline;
    raw->iDeadlinePos = iDeadlines.insert(std::move(queueNode));
    raw->iTimersPos = listNode.begin();
    iTimers.splice(iTimers.end(), listNode);
    // Only a deadline earlier than the one the thread sleeps toward needs a wake-up; later ones
    // are found when it next looks at the queue.
    if (deadline < iWakeAt) {
        TimerThreadState.signal();
    }
    TimerThreadState.unlock();
    leaveStatics();
    return timer;
}

bool RefreshTimer::refresh() {
    unsigned long long current = __atomic_load_n(&nextTimeoutTime, __ATOMIC_ACQUIRE);
    if (current == 0) {
        return false;
    }
    unsigned long long now = monotonic_ms();
    unsigned long long next = deadlineFrom(now, timeoutMS);
    // The deadline only ever moves later here, so the queue entry's key stays at or before it
    // and the timer thread finds the new deadline when it reaches the old one.
    while (current != 0) {
        if (next <= current) {
            return true;  // a concurrent refresh stored as late a deadline
        }
        if (__atomic_compare_exchange_n(&nextTimeoutTime, &current, next, true, __ATOMIC_ACQ_REL,
                                        __ATOMIC_ACQUIRE)) {
            __atomic_store_n(&scheduledTime, now, __ATOMIC_RELAXED);
            return true;
        }
    }
    return false;
}

bool RefreshTimer::cancel() {
    // Whatever we take out is released after unlocking: the task's destructor may call back in.
    TimerList released;
    kiv_shared_ptr<ASRDispatchTaskBase> task;
    if (!enterStatics()) {
        return __atomic_exchange_n(&nextTimeoutTime, 0ULL, __ATOMIC_ACQ_REL) != 0;
    }
    TimerThreadState.lock();
    // The swap is done under the lock, as the timer thread's claim is, so an armed timer is
    // always in both containers and a disarmed one in neither.
    bool wasArmed = __atomic_exchange_n(&nextTimeoutTime, 0ULL, __ATOMIC_ACQ_REL) != 0;
    if (wasArmed) {
        iDeadlines.erase(iDeadlinePos);
        released.splice(released.end(), iTimers, iTimersPos);
    }
    task = iTargetTask;
    iTargetTask = static_cast<ASRDispatchTaskBase*>(nullptr);
    TimerThreadState.unlock();
    leaveStatics();
    return wasArmed;
}

bool RefreshTimer::getTimerThread(pthread_t* thread) {
    if (!thread || !enterStatics()) {
        return false;
    }
    TimerThreadState.lock();
    bool started = iThreadStarted;
    if (started) {
        *thread = iThread;
    }
    TimerThreadState.unlock();
    leaveStatics();
    return started;
}

void* RefreshTimer::timerThreadEntry(void*) {
    timerMain(nullptr);
    return nullptr;
}

void RefreshTimer::timerMain(kiv_shared_ptr_base*) {
    if (!enterStatics()) {
        return;
    }
    TimerThreadState.lock();
    while (!gExiting.load()) {
        if (iDeadlines.empty()) {
            iWakeAt = kNoWakeUp;
            TimerThreadState.wait();
            iWakeAt = 0;
            continue;
        }
        DeadlineQueue::iterator first = iDeadlines.begin();
        unsigned long long now = monotonic_ms();
        if (first->first > now) {
            iWakeAt = first->first;
            TimerThreadState.waitUntilMs(first->first);
            iWakeAt = 0;
            continue;
        }
        RefreshTimer* timer = first->second;
        unsigned long long deadline = __atomic_load_n(&timer->nextTimeoutTime, __ATOMIC_ACQUIRE);
        bool claimed = false;
        // An armed timer's deadline is never 0, and cancel() only disarms under the lock, so
        // only a refresh() can change it under us; it moves it later, past `now`.
        while (deadline <= now) {
            if (__atomic_compare_exchange_n(&timer->nextTimeoutTime, &deadline, 0ULL, false,
                                            __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE)) {
                claimed = true;
                break;
            }
        }
        if (!claimed) {
            // Refreshed since this entry was keyed: move the entry to the current deadline. The
            // node is reused, so a timer costs one queue operation per timeout period however
            // often it is refreshed.
            DeadlineQueue::node_type node = iDeadlines.extract(first);
            node.key() = deadline;
            timer->iDeadlinePos = iDeadlines.insert(std::move(node));
            continue;
        }
        iDeadlines.erase(first);
        TimerList fired;
        fired.splice(fired.end(), iTimers, timer->iTimersPos);
        kiv_shared_ptr<ASRDispatchTaskBase> task = timer->iTargetTask;
        timer->iTargetTask = static_cast<ASRDispatchTaskBase*>(nullptr);
        TimerThreadState.unlock();
        leaveStatics();

        KIV_LOG(
            6, "[TRACE]-[%s][%s:256][RefreshTimer::timerMain] this=%p fires %llu ms after arming\n",
            static_cast<void*>(timer),
            now - __atomic_load_n(&timer->scheduledTime, __ATOMIC_RELAXED));
        try {
            task->doExecute();
        } catch (const std::exception& e) {
            KIV_LOG(2, "[ERROR]-[%s][%s:263][RefreshTimer::timerMain] this=%p task threw: %s\n",
                    static_cast<void*>(timer), e.what());
        } catch (...) {
            KIV_LOG(2, "[ERROR]-[%s][%s:266][RefreshTimer::timerMain] this=%p task threw\n",
                    static_cast<void*>(timer));
        }
        // Drop the task and the timer before taking the lock again: their destructors may call
        // createTimerWithTask or cancel().
        task = static_cast<ASRDispatchTaskBase*>(nullptr);
        fired.clear();

        if (!enterStatics()) {
            return;
        }
        TimerThreadState.lock();
    }
    TimerThreadState.unlock();
    leaveStatics();
}

void RefreshTimer::abandonArmedTimers() {
    static TimerList* abandoned = nullptr;  // a static, so leak checkers see it as reachable
    if (!abandoned) {
        abandoned = new TimerList;
    }
    for (kiv_shared_ptr<RefreshTimer>& ref : iTimers) {
        if (RefreshTimer* timer = ref.getPTR()) {
            __atomic_store_n(&timer->nextTimeoutTime, 0ULL, __ATOMIC_RELEASE);
        }
    }
    iDeadlines.clear();
    abandoned->splice(abandoned->end(), iTimers);
}

void RefreshTimer::stopAtExit() {
    gExiting.store(true);
    // Wake the thread if it sleeps; it sees gExiting under the lock and leaves for good.
    TimerThreadState.lock();
    TimerThreadState.broadcast();
    TimerThreadState.unlock();
    // Every path counted here holds the lock for a bounded stretch and runs no foreign code.
    while (gStaticsUsers.load() != 0) {
        sched_yield();
    }
    // Keep the armed timers and their tasks out of static destruction (see the header).
    abandonArmedTimers();
}

// fork(): the child must not inherit the lock held by another thread, nor the parent's timer
// thread count, nor timers whose work belongs to the parent's threads.
void RefreshTimer::beforeFork() {
    if (enterStatics()) {
        TimerThreadState.lock();
        gForkLocked = true;
    }
}

void RefreshTimer::afterForkInParent() {
    if (gForkLocked) {
        gForkLocked = false;
        TimerThreadState.unlock();
        leaveStatics();
    }
}

void RefreshTimer::afterForkInChild() {
    if (!gForkLocked) {
        return;
    }
    gForkLocked = false;
    // Only this thread exists in the child: the parent's timer thread and callers are gone.
    abandonArmedTimers();
    iThreadStarted = false;
    iWakeAt = kNoWakeUp;
    // The inherited condition still counts the parent's timer thread as a waiter, and glibc's
    // broadcast and destroy would wait for it forever. Build a fresh, unlocked one in place; the
    // old one is not destroyed, for the same reason.
    new (&TimerThreadState) Synchronization::AppConditionMutex(0);
    gStaticsUsers.store(0);
}

}  // namespace Threads
}  // namespace kiv
