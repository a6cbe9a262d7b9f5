#include "core/utility/Threads/GlobalThreadPool.h"

#include <pthread.h>

#include <climits>
#include <cstdio>
#include <deque>
#include <exception>
#include <new>

#include "core/utility/Memory/no_destructor.h"
#include "core/utility/Threads/Synchronization/AppMutex.h"
#include "core/utility/kiv_log.h"
#include "core/utility/kiv_utility.h"

namespace kiv {
namespace Threads {

using kiv::Memory::kiv_shared_ptr;
using Synchronization::AppConditionMutex;

int GlobalThreadPool::GLOBAL_POOL_THREAD_COUNT = 4;
int GlobalThreadPool::MAX_POOL_THREAD_COUNT = INT_MAX;
int GlobalThreadPool::EXTRA_WORKER_IDLE_MS = 5000;
size_t GlobalThreadPool::WORKER_STACK_BYTES = size_t{512} * 1024;

// Everything the workers share with the pool. Co-owned by the pool and by every worker, so a
// worker that outlives the pool (a transfer still running at exit) only touches live memory.
// Every field below `cond` is guarded by it.
struct GlobalThreadPool::PoolState {
    PoolState(int core, int max, int idleMs, size_t stackBytes);
    ~PoolState();

    AppConditionMutex cond;
    std::deque<kiv_shared_ptr<ASRDispatchTaskBase>> queue KIV_GUARDED_BY(cond);
    const int coreCount;
    const int maxCount;
    const int idleTimeoutMs;
    const size_t stackBytes;
    int workers KIV_GUARDED_BY(cond) = 0;  // threads alive or being started
    int idle KIV_GUARDED_BY(cond) = 0;     // waiting workers that hold no wake-up
    int wakeups KIV_GUARDED_BY(cond) = 0;  // wake-ups handed to waiting workers and not yet taken
    // Core workers being started that no task counts on yet.
    int unclaimedStarters KIV_GUARDED_BY(cond) = 0;
    unsigned nextWorkerId KIV_GUARDED_BY(cond) = 0;
    bool started KIV_GUARDED_BY(cond) = false;   // initInstance() ran
    bool shutdown KIV_GUARDED_BY(cond) = false;  // the pool object is gone or going
    // Links of the fork registry (below); guarded by its lock, not by `cond`.
    PoolState* prevLive = nullptr;
    PoolState* nextLive = nullptr;
};

namespace {

// fork() support. A child process has only the thread that forked: the parent's workers do not
// exist there, but the pool's counters, queue and lock say otherwise, so a transfer started in
// the child would wait for workers that never come. Every live pool state is registered here;
// the fork handlers hold every state's lock across fork() and give the child a fresh, empty state
// (it starts workers of its own on demand). The registry's lock is a trivially destructible
// pthread mutex, usable at any time, including during exit.
pthread_mutex_t gRegistryLock = PTHREAD_MUTEX_INITIALIZER;
GlobalThreadPool::PoolState* gLive = nullptr;
bool gForkHandlersRegistered = false;

// The fork handlers lock in one function and unlock in another (or rebuild the locks in the
// child), which the lock analysis cannot follow.
void lockAllForFork() KIV_NO_THREAD_SAFETY_ANALYSIS {
    pthread_mutex_lock(&gRegistryLock);
    for (auto* state = gLive; state; state = state->nextLive) {
        state->cond.lock();
    }
}

void unlockAllAfterFork() KIV_NO_THREAD_SAFETY_ANALYSIS {
    for (auto* state = gLive; state; state = state->nextLive) {
        state->cond.unlock();
    }
    pthread_mutex_unlock(&gRegistryLock);
}

void resetAllInForkChild() KIV_NO_THREAD_SAFETY_ANALYSIS {
    for (auto* state = gLive; state; state = state->nextLive) {
        // Queued tasks belong to the parent's transfers; releasing them here would run their
        // clean-up in a process that does not own what they refer to. They are left alone.
        static std::deque<kiv_shared_ptr<ASRDispatchTaskBase>>* abandoned = nullptr;
        if (!abandoned) {
            abandoned = new std::deque<kiv_shared_ptr<ASRDispatchTaskBase>>;
        }
        for (auto& task : state->queue) {
            abandoned->push_back(std::move(task));
        }
        state->queue.clear();
        state->workers = 0;
        state->idle = 0;
        state->wakeups = 0;
        state->unclaimedStarters = 0;
        // The condition still counts the parent's idle workers as waiters; a fresh one is built
        // over it (not destroyed: glibc would wait for those waiters forever).
        new (&state->cond) AppConditionMutex(0);
    }
    pthread_mutex_init(&gRegistryLock, nullptr);
}

}  // namespace

GlobalThreadPool::PoolState::PoolState(int core, int max, int idleMs, size_t stack)
    : cond(0),
      coreCount(core > 0 ? core : 1),
      maxCount(max > coreCount ? max : coreCount),  // the cap never goes below the core
      idleTimeoutMs(idleMs > 0 ? idleMs : 0),
      stackBytes(stack) {
    pthread_mutex_lock(&gRegistryLock);
    if (!gForkHandlersRegistered) {
        gForkHandlersRegistered = true;
        pthread_atfork(&lockAllForFork, &unlockAllAfterFork, &resetAllInForkChild);
    }
    nextLive = gLive;
    if (gLive) {
        gLive->prevLive = this;
    }
    gLive = this;
    pthread_mutex_unlock(&gRegistryLock);
}

GlobalThreadPool::PoolState::~PoolState() {
    pthread_mutex_lock(&gRegistryLock);
    if (prevLive) {
        prevLive->nextLive = nextLive;
    } else {
        gLive = nextLive;
    }
    if (nextLive) {
        nextLive->prevLive = prevLive;
    }
    pthread_mutex_unlock(&gRegistryLock);
}

namespace {

using State = GlobalThreadPool::PoolState;

class KIV_SCOPED_CAPABILITY StateLock {
public:
    explicit StateLock(State* state) KIV_ACQUIRE(state->cond) : iState(state) {
        iState->cond.lock();
    }
    ~StateLock() KIV_RELEASE() { iState->cond.unlock(); }
    StateLock(const StateLock&) = delete;
    StateLock& operator=(const StateLock&) = delete;

private:
    State* iState;
};

struct WorkerStart {
    std::shared_ptr<State> state;
    unsigned id;
    bool coreStarter;
};

// Runs one task without any pool lock and drops the pool's reference to it.
void runTask(kiv_shared_ptr<ASRDispatchTaskBase>& task) {
    ASRDispatchTaskBase* target = task.getPTR();
    if (!target->isStopRunLoopTask) {
        try {
            target->doExecute();
        } catch (const std::exception& e) {
            KIV_LOG(2, "[ERROR]-[%s][%s:76][GlobalThreadPool::worker] task=%p threw: %s\n",
                    static_cast<void*>(target), e.what());
        } catch (...) {
            // Thread cancellation and pthread_exit() unwind with a foreign exception, which has
            // no exception_ptr: let it end the thread. Any C++ exception is logged.
            if (!std::current_exception()) {
                throw;
            }
            KIV_LOG(2, "[ERROR]-[%s][%s:84][GlobalThreadPool::worker] task=%p threw\n",
                    static_cast<void*>(target));
        }
    }
    task = static_cast<ASRDispatchTaskBase*>(nullptr);
}

// The worker's run loop: take queued tasks while there are any, otherwise wait as an idle
// worker; a worker above the core count that stays idle for idleTimeoutMs ends, and every worker
// ends once the pool is shut down. Returns with the state unlocked.
void workerLoop(State* state, bool coreStarter) {
    StateLock lock(state);
    if (coreStarter && state->unclaimedStarters > 0) {
        --state->unclaimedStarters;
    }
    for (;;) {
        if (state->shutdown) {
            break;
        }
        if (!state->queue.empty()) {
            kiv_shared_ptr<ASRDispatchTaskBase> task = state->queue.front();
            state->queue.pop_front();
            state->cond.unlock();
            try {
                runTask(task);
            } catch (...) {
                // Forced unwind (the task ended the thread): release the task without the lock,
                // uncount the worker and let the thread end; the guard unlocks.
                task = static_cast<ASRDispatchTaskBase*>(nullptr);
                state->cond.lock();
                --state->workers;
                throw;
            }
            state->cond.lock();
            continue;
        }

        // Idle. Only runTaskAsync (which hands a wake-up and uncounts us in the same step), the
        // shut-down or, for a worker above the core count, the idle timeout ends this wait.
        ++state->idle;
        const uint64_t deadline = kiv::monotonic_ms() + static_cast<uint64_t>(state->idleTimeoutMs);
        bool retire = false;
        for (;;) {
            if (state->wakeups > 0) {
                --state->wakeups;
                break;
            }
            if (state->shutdown) {
                --state->idle;
                break;
            }
            const bool extra = state->workers > state->coreCount;
            if (extra && kiv::monotonic_ms() >= deadline) {
                --state->idle;
                retire = true;
                break;
            }
            if (extra) {
                state->cond.waitUntilMs(deadline);
            } else {
                state->cond.wait();
            }
        }
        if (retire) {
            break;
        }
    }
    --state->workers;
}

void* workerMain(void* arg) {
    WorkerStart* start = static_cast<WorkerStart*>(arg);
    std::shared_ptr<State> state = std::move(start->state);
    const bool coreStarter = start->coreStarter;
    char name[16];
    snprintf(name, sizeof name, "kiv-pool-%u", start->id % 100000u);
    delete start;
    pthread_setname_np(pthread_self(), name);

    workerLoop(state.get(), coreStarter);
    // `state` goes here; the last owner (pool or worker) frees it.
    return nullptr;
}

// Starts one detached worker that co-owns `state`. The caller has already counted it in
// `workers`. Returns false when the thread could not be started.
bool startWorker(const std::shared_ptr<State>& state, unsigned id, bool coreStarter) {
    WorkerStart* start = new (std::nothrow) WorkerStart{state, id, coreStarter};
    if (!start) {
        return false;
    }
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    if (state->stackBytes > 0) {
        pthread_attr_setstacksize(&attributes, state->stackBytes);
    }
    pthread_t thread;
    int rc = pthread_create(&thread, &attributes, &workerMain, start);
    pthread_attr_destroy(&attributes);
    if (rc != 0) {
        delete start;
        KIV_LOG(2,
                "[ERROR]-[%s][%s:183][GlobalThreadPool::startWorker] pthread_create failed: %d\n",
                rc);
        return false;
    }
    return true;
}

}  // namespace

GlobalThreadPool::GlobalThreadPool()
    : iState(std::make_shared<PoolState>(GLOBAL_POOL_THREAD_COUNT, MAX_POOL_THREAD_COUNT,
                                         EXTRA_WORKER_IDLE_MS, WORKER_STACK_BYTES)) {}

void GlobalThreadPool::initInstance() {
    State* state = iState.get();
    unsigned firstId;
    {
        StateLock lock(state);
        if (state->started) {
            return;
        }
        state->started = true;
        state->workers += state->coreCount;
        state->unclaimedStarters += state->coreCount;
        firstId = state->nextWorkerId;
        state->nextWorkerId += static_cast<unsigned>(state->coreCount);
    }
    for (int i = 0; i < state->coreCount; ++i) {
        if (!startWorker(iState, firstId + static_cast<unsigned>(i), true)) {
            StateLock lock(state);
            --state->workers;
            if (state->unclaimedStarters > 0) {
                --state->unclaimedStarters;
            }
        }
    }
}

GlobalThreadPool::~GlobalThreadPool() {
    std::deque<kiv_shared_ptr<ASRDispatchTaskBase>> neverStarted;
    {
        StateLock lock(iState.get());
        iState->shutdown = true;
        neverStarted.swap(iState->queue);
    }
    iState->cond.broadcast();
    // Tasks that never started are released here, outside the lock; running tasks stay with
    // their workers, which are not waited for.
    neverStarted.clear();
}

bool GlobalThreadPool::runTaskAsync(kiv_shared_ptr<ASRDispatchTaskBase> task) {
    if (task.getPTR() == nullptr) {
        KIV_LOG(2, "[ERROR]-[%s][%s:237][GlobalThreadPool::runTaskAsync] this=%p empty task\n",
                static_cast<void*>(this));
        return false;
    }
    State* state = iState.get();
    bool wake = false;
    bool spawn = false;
    unsigned id = 0;
    {
        StateLock lock(state);
        state->queue.push_back(task);
        if (state->idle > 0) {
            // Hand the task to one idle worker: it stops counting as idle at once, so the next
            // task cannot count on it too.
            --state->idle;
            ++state->wakeups;
            wake = true;
        } else if (state->unclaimedStarters > 0) {
            --state->unclaimedStarters;  // a core worker on its way will take it
        } else if (state->workers < state->maxCount) {
            ++state->workers;
            id = state->nextWorkerId++;
            spawn = true;
        }
        // Otherwise every worker is busy and the cap is reached: the task waits in the queue
        // for the next worker that finishes.
    }
    if (wake) {
        state->cond.signal();
    }
    if (spawn && !startWorker(iState, id, false)) {
        // The task was counted on a worker that does not exist. Unless a worker that has just
        // finished took it meanwhile, take it back and refuse it: a task must never wait in the
        // queue for a worker nobody will start.
        StateLock lock(state);
        --state->workers;
        for (auto it = state->queue.begin(); it != state->queue.end(); ++it) {
            if (it->getPTR() == task.getPTR()) {
                state->queue.erase(it);
                KIV_LOG(2,
                        "[ERROR]-[%s][%s:275][GlobalThreadPool::runTaskAsync] this=%p no "
                        "worker can be started, task=%p not queued\n",
                        static_cast<void*>(this), static_cast<void*>(task.getPTR()));
                return false;
            }
        }
    }
    return true;
}

int GlobalThreadPool::workerCount() const {
    StateLock lock(iState.get());
    return iState->workers;
}

int GlobalThreadPool::idleWorkerCount() const {
    StateLock lock(iState.get());
    return iState->idle;
}

int GlobalThreadPool::queuedTaskCount() const {
    StateLock lock(iState.get());
    return static_cast<int>(iState->queue.size());
}

}  // namespace Threads
}  // namespace kiv
