// Helper process for test_GlobalThreadPool: queues tasks that block forever on the process-wide
// pool (plus, once every worker is busy, tasks that never start), then ends the process while
// they are still blocked or queued. The pool is destroyed by Singleton's strong static at exit;
// the parent checks that the process ends at once, with status 0 and without sanitizer reports.
//
// Usage: pool_exit_child <return|exit|exit-in-task> <core> <max> <blocked> <queued> <report-fd>
//
// Reports on report-fd, one byte each: 'S' when a blocking task has started, 'Q' once everything
// is queued, 'R' when a never-started task is released, 'X' if a never-started task runs (it
// must not), 'E' just before main ends the process.

#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core/utility/Memory/singleton.h"
#include "core/utility/Threads/AppThreadTask.h"
#include "core/utility/Threads/GlobalThreadPool.h"
#include "core/utility/Threads/Synchronization/AppMutex.h"
#include "core/utility/kiv_utility.h"

using kiv::Memory::kiv_shared_ptr;
using kiv::Memory::Singleton;
using kiv::Threads::ASRDispatchTaskBase;
using kiv::Threads::GlobalThreadPool;
using kiv::Threads::Synchronization::AppConditionMutex;

namespace {

int g_reportFd = -1;

void report(char c) {
    ssize_t ignored = write(g_reportFd, &c, 1);
    (void)ignored;
}

// Heap-allocated and never freed: blocked workers may still use it while the process exits.
struct Started {
    AppConditionMutex cond{0};
    int count = 0;
};
Started* g_started = nullptr;

// Stands for a transfer that stays blocked for minutes: it never returns.
class BlockingTask : public ASRDispatchTaskBase {
public:
    BlockingTask() : ASRDispatchTaskBase(nullptr, nullptr, nullptr) {}
    void execute() override {
        report('S');  // before counting: main may end the process as soon as all have counted
        g_started->cond.lock();
        ++g_started->count;
        g_started->cond.broadcast();
        g_started->cond.unlock();
        for (;;) {
            pause();
        }
    }
};

// Queued behind the busy workers; must be released, never run, when the process ends.
class NeverStartedTask : public ASRDispatchTaskBase {
public:
    NeverStartedTask() : ASRDispatchTaskBase(nullptr, nullptr, nullptr) {}
    ~NeverStartedTask() override { report('R'); }
    void execute() override { report('X'); }
};

// Ends the process from a worker thread while other workers are blocked: the pool is then
// destroyed on this worker.
class ExitTask : public ASRDispatchTaskBase {
public:
    ExitTask() : ASRDispatchTaskBase(nullptr, nullptr, nullptr) {}
    void execute() override {
        report('E');
        exit(0);
    }
};

}  // namespace

int main(int argc, char** argv) {
    if (argc != 7) {
        fprintf(stderr, "usage: %s <return|exit|exit-in-task> core max blocked queued fd\n",
                argv[0]);
        return 2;
    }
    const char* mode = argv[1];
    GlobalThreadPool::GLOBAL_POOL_THREAD_COUNT = atoi(argv[2]);
    GlobalThreadPool::MAX_POOL_THREAD_COUNT = atoi(argv[3]);
    const int blocked = atoi(argv[4]);
    const int queued = atoi(argv[5]);
    g_reportFd = atoi(argv[6]);
    g_started = new Started;

    {
        kiv_shared_ptr<GlobalThreadPool> pool = Singleton<GlobalThreadPool>::instance();
        for (int i = 0; i < blocked; ++i) {
            pool->runTaskAsync(kiv_shared_ptr<ASRDispatchTaskBase>(new BlockingTask));
        }
        // Wait (bounded) until every blocking task runs, so the next ones really queue.
        const uint64_t deadline = kiv::monotonic_ms() + 10000;
        g_started->cond.lock();
        while (g_started->count < blocked && kiv::monotonic_ms() < deadline) {
            g_started->cond.waitUntilMs(deadline);
        }
        const bool allStarted = g_started->count == blocked;
        g_started->cond.unlock();
        if (!allStarted) {
            fprintf(stderr, "pool_exit_child: blocking tasks did not all start\n");
            return 3;
        }
        for (int i = 0; i < queued; ++i) {
            pool->runTaskAsync(kiv_shared_ptr<ASRDispatchTaskBase>(new NeverStartedTask));
        }
        if (pool->queuedTaskCount() != queued) {
            fprintf(stderr, "pool_exit_child: %d tasks queued, expected %d\n",
                    pool->queuedTaskCount(), queued);
            return 4;
        }
        report('Q');
        if (strcmp(mode, "exit-in-task") == 0) {
            // Needs a free worker: the parent leaves room below the cap.
            pool->runTaskAsync(kiv_shared_ptr<ASRDispatchTaskBase>(new ExitTask));
            for (;;) {
                pause();
            }
        }
    }  // from here only the singleton's strong static holds the pool

    report('E');
    if (strcmp(mode, "exit") == 0) {
        exit(0);
    }
    return 0;
}
