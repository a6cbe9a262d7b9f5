#include "core/utility/Threads/GlobalThreadPool.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <climits>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "core/utility/Threads/AppThreadTask.h"

extern char** environ;

namespace {

using kiv::Memory::kiv_shared_ptr;
using kiv::Memory::kiv_shared_ptr_base;
using kiv::Threads::ASRDispatchTaskBase;
using kiv::Threads::ASRDispatchTaskWithResPointer;
using kiv::Threads::GlobalThreadPool;
using namespace std::chrono_literals;

// A count that can be awaited, always with a bound; a count of 1 also serves as an open gate.
class Counter {
public:
    void add() {
        std::lock_guard<std::mutex> lock(m_);
        ++value_;
        cv_.notify_all();
    }
    bool waitFor(int target, std::chrono::milliseconds limit = 60s) {
        std::unique_lock<std::mutex> lock(m_);
        return cv_.wait_for(lock, limit, [&] { return value_ >= target; });
    }
    int value() {
        std::lock_guard<std::mutex> lock(m_);
        return value_;
    }

private:
    std::mutex m_;
    std::condition_variable cv_;
    int value_ = 0;
};

// Runs a function; counts its own release in `released`, if given.
class FnTask : public ASRDispatchTaskBase {
public:
    FnTask(std::function<void()> fn, Counter* released)
        : ASRDispatchTaskBase(nullptr, nullptr, nullptr), fn_(std::move(fn)), released_(released) {}
    ~FnTask() override {
        if (released_) {
            released_->add();
        }
    }
    void execute() override { fn_(); }

private:
    std::function<void()> fn_;
    Counter* released_;
};

kiv_shared_ptr<ASRDispatchTaskBase> makeTask(std::function<void()> fn,
                                             Counter* released = nullptr) {
    return kiv_shared_ptr<ASRDispatchTaskBase>(new FnTask(std::move(fn), released));
}

// Counts its start, waits for the gate, counts its end.
kiv_shared_ptr<ASRDispatchTaskBase> blocker(Counter& started, Counter& gate, Counter& finished) {
    return makeTask([&] {
        started.add();
        gate.waitFor(1);
        finished.add();
    });
}

// A pool of its own (not the process-wide one), started as the singleton would start it.
kiv_shared_ptr<GlobalThreadPool> makePool(int core, int max, int idleMs = 5000) {
    GlobalThreadPool::GLOBAL_POOL_THREAD_COUNT = core;
    GlobalThreadPool::MAX_POOL_THREAD_COUNT = max;
    GlobalThreadPool::EXTRA_WORKER_IDLE_MS = idleMs;
    kiv_shared_ptr<GlobalThreadPool> pool(new GlobalThreadPool);
    pool->initInstance();
    return pool;
}

// Polls a worker count, which has no condition to await; bounded.
template <typename Pred>
bool eventually(Pred pred) {
    const auto deadline = std::chrono::steady_clock::now() + 20s;
    while (!pred()) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        std::this_thread::sleep_for(2ms);
    }
    return true;
}

TEST(GlobalThreadPool, RunTaskAsyncReturnsAtOnceAndTwoLongTasksRunTogether) {
    auto pool = makePool(1, 1024);  // the second task needs a worker started for it
    EXPECT_FALSE(pool->runTaskAsync(kiv_shared_ptr<ASRDispatchTaskBase>()));
    Counter started, gate, finished;
    std::atomic<int> sawBoth{0};
    for (int i = 0; i < 2; ++i) {
        ASSERT_TRUE(pool->runTaskAsync(makeTask([&] {
            started.add();
            if (started.waitFor(2, 10s)) {  // true only if the other task runs meanwhile
                ++sawBoth;
            }
            gate.waitFor(1);
            finished.add();
        })));
    }
    // Only this thread opens the gate: a runTaskAsync that ran the task would not have returned.
    EXPECT_EQ(finished.value(), 0);
    gate.add();
    ASSERT_TRUE(finished.waitFor(2));
    EXPECT_EQ(sawBoth.load(), 2);
}

