#ifndef KIV_UTILITY_THREADS_GLOBALTHREADPOOL_H
#define KIV_UTILITY_THREADS_GLOBALTHREADPOOL_H

#include <cstddef>
#include <memory>

#include "core/utility/Memory/kiv_shared_ptr.h"
#include "core/utility/Threads/AppThreadTask.h"

namespace kiv {
namespace Threads {

// The process-wide worker pool that runs dispatch tasks (streaming transfers) on worker threads.
// Reached through Singleton<GlobalThreadPool>::instance(), which constructs it and then calls
// initInstance() once.
//
// Scheduling. A streaming transfer occupies one worker for seconds to hours, so the pool never
// leaves a queued task waiting while all of its workers are busy:
//  - GLOBAL_POOL_THREAD_COUNT core workers are started by initInstance() and live as long as
//    the pool;
//  - runTaskAsync() queues the task (first in, first out) and, under the pool's mutex, hands it
//    to an idle worker if there is one; otherwise it starts another worker at once. There is no
//    cap by default: a worker per running transfer, as many as the system lets us create. When
//    a worker cannot be created (pthread_create fails), the task is taken back and refused
//    (runTaskAsync returns false), never left waiting. Only a cap set by the application
//    (MAX_POOL_THREAD_COUNT) makes tasks wait in the queue for the next worker that finishes;
//  - a worker above the core count that stays idle for EXTRA_WORKER_IDLE_MS ends.
//  Idle workers are counted exactly: a worker that has been handed a wake-up but has not yet
//  run is no longer counted as idle, so a burst of N tasks starts as many workers as needed to
//  run all N at once. The queue, the counters and the wake-ups are all under one mutex, which
//  also makes the task's fields (written before runTaskAsync) visible to the worker.
//
// Running a task. A worker calls task->doExecute() (a task with isStopRunLoopTask set is not
// executed, only released), then drops the pool's reference to the task; both happen without any
// pool lock held, so a task may queue further tasks, and whatever the task's release destroys
// runs lock-free too. A C++ exception that leaves a task is logged and the worker carries on;
// a task that ends its thread (pthread_exit, cancellation) is released, and the worker is
// uncounted so that a new one can be started in its place.
//
// Workers run on WORKER_STACK_BYTES stacks. What a stack costs in memory is the pages a thread
// touches, not the reserved size, so the size only bounds address space; 512 KiB leaves libcurl,
// OpenSSL and the application's callbacks ample room.
//
// fork(): the pool's lock is held across fork(), and a child process starts with an empty pool
// state (no workers, nothing queued; the parent's queued tasks are left untouched) and starts
// workers of its own as tasks arrive.
//
// Shut-down (the pool is destroyed through the singleton's strong static at process exit, with
// transfers possibly still running or blocked for minutes). The queue, the mutex, the condition
// and the counters live in a heap object (PoolState) that is co-owned, through std::shared_ptr,
// by the pool and by every worker; workers are detached threads. The destructor
//  1. marks the state as shut down,
//  2. takes every queued task that never started out of the queue and releases it (outside the
//     lock), so its parameter and instance references are dropped exactly once,
//  3. wakes every idle worker, which then ends,
//  4. and returns without waiting for busy workers.
// A busy worker finishes its task whenever the task returns, releases it, sees the shut-down
// mark and ends; it touches only the shared state, which it keeps alive itself, never the
// destroyed pool. The last owner (the pool or the last worker) frees the state. Therefore process
// exit never hangs on a blocked transfer, and no worker touches freed memory; a worker that is
// still blocked in a task when the process ends simply disappears with the process. The
// destructor may run on any thread, including a worker (when a task held the last reference).
class GlobalThreadPool {
public:
    // Number of core workers (kept while the pool lives). Read when a pool is constructed.
    static int GLOBAL_POOL_THREAD_COUNT;
    // Upper bound on the number of workers (default: none); with a bound, further tasks queue.
    // Read when a pool is constructed.
    static int MAX_POOL_THREAD_COUNT;
    // How long a worker above the core count stays idle before it ends. Read at construction.
    static int EXTRA_WORKER_IDLE_MS;
    // Stack size of a worker thread (0: the system's default). Read when a pool is constructed.
    static size_t WORKER_STACK_BYTES;

    GlobalThreadPool();

    // Starts the core workers. Called once by Singleton<GlobalThreadPool>::instance(); further
    // calls do nothing.
    virtual void initInstance();

    // See "Shut-down" above: never waits for a running task.
    virtual ~GlobalThreadPool();

    // Queues `task` and returns at once; a worker runs it later and then drops the pool's
    // reference. Returns false (and logs) for an empty reference, or when the task needs a new
    // worker and none could be started (the task is then not queued); true when it was queued.
    bool runTaskAsync(kiv::Memory::kiv_shared_ptr<ASRDispatchTaskBase> task);

    // Diagnostics (a snapshot, for tests and benchmarks): workers alive, of which idle, and
    // tasks queued but not yet taken by a worker.
    int workerCount() const;
    int idleWorkerCount() const;
    int queuedTaskCount() const;

    struct PoolState;

    GlobalThreadPool(const GlobalThreadPool&) = delete;
    GlobalThreadPool& operator=(const GlobalThreadPool&) = delete;

private:
    std::shared_ptr<PoolState> iState;
};

}  // namespace Threads
}  // namespace kiv

#endif
