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
#include <condition_variable>
#include <functional>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "core/utility/Memory/singleton.h"
#include "core/utility/Threads/AppThreadTask.h"

extern char** environ;

namespace {

using kiv::Memory::kiv_shared_ptr;
using kiv::Memory::kiv_shared_ptr_base;
using kiv::Memory::Singleton;
using kiv::Threads::ASRDispatchTaskBase;
using kiv::Threads::ASRDispatchTaskWithResPointer;
using kiv::Threads::GlobalThreadPool;
using namespace std::chrono_literals;

// ---------------------------------------------------------------------------------------------
// Helpers: a counter that can be awaited and a gate that blocks tasks until opened. Every wait
// is bounded.

class Counter {
public:
    void add(int n = 1) {
        std::lock_guard<std::mutex> lock(m_);
        value_ += n;
        cv_.notify_all();
    }
    bool waitAtLeast(int target, std::chrono::milliseconds limit) {
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

class Gate {
public:
    void open() {
        std::lock_guard<std::mutex> lock(m_);
        open_ = true;
        cv_.notify_all();
    }
    bool wait(std::chrono::milliseconds limit = 30s) {
        std::unique_lock<std::mutex> lock(m_);
        return cv_.wait_for(lock, limit, [&] { return open_; });
    }

private:
    std::mutex m_;
    std::condition_variable cv_;
    bool open_ = false;
};

// A task that runs a function; optionally reports its own destruction.
class FnTask : public ASRDispatchTaskBase {
public:
    explicit FnTask(std::function<void()> fn, Counter* released = nullptr)
        : ASRDispatchTaskBase(nullptr, nullptr, nullptr), fn_(std::move(fn)), released_(released) {}
    ~FnTask() override {
        fn_ = nullptr;  // drop what the function captured before reporting
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

struct PoolConfig {
    int core = 4;
    int max = 1024;
    int idleMs = 5000;
};

// A pool of its own (not the process-wide one), started as the singleton would start it.
// `make` builds the pool object (default: a plain GlobalThreadPool) while `config` is in force.
kiv_shared_ptr<GlobalThreadPool> makePool(
    PoolConfig config, const std::function<GlobalThreadPool*()>& make = nullptr) {
    const int core = GlobalThreadPool::GLOBAL_POOL_THREAD_COUNT;
    const int max = GlobalThreadPool::MAX_POOL_THREAD_COUNT;
    const int idle = GlobalThreadPool::EXTRA_WORKER_IDLE_MS;
    GlobalThreadPool::GLOBAL_POOL_THREAD_COUNT = config.core;
    GlobalThreadPool::MAX_POOL_THREAD_COUNT = config.max;
    GlobalThreadPool::EXTRA_WORKER_IDLE_MS = config.idleMs;
    kiv_shared_ptr<GlobalThreadPool> pool(make ? make() : new GlobalThreadPool);
    GlobalThreadPool::GLOBAL_POOL_THREAD_COUNT = core;
    GlobalThreadPool::MAX_POOL_THREAD_COUNT = max;
    GlobalThreadPool::EXTRA_WORKER_IDLE_MS = idle;
    pool->initInstance();
    return pool;
}

// Polls a diagnostic count (there is no condition to await for it), bounded.
template <typename Pred>
bool eventually(Pred pred, std::chrono::milliseconds limit = 10s) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!pred()) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        std::this_thread::sleep_for(2ms);
    }
    return true;
}

// ---------------------------------------------------------------------------------------------

TEST(GlobalThreadPool, RunTaskAsyncReturnsBeforeTheTaskRuns) {
    auto pool = makePool({1, 1024, 5000});
    Gate gate;
    Counter finished;
    std::atomic<bool> done{false};
    EXPECT_TRUE(pool->runTaskAsync(makeTask([&] {
        gate.wait();
        done = true;
        finished.add();
    })));
    // The task cannot have finished: it waits for the gate, which only this thread opens.
    EXPECT_FALSE(done.load());
    gate.open();
    ASSERT_TRUE(finished.waitAtLeast(1, 10s));
    EXPECT_TRUE(done.load());
}

TEST(GlobalThreadPool, WorkerThreadsAreNamed) {
    auto pool = makePool({1, 1024, 5000});
    Counter done;
    std::string name;
    ASSERT_TRUE(pool->runTaskAsync(makeTask([&] {
        char buffer[16] = {};
        pthread_getname_np(pthread_self(), buffer, sizeof buffer);
        name = buffer;
        done.add();
    })));
    ASSERT_TRUE(done.waitAtLeast(1, 10s));
    EXPECT_EQ(name.rfind("kiv-pool-", 0), 0u) << name;
}

TEST(GlobalThreadPool, EmptyTaskReferenceIsRefused) {
    auto pool = makePool({1, 1024, 5000});
    EXPECT_FALSE(pool->runTaskAsync(kiv_shared_ptr<ASRDispatchTaskBase>()));
    EXPECT_EQ(pool->queuedTaskCount(), 0);
}

TEST(GlobalThreadPool, TwoLongTasksRunAtTheSameTime) {
    // One core worker: the second task needs a worker started for it.
    auto pool = makePool({1, 1024, 5000});
    Counter started;
    Counter sawBoth;
    Counter finished;
    for (int i = 0; i < 2; ++i) {
        ASSERT_TRUE(pool->runTaskAsync(makeTask([&] {
            started.add();
            if (started.waitAtLeast(2, 10s)) {  // only true if the other one runs meanwhile
                sawBoth.add();
            }
            finished.add();
        })));
    }
    ASSERT_TRUE(finished.waitAtLeast(2, 20s));
    EXPECT_EQ(sawBoth.value(), 2);
}

TEST(GlobalThreadPool, TaskFieldsWrittenBeforeQueueingAreVisibleToTheWorker) {
    // Plain (non-atomic) fields written after the task is built and before it is queued:
    // the hand-off must order them before execute() (ThreadSanitizer checks it too).
    struct FieldTask : ASRDispatchTaskBase {
        FieldTask() : ASRDispatchTaskBase(nullptr, nullptr, nullptr) {}
        void execute() override {
            if (value == expected && value != 0) {
                ok->add();
            }
            done->add();
        }
        int value = 0;
        int expected = -1;
        Counter* ok = nullptr;
        Counter* done = nullptr;
    };
    auto pool = makePool({2, 1024, 5000});
    Counter ok;
    Counter done;
    constexpr int kTasks = 200;
    for (int i = 0; i < kTasks; ++i) {
        auto* raw = new FieldTask;
        kiv_shared_ptr<ASRDispatchTaskBase> task(raw);
        raw->value = i + 1;
        raw->expected = i + 1;
        raw->ok = &ok;
        raw->done = &done;
        ASSERT_TRUE(pool->runTaskAsync(task));
    }
    ASSERT_TRUE(done.waitAtLeast(kTasks, 10s));
    EXPECT_EQ(ok.value(), kTasks);
}

TEST(GlobalThreadPool, BurstOnAnIdlePoolStartsOneWorkerPerBlockedTask) {
    auto pool = makePool({4, 1024, 5000});
    ASSERT_TRUE(eventually([&] { return pool->idleWorkerCount() == 4; }));
    Gate gate;
    Counter started;
    Counter finished;
    for (int i = 0; i < 8; ++i) {
        ASSERT_TRUE(pool->runTaskAsync(makeTask([&] {
            started.add();
            gate.wait();
            finished.add();
        })));
    }
    const bool allStarted = started.waitAtLeast(8, 20s);
    // Four idle workers were woken and four were started: a worker that has been woken but has
    // not run yet must not be counted idle for the next task.
    EXPECT_EQ(pool->workerCount(), 8);
    EXPECT_EQ(pool->queuedTaskCount(), 0);
    gate.open();
    ASSERT_TRUE(allStarted) << "started " << started.value() << " of 8";
    ASSERT_TRUE(finished.waitAtLeast(8, 20s));
}

TEST(GlobalThreadPool, ThreeHundredBlockedTasksAllStartWithoutWaitingForEachOther) {
    auto pool = makePool({4, 1024, 5000});
    ASSERT_TRUE(eventually([&] { return pool->idleWorkerCount() == 4; }));
    constexpr int kTasks = 300;
    Gate gate;
    Counter started;
    Counter finished;
    for (int i = 0; i < kTasks; ++i) {
        ASSERT_TRUE(pool->runTaskAsync(makeTask([&] {
            started.add();
            gate.wait(60s);
            finished.add();
        })));
    }
    // Every task blocks until the gate opens, and the gate opens only after all have started:
    // this holds only if no task waits for another to finish.
    const bool allStarted = started.waitAtLeast(kTasks, 60s);
    EXPECT_GE(pool->workerCount(), kTasks);
    gate.open();
    ASSERT_TRUE(allStarted) << "started " << started.value() << " of " << kTasks;
    ASSERT_TRUE(finished.waitAtLeast(kTasks, 60s));
}

TEST(GlobalThreadPool, TasksBeyondTheCapQueueAndRunLater) {
    auto pool = makePool({1, 3, 5000});
    Gate gate;
    Counter started;
    Counter finished;
    for (int i = 0; i < 5; ++i) {
        ASSERT_TRUE(pool->runTaskAsync(makeTask([&] {
            started.add();
            gate.wait();
            finished.add();
        })));
    }
    const bool threeStarted = started.waitAtLeast(3, 10s);
    EXPECT_EQ(pool->workerCount(), 3);
    EXPECT_EQ(pool->queuedTaskCount(), 2);
    gate.open();
    ASSERT_TRUE(threeStarted);
    ASSERT_TRUE(finished.waitAtLeast(5, 10s));
    EXPECT_EQ(started.value(), 5);
}

TEST(GlobalThreadPool, IdleExtraWorkersEndAndCoreWorkersStay) {
    auto pool = makePool({2, 1024, 200});
    Gate gate;
    Counter started;
    Counter finished;
    for (int i = 0; i < 10; ++i) {
        ASSERT_TRUE(pool->runTaskAsync(makeTask([&] {
            started.add();
            gate.wait();
            finished.add();
        })));
    }
    const bool allStarted = started.waitAtLeast(10, 20s);
    EXPECT_EQ(pool->workerCount(), 10);
    gate.open();
    ASSERT_TRUE(allStarted);
    ASSERT_TRUE(finished.waitAtLeast(10, 10s));
    EXPECT_TRUE(eventually([&] { return pool->workerCount() == 2; }))
        << "workers: " << pool->workerCount();
    // Longer than the idle timeout: the core workers do not end.
    std::this_thread::sleep_for(500ms);
    EXPECT_EQ(pool->workerCount(), 2);
    EXPECT_EQ(pool->idleWorkerCount(), 2);
    // And the shrunk pool still runs work.
    Counter ran;
    ASSERT_TRUE(pool->runTaskAsync(makeTask([&] { ran.add(); })));
    EXPECT_TRUE(ran.waitAtLeast(1, 10s));
}

// Counted target and parameter of a member-function dispatch task.
struct Target {
    static std::atomic<int> destroyed;
    static std::atomic<int> calls;
    static std::atomic<int> callsWithParameter;
    static Counter* gone;
    void run(kiv_shared_ptr_base* parameter) {
        ++calls;
        if (parameter) {
            ++callsWithParameter;
        }
    }
    ~Target() {
        ++destroyed;
        if (gone) {
            gone->add();
        }
    }
};
std::atomic<int> Target::destroyed{0};
std::atomic<int> Target::calls{0};
std::atomic<int> Target::callsWithParameter{0};
Counter* Target::gone = nullptr;

struct Parameter {
    static std::atomic<int> destroyed;
    ~Parameter() { ++destroyed; }
};
std::atomic<int> Parameter::destroyed{0};

kiv_shared_ptr<ASRDispatchTaskBase> makeCountedDispatchTask() {
    kiv_shared_ptr<Target> instance(new Target);
    kiv_shared_ptr<Parameter> parameter(new Parameter);
    return kiv_shared_ptr<ASRDispatchTaskBase>(
        new ASRDispatchTaskWithResPointer<Target>(instance, &Target::run, &parameter));
}

void resetCounts(Counter* gone) {
    Target::destroyed = 0;
    Target::calls = 0;
    Target::callsWithParameter = 0;
    Target::gone = gone;
    Parameter::destroyed = 0;
}

TEST(GlobalThreadPool, DispatchTaskThatRunsReleasesParameterAndInstanceOnce) {
    Counter gone;
    resetCounts(&gone);
    auto pool = makePool({2, 1024, 5000});
    ASSERT_TRUE(pool->runTaskAsync(makeCountedDispatchTask()));
    ASSERT_TRUE(gone.waitAtLeast(1, 10s));
    EXPECT_EQ(Target::calls.load(), 1);
    EXPECT_EQ(Target::callsWithParameter.load(), 1);
    EXPECT_EQ(Parameter::destroyed.load(), 1);
    EXPECT_EQ(Target::destroyed.load(), 1);
    pool = static_cast<GlobalThreadPool*>(nullptr);
    EXPECT_EQ(Parameter::destroyed.load(), 1);
    EXPECT_EQ(Target::destroyed.load(), 1);
    Target::gone = nullptr;
}

TEST(GlobalThreadPool, DispatchTaskThatNeverRunsIsReleasedOnceWhenThePoolGoes) {
    Counter gone;
    resetCounts(&gone);
    auto pool = makePool({1, 1, 5000});
    Gate gate;
    Counter started;
    Counter finished;
    ASSERT_TRUE(pool->runTaskAsync(makeTask([&] {
        started.add();
        gate.wait();
        finished.add();
    })));
    ASSERT_TRUE(started.waitAtLeast(1, 10s));
    ASSERT_TRUE(pool->runTaskAsync(makeCountedDispatchTask()));
    EXPECT_EQ(pool->queuedTaskCount(), 1);
    EXPECT_EQ(Parameter::destroyed.load(), 0);
    EXPECT_EQ(Target::destroyed.load(), 0);

    pool = static_cast<GlobalThreadPool*>(nullptr);  // the only worker is still busy
    EXPECT_EQ(Target::calls.load(), 0);
    EXPECT_EQ(Parameter::destroyed.load(), 1);
    EXPECT_EQ(Target::destroyed.load(), 1);

    gate.open();
    ASSERT_TRUE(finished.waitAtLeast(1, 10s));
    EXPECT_EQ(Target::calls.load(), 0);
    EXPECT_EQ(Parameter::destroyed.load(), 1);
    EXPECT_EQ(Target::destroyed.load(), 1);
    Target::gone = nullptr;
}

TEST(GlobalThreadPool, StopRunLoopTaskIsReleasedButNotRun) {
    auto pool = makePool({1, 1, 5000});
    Counter released;
    std::atomic<bool> ran{false};
    auto task = makeTask([&] { ran = true; }, &released);
    task->isStopRunLoopTask = true;
    ASSERT_TRUE(pool->runTaskAsync(task));
    task = static_cast<ASRDispatchTaskBase*>(nullptr);
    ASSERT_TRUE(released.waitAtLeast(1, 10s));
    EXPECT_FALSE(ran.load());
    // The worker carries on.
    Counter after;
    ASSERT_TRUE(pool->runTaskAsync(makeTask([&] { after.add(); })));
    EXPECT_TRUE(after.waitAtLeast(1, 10s));
}

TEST(GlobalThreadPool, TaskThatThrowsDoesNotEndItsWorker) {
    auto pool = makePool({1, 1, 5000});
    Counter released;
    ASSERT_TRUE(pool->runTaskAsync(makeTask(
        [] { throw std::runtime_error("task failure (expected by the test)"); }, &released)));
    ASSERT_TRUE(pool->runTaskAsync(makeTask([] { throw 42; }, &released)));
    ASSERT_TRUE(released.waitAtLeast(2, 10s));
    Counter after;
    ASSERT_TRUE(pool->runTaskAsync(makeTask([&] { after.add(); })));
    EXPECT_TRUE(after.waitAtLeast(1, 10s));
    EXPECT_EQ(pool->workerCount(), 1);
}

TEST(GlobalThreadPool, TaskThatEndsItsThreadIsUncountedAndReplaced) {
    auto pool = makePool({1, 1, 5000});
    Counter released;
    ASSERT_TRUE(pool->runTaskAsync(makeTask([] { pthread_exit(nullptr); }, &released)));
    ASSERT_TRUE(released.waitAtLeast(1, 10s));
    EXPECT_TRUE(eventually([&] { return pool->workerCount() == 0; }));
    // The cap is 1, and the ended worker no longer counts: a new one is started.
    Counter after;
    ASSERT_TRUE(pool->runTaskAsync(makeTask([&] { after.add(); })));
    EXPECT_TRUE(after.waitAtLeast(1, 10s));
}

TEST(GlobalThreadPool, TaskMayQueueFurtherTasks) {
    auto pool = makePool({1, 1, 5000});  // one worker: the inner task runs after the outer
    GlobalThreadPool* raw = pool.getPTR();
    Counter inner;
    ASSERT_TRUE(pool->runTaskAsync(
        makeTask([&inner, raw] { raw->runTaskAsync(makeTask([&inner] { inner.add(); })); })));
    EXPECT_TRUE(inner.waitAtLeast(1, 10s));
}

// Records its destruction, to tell when (and on which thread) the pool went.
class ObservedPool : public GlobalThreadPool {
public:
    explicit ObservedPool(Counter* destroyed) : destroyed_(destroyed) {}
    ~ObservedPool() override {
        destroyedOn = std::this_thread::get_id();
        destroyed_->add();
    }
    static std::thread::id destroyedOn;

private:
    Counter* destroyed_;
};
std::thread::id ObservedPool::destroyedOn;

TEST(GlobalThreadPool, DestroyingThePoolDoesNotWaitForRunningTasks) {
    Counter poolGone;
    auto pool = makePool({2, 1024, 5000}, [&] { return new ObservedPool(&poolGone); });
    Gate gate;
    Counter started;
    Counter finished;
    Counter released;
    for (int i = 0; i < 3; ++i) {
        ASSERT_TRUE(pool->runTaskAsync(makeTask(
            [&] {
                started.add();
                gate.wait();
                finished.add();
            },
            &released)));
    }
    ASSERT_TRUE(started.waitAtLeast(3, 10s));
    // Drop the last reference on another thread; a destructor that waited for the busy
    // workers would never return while the gate is shut.
    Counter dropped;
    std::thread dropper([&pool, &dropped] {
        pool = static_cast<GlobalThreadPool*>(nullptr);
        dropped.add();  // the whole destructor chain has returned
    });
    const bool returned = dropped.waitAtLeast(1, 10s);
    EXPECT_EQ(finished.value(), 0);
    gate.open();
    dropper.join();
    ASSERT_TRUE(returned) << "the destructor waited for running tasks";
    EXPECT_EQ(poolGone.value(), 1);
    // The workers finish their tasks after the pool has gone, release them and end; they touch
    // only the state they co-own (AddressSanitizer would see a use of freed memory).
    ASSERT_TRUE(finished.waitAtLeast(3, 10s));
    ASSERT_TRUE(released.waitAtLeast(3, 10s));
}

TEST(GlobalThreadPool, PoolMayBeDestroyedOnItsOwnWorker) {
    Counter poolGone;
    auto pool = makePool({1, 1024, 5000}, [&] { return new ObservedPool(&poolGone); });
    Gate gate;
    Counter released;
    std::thread::id workerId;
    // The task holds the last reference to the pool once the test lets go of it.
    kiv_shared_ptr<GlobalThreadPool> captured = pool;
    ASSERT_TRUE(pool->runTaskAsync(makeTask(
        [&gate, &workerId, captured] {
            workerId = std::this_thread::get_id();
            gate.wait();
        },
        &released)));
    captured = static_cast<GlobalThreadPool*>(nullptr);
    pool = static_cast<GlobalThreadPool*>(nullptr);
    EXPECT_EQ(poolGone.value(), 0);
    gate.open();
    ASSERT_TRUE(poolGone.waitAtLeast(1, 10s));
    ASSERT_TRUE(released.waitAtLeast(1, 10s));
    EXPECT_EQ(ObservedPool::destroyedOn, workerId);
}

TEST(GlobalThreadPool, SingletonGivesOnePoolThatRunsTasks) {
    kiv_shared_ptr<GlobalThreadPool> a = Singleton<GlobalThreadPool>::instance();
    kiv_shared_ptr<GlobalThreadPool> b = Singleton<GlobalThreadPool>::instance();
    ASSERT_NE(a.getPTR(), nullptr);
    EXPECT_EQ(a.getPTR(), b.getPTR());
    EXPECT_GE(a->workerCount(), 1);
    Counter ran;
    ASSERT_TRUE(a->runTaskAsync(makeTask([&] { ran.add(); })));
    EXPECT_TRUE(ran.waitAtLeast(1, 10s));
}

// ---------------------------------------------------------------------------------------------
// Process exit while transfers are blocked or queued: runs pool_exit_child, which exits with
// the process-wide pool busy; the process must end at once, with status 0 (a sanitizer report
// changes the status), having released every queued task and run none of them.

struct ChildResult {
    bool ended = false;  // within the time limit
    int status = 0;
    std::string reports;
};

ChildResult runChild(const std::vector<std::string>& args, std::chrono::milliseconds limit) {
    ChildResult result;
    int fds[2];
    if (pipe(fds) != 0) {
        ADD_FAILURE() << "pipe failed";
        return result;
    }
    std::vector<std::string> argv = {POOL_EXIT_CHILD};
    argv.insert(argv.end(), args.begin(), args.end());
    argv.push_back(std::to_string(fds[1]));
    std::vector<char*> cargv;
    for (auto& a : argv) {
        cargv.push_back(a.data());
    }
    cargv.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addclose(&actions, fds[0]);
    pid_t pid = -1;
    int rc = posix_spawn(&pid, POOL_EXIT_CHILD, &actions, nullptr, cargv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(fds[1]);
    if (rc != 0) {
        close(fds[0]);
        ADD_FAILURE() << "posix_spawn failed: " << rc;
        return result;
    }

    const auto deadline = std::chrono::steady_clock::now() + limit;
    auto remainingMs = [&] {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        return left.count() > 0 ? static_cast<int>(left.count()) : 0;
    };
    // The pipe reaches end-of-file when the child process is gone.
    bool eof = false;
    while (!eof && remainingMs() > 0) {
        pollfd p{fds[0], POLLIN, 0};
        if (poll(&p, 1, remainingMs()) <= 0) {
            continue;
        }
        char buffer[256];
        ssize_t n = read(fds[0], buffer, sizeof buffer);
        if (n > 0) {
            result.reports.append(buffer, static_cast<size_t>(n));
        } else if (n == 0) {
            eof = true;
        }
    }
    close(fds[0]);
    for (;;) {
        int status = 0;
        pid_t done = waitpid(pid, &status, WNOHANG);
        if (done == pid) {
            result.ended = true;
            result.status = status;
            break;
        }
        if (remainingMs() == 0) {
            kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
            break;
        }
        std::this_thread::sleep_for(5ms);
    }
    return result;
}

size_t countOf(const std::string& s, char c) {
    return std::count(s.begin(), s.end(), c);
}

void expectCleanExit(const ChildResult& r) {
    ASSERT_TRUE(r.ended) << "the child did not end within the limit (reports: " << r.reports << ")";
    ASSERT_TRUE(WIFEXITED(r.status))
        << "killed by signal " << (WIFSIGNALED(r.status) ? WTERMSIG(r.status) : 0);
    EXPECT_EQ(WEXITSTATUS(r.status), 0) << "reports: " << r.reports;
}

constexpr auto kChildLimit = 20s;

TEST(GlobalThreadPoolExit, ReturnFromMainWithTransfersBlockedAndQueued) {
    // 2 core workers, a cap of 4: four tasks block forever, five more stay queued.
    ChildResult r = runChild({"return", "2", "4", "4", "5"}, kChildLimit);
    expectCleanExit(r);
    EXPECT_EQ(countOf(r.reports, 'S'), 4u) << r.reports;
    EXPECT_EQ(countOf(r.reports, 'Q'), 1u) << r.reports;
    EXPECT_EQ(countOf(r.reports, 'E'), 1u) << r.reports;
    EXPECT_EQ(countOf(r.reports, 'R'), 5u) << "queued tasks not released at exit: " << r.reports;
    EXPECT_EQ(countOf(r.reports, 'X'), 0u) << r.reports;
}

TEST(GlobalThreadPoolExit, ExitCallWithTransfersBlockedAndQueued) {
    ChildResult r = runChild({"exit", "2", "4", "4", "5"}, kChildLimit);
    expectCleanExit(r);
    EXPECT_EQ(countOf(r.reports, 'S'), 4u) << r.reports;
    EXPECT_EQ(countOf(r.reports, 'R'), 5u) << "queued tasks not released at exit: " << r.reports;
    EXPECT_EQ(countOf(r.reports, 'X'), 0u) << r.reports;
}

TEST(GlobalThreadPoolExit, ExitWithBusyAndIdleWorkers) {
    // All busy: 4 core workers and 2 extra ones, each blocked.
    ChildResult busy = runChild({"exit", "4", "1024", "6", "0"}, kChildLimit);
    expectCleanExit(busy);
    EXPECT_EQ(countOf(busy.reports, 'S'), 6u) << busy.reports;

    // Two busy, two idle: the destructor wakes the idle ones, which end.
    ChildResult mixed = runChild({"return", "4", "1024", "2", "0"}, kChildLimit);
    expectCleanExit(mixed);
    EXPECT_EQ(countOf(mixed.reports, 'S'), 2u) << mixed.reports;
}

TEST(GlobalThreadPoolExit, ExitCalledFromATaskWhileOthersAreBlocked) {
    // The pool is destroyed on the worker that calls exit().
    ChildResult r = runChild({"exit-in-task", "2", "1024", "3", "0"}, kChildLimit);
    expectCleanExit(r);
    EXPECT_EQ(countOf(r.reports, 'S'), 3u) << r.reports;
    EXPECT_EQ(countOf(r.reports, 'E'), 1u) << r.reports;
}

}  // namespace