TEST(GlobalThreadPool, BurstOnAnIdlePoolStartsEveryBlockedTaskThenExtraWorkersEnd) {
    // More tasks than any fixed cap we ever had (1024), each blocking until all have started, on
    // four idle core workers: this holds only if no task waits for another (one streaming
    // transfer holds its worker for its whole length), and if a worker that was woken but has
    // not run yet no longer counts as idle for the next task.
    constexpr int kTasks = 1100;
    auto pool = makePool(4, INT_MAX, 200);  // no cap, as the process-wide pool
    ASSERT_TRUE(eventually([&] { return pool->idleWorkerCount() == 4; }));
    Counter started, gate, finished;
    for (int i = 0; i < kTasks; ++i) {
        ASSERT_TRUE(pool->runTaskAsync(blocker(started, gate, finished)));
    }
    const bool allStarted = started.waitFor(kTasks);
    EXPECT_EQ(pool->workerCount(), kTasks);  // 4 woken and 296 started: one per task
    gate.add();
    ASSERT_TRUE(allStarted) << "started " << started.value() << " of " << kTasks;
    ASSERT_TRUE(finished.waitFor(kTasks));
    // Workers above the core count end once idle; the core workers stay and still run work.
    EXPECT_TRUE(eventually([&] { return pool->workerCount() == 4; })) << pool->workerCount();
    Counter ran;
    ASSERT_TRUE(pool->runTaskAsync(makeTask([&] { ran.add(); })));
    EXPECT_TRUE(ran.waitFor(1));
}

// A member-function task whose instance and parameter count their destruction.
std::atomic<int> gCalls{0}, gInstancesGone{0}, gParametersGone{0};
struct Target {
    void run(kiv_shared_ptr_base* parameter) { gCalls += parameter ? 1 : 1000; }
    ~Target() { ++gInstancesGone; }
};
struct Parameter {
    ~Parameter() { ++gParametersGone; }
};

// "calls/parameters released/instances released"
std::string counts() {
    return std::to_string(gCalls) + "/" + std::to_string(gParametersGone) + "/" +
           std::to_string(gInstancesGone);
}

kiv_shared_ptr<ASRDispatchTaskBase> countedTask() {
    kiv_shared_ptr<Target> instance(new Target);
    kiv_shared_ptr<Parameter> parameter(new Parameter);
    return kiv_shared_ptr<ASRDispatchTaskBase>(
        new ASRDispatchTaskWithResPointer<Target>(instance, &Target::run, &parameter));
}

TEST(GlobalThreadPool, TaskParameterAndInstanceReleasedOnceWhetherItRunsOrNot) {
    auto pool = makePool(1, 1);  // one worker: a task queued behind a busy one waits
    Counter started, gate1, gate2, finished, after;
    ASSERT_TRUE(pool->runTaskAsync(blocker(started, gate1, finished)));
    ASSERT_TRUE(started.waitFor(1));
    ASSERT_TRUE(pool->runTaskAsync(countedTask()));  // waits past the cap and runs later
    ASSERT_TRUE(pool->runTaskAsync(makeTask([&] { after.add(); })));
    EXPECT_EQ(counts(), "0/0/0");
    gate1.add();
    ASSERT_TRUE(after.waitFor(1));
    EXPECT_EQ(counts(), "1/1/1");

    // Still queued when the pool goes: released by the destructor, which does not wait for the
    // busy worker (else the blocked task would have timed out and finished).
    ASSERT_TRUE(pool->runTaskAsync(blocker(started, gate2, finished)));
    ASSERT_TRUE(started.waitFor(2));
    ASSERT_TRUE(pool->runTaskAsync(countedTask()));
    pool = static_cast<GlobalThreadPool*>(nullptr);
    EXPECT_EQ(finished.value(), 1) << "the pool's destructor waited for a running task";
    EXPECT_EQ(counts(), "1/2/2");
    gate2.add();
    ASSERT_TRUE(finished.waitFor(2));  // the worker outlives the pool (ASan: no freed memory)
    EXPECT_EQ(counts(), "1/2/2");
}

