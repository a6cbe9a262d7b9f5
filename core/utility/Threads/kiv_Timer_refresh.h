#ifndef KIV_UTILITY_THREADS_KIV_TIMER_REFRESH_H
#define KIV_UTILITY_THREADS_KIV_TIMER_REFRESH_H

#include <pthread.h>

#include <list>
#include <map>

#include "core/utility/Memory/kiv_shared_ptr.h"
#include "core/utility/Threads/AppThreadTask.h"
#include "core/utility/Threads/Synchronization/AppMutex.h"

namespace kiv {
namespace Threads {

// A one-shot inactivity timeout: runs a dispatch task on the shared timer thread once
// `timeoutMS` milliseconds pass without a refresh().
//
// Firing. All timers share one timer thread, started by the first createTimerWithTask and never
// stopped. It runs expired tasks one after another through doExecute(), holding no lock, so a
// task may call createTimerWithTask, refresh() and cancel() on any timer, its own included. A
// long task delays the tasks of other timers that expire meanwhile. A task that throws is logged
// and otherwise ignored.
//
// Timing. Deadlines are on the monotonic clock in whole milliseconds, rounded up, so a task never
// runs sooner than `timeoutMS` after the createTimerWithTask or refresh() call that armed it
// began; it normally runs within a millisecond or two after that.
//
// One shot. A timer fires at most once in its life. Once it has fired, or has been cancelled, it
// stays disarmed: refresh() does not re-arm it and returns false. A new timeout needs a new timer.
//
// References. While a timer is armed, iTimers holds a strong reference to it and the timer holds
// its task. Firing and cancel() both take the task out of the timer, so a task that holds its own
// timer (directly or through the object it calls) leaves no cycle behind once the timer has fired
// or been cancelled.
//
// Threads and locks. createTimerWithTask, refresh() and cancel() may be called on any thread,
// concurrently with each other and with the timer thread. refresh() takes no lock. The other two
// take TimerThreadState only around list updates and never run other code under it (references
// they drop are released after unlocking), so callers may hold locks of their own while calling.
//
// Process exit. The timer thread is detached. An exit handler stops it from touching the shared
// state before static destruction, and the timers still armed at that moment are disarmed and
// deliberately leaked with their tasks: running their destructors while the process tears down
// could call into half-destroyed objects. A task running on the timer thread during exit is not
// waited for. After exit has begun, createTimerWithTask returns an empty reference (not logged)
// and cancel() only disarms.
//
// fork(). In the child, the timers armed at the fork are disarmed and leaked the same way (their
// work belongs to the parent's threads); new timers work normally and start a new timer thread.
class RefreshTimer {
public:
    // Arms a new timer that runs `task` `timeoutMS` milliseconds from now, unless refreshed or
    // cancelled, and returns the only reference to it besides iTimers'. A null task or a failure
    // to start the timer thread gives an empty reference (logged), and so does a call after process
    // exit began (not logged). A negative timeout is a caller error: logged, and treated as 0.
    static kiv::Memory::kiv_shared_ptr<RefreshTimer> createTimerWithTask(
        kiv::Memory::kiv_shared_ptr<ASRDispatchTaskBase> task, int timeoutMS);

    // Moves the deadline to `timeoutMS` milliseconds from now. Lock-free; never wakes the timer
    // thread. Returns true when the timer was armed (and is now re-armed), false when it has
    // already fired (or is firing) or was cancelled, in which case nothing changes.
    bool refresh();

    // Disarms the timer: its task will not start after this returns, unless the timer thread had
    // already taken it to run (then this returns false and does not wait for it). Drops the timer's
    // reference to its task and iTimers' reference to the timer. Returns true when the timer was
    // armed, false when it had already fired or been cancelled. May be called from the timer's own
    // task.
    bool cancel();

    // For diagnostics (benchmarks, profilers): the timer thread, if it has been started.
    static bool getTimerThread(pthread_t* thread);

private:
    typedef std::multimap<unsigned long long, RefreshTimer*> DeadlineQueue;
    typedef std::list<kiv::Memory::kiv_shared_ptr<RefreshTimer>> TimerList;

    friend class kiv::Memory::kiv_shared_ptr<RefreshTimer>;

    RefreshTimer(kiv::Memory::kiv_shared_ptr<ASRDispatchTaskBase> task, int timeout);
    ~RefreshTimer() = default;
    RefreshTimer(const RefreshTimer&) = delete;
    RefreshTimer& operator=(const RefreshTimer&) = delete;

    // Body of the timer thread; the parameter is unused (null).
    static void timerMain(kiv::Memory::kiv_shared_ptr_base*);
    static void* timerThreadEntry(void*);
    static void stopAtExit();
    // Disarms every armed timer and moves iTimers to a list that is never destroyed. Runs only
    // where no other thread can touch the timers (at exit once every user has left, in a fork
    // child), without the lock.
    static void abandonArmedTimers() KIV_NO_THREAD_SAFETY_ANALYSIS;
    // Fork handlers: they lock in one function and unlock in another (or rebuild the lock in
    // the child), which the lock analysis cannot follow.
    static void beforeFork() KIV_NO_THREAD_SAFETY_ANALYSIS;
    static void afterForkInParent() KIV_NO_THREAD_SAFETY_ANALYSIS;
    static void afterForkInChild() KIV_NO_THREAD_SAFETY_ANALYSIS;

    // Fixed at creation.
    int timeoutMS;
    // Monotonic ms at or after which the timer fires; 0 once it has fired or been cancelled.
    // Accessed only through atomic builtins: refresh() moves it later without any lock, and the
    // timer thread and cancel() each claim the timer by swapping it to 0 (the one that swaps a
    // non-zero value wins).
    unsigned long long nextTimeoutTime;
    // Monotonic ms of the last arming or refresh (atomic builtins; informational).
    unsigned long long scheduledTime;
    // Guarded by TimerThreadState; emptied when the timer fires or is cancelled.
    kiv::Memory::kiv_shared_ptr<ASRDispatchTaskBase> iTargetTask;

    // The lock over the shared timer state below and over iTargetTask, and the condition on which
    // the timer thread sleeps until the earliest deadline.
    static Synchronization::AppConditionMutex TimerThreadState;
    // The armed timers, each holding a strong reference (guarded by TimerThreadState).
    static std::list<kiv::Memory::kiv_shared_ptr<RefreshTimer>> iTimers
        KIV_GUARDED_BY(TimerThreadState);

    // One entry per armed timer, keyed by a deadline that is at most the timer's current one: a
    // refresh() only moves nextTimeoutTime, and the timer thread re-keys the entry when it
    // reaches the stale key (guarded by TimerThreadState).
    static DeadlineQueue iDeadlines KIV_GUARDED_BY(TimerThreadState);
    // The deadline the sleeping timer thread will wake at (~0ULL: none); 0 while it is awake.
    // A new timer with an earlier deadline signals it (guarded by TimerThreadState).
    static unsigned long long iWakeAt KIV_GUARDED_BY(TimerThreadState);
    static bool iThreadStarted KIV_GUARDED_BY(TimerThreadState);
    static pthread_t iThread KIV_GUARDED_BY(TimerThreadState);

    // Positions of this timer in iTimers and iDeadlines; valid while armed (guarded by
    // TimerThreadState).
    TimerList::iterator iTimersPos KIV_GUARDED_BY(TimerThreadState);
    DeadlineQueue::iterator iDeadlinePos KIV_GUARDED_BY(TimerThreadState);
};

}  // namespace Threads
}  // namespace kiv

#endif
