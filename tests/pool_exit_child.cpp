// Helper process for test_GlobalThreadPool: blocks tasks forever on the process-wide pool, queues
// tasks that never start behind them, then ends the process while they are still there. The pool
// goes with the singleton's strong static at exit.
//
// Usage: pool_exit_child <return|exit|exit-in-task> <core> <max> <blocked> <queued> <report-fd>
// Reports one byte each on report-fd: 'S' a blocking task started, 'R' the parameter of a
// never-started task was released, 'X' a never-started task ran (it must not). Status 0 only
// when the process ends the chosen way: 4 if the tasks did not queue.

#include <semaphore.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "core/utility/Memory/singleton.h"
#include "core/utility/Threads/AppThreadTask.h"
#include "core/utility/Threads/GlobalThreadPool.h"

using namespace kiv::Memory;
using namespace kiv::Threads;

namespace {

int g_fd = -1;
sem_t g_started;  // never destroyed: blocked workers still use it while the process ends
GlobalThreadPool* g_pool = nullptr;

void report(char c) {
    ssize_t ignored = write(g_fd, &c, 1);
    (void)ignored;
}

void sleepForever() {
    for (;;) {
        pause();
    }
}

struct ReportsRelease {
    ~ReportsRelease() { report('R'); }
};

void blockForever(kiv_shared_ptr_base*) {
    report('S');  // before counting: main may end the process once all have counted
    sem_post(&g_started);
    sleepForever();
}

void mustNotRun(kiv_shared_ptr_base*) {
    report('X');
}

void exitFromWorker(kiv_shared_ptr_base*) {
    exit(0);  // the pool is then destroyed on this worker
}

void run(void (*fn)(kiv_shared_ptr_base*), kiv_shared_ptr_base* parameter = nullptr) {
    g_pool->runTaskAsync(
        kiv_shared_ptr<ASRDispatchTaskBase>(new ASRDispatchTaskBase(nullptr, parameter, fn)));
}

}  // namespace

int main(int, char** argv) {
    GlobalThreadPool::GLOBAL_POOL_THREAD_COUNT = atoi(argv[2]);
    GlobalThreadPool::MAX_POOL_THREAD_COUNT = atoi(argv[3]);
    const int blocked = atoi(argv[4]);
    const int queued = atoi(argv[5]);
    g_fd = atoi(argv[6]);
    sem_init(&g_started, 0, 0);
    g_pool = Singleton<GlobalThreadPool>::instance().getPTR();  // held by the strong static only
    for (int i = 0; i < blocked; ++i) {
        run(&blockForever);
        sem_wait(&g_started);  // the parent kills this process if a task never starts
    }
    for (int i = 0; i < queued; ++i) {
        kiv_shared_ptr<ReportsRelease> parameter(new ReportsRelease);
        run(&mustNotRun, &parameter);
    }
    if (g_pool->queuedTaskCount() != queued) {
        return 4;  // they must wait behind the blocked ones
    }
    if (strcmp(argv[1], "exit-in-task") == 0) {
        run(&exitFromWorker);  // needs a free worker: the parent leaves one
        sleepForever();
    }
    if (strcmp(argv[1], "exit") == 0) {
        exit(0);
    }
    return 0;
}