TEST(GlobalThreadPool, MisbehavingTasksDoNotCostTheOnlyWorker) {
    auto pool = makePool(1, 1);
    Counter released, ran;
    ASSERT_TRUE(pool->runTaskAsync(
        makeTask([] { throw std::runtime_error("expected by the test"); }, &released)));
    ASSERT_TRUE(pool->runTaskAsync(makeTask([] { throw 42; }, &released)));
    // No pool lock is held while a task runs, so it may queue another.
    ASSERT_TRUE(pool->runTaskAsync(makeTask(
        [&ran, raw = pool.getPTR()] { raw->runTaskAsync(makeTask([&ran] { ran.add(); })); },
        &released)));
    ASSERT_TRUE(ran.waitFor(1));
    ASSERT_TRUE(released.waitFor(3));
    // A task that ends its thread: the worker is uncounted, so another starts under the cap of 1.
    ASSERT_TRUE(pool->runTaskAsync(makeTask([] { pthread_exit(nullptr); }, &released)));
    ASSERT_TRUE(released.waitFor(4));
    ASSERT_TRUE(eventually([&] { return pool->workerCount() == 0; }));
    ASSERT_TRUE(pool->runTaskAsync(makeTask([&] { ran.add(); })));
    EXPECT_TRUE(ran.waitFor(2));
}

// Runs pool_exit_child with `args`; kills it if it is still there 20 s after its last report.
// Returns its exit status (128 + signal when killed, so neither a hang nor a sanitizer abort
// reads as 0) and its reports, sorted.
std::pair<int, std::string> runChild(std::vector<std::string> args) {
    int fds[2];
    if (pipe(fds) != 0) {
        return {-1, "pipe failed"};
    }
    args.insert(args.begin(), POOL_EXIT_CHILD);
    args.push_back(std::to_string(fds[1]));
    std::vector<char*> argv;
    for (std::string& arg : args) {
        argv.push_back(&arg[0]);
    }
    argv.push_back(nullptr);
    pid_t pid = -1;
    if (posix_spawn(&pid, POOL_EXIT_CHILD, nullptr, nullptr, argv.data(), environ) != 0) {
        return {-1, "posix_spawn failed"};
    }
    close(fds[1]);
    std::string reports;
    pollfd pipeEnd{fds[0], POLLIN, 0};
    char c;
    int polled = 0;
    // End-of-file once the child's exit has closed its files.
    while ((polled = poll(&pipeEnd, 1, 20000)) > 0 && read(fds[0], &c, 1) == 1) {
        reports += c;
    }
    close(fds[0]);
    if (polled == 0) {
        kill(pid, SIGKILL);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    std::sort(reports.begin(), reports.end());
    return {WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status), reports};
}

// Process exit with the process-wide pool busy: the child must end at once with status 0 (a
// sanitizer report changes it), releasing every never-started task once and running none.
TEST(GlobalThreadPoolExit, ProcessEndsWithTasksBlockedForeverAndNeverStarted) {
    // Two core workers and a cap of four: four tasks block forever and five stay queued.
    for (const char* mode : {"return", "exit"}) {
        auto result = runChild({mode, "2", "4", "4", "5"});
        EXPECT_EQ(result.first, 0) << mode << ": " << result.second;
        EXPECT_EQ(result.second, "RRRRRSSSS") << mode;
    }
    // exit() from a task while two others block and a core worker idles: the pool goes on a
    // worker thread.
    auto result = runChild({"exit-in-task", "4", "1024", "2", "0"});
    EXPECT_EQ(result.first, 0) << result.second;
    EXPECT_EQ(result.second, "SS");
}

}  // namespace
