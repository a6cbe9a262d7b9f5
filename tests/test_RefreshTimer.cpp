#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "core/utility/Threads/kiv_Timer_refresh.h"

using kiv::Memory::kiv_shared_ptr;
using kiv::Threads::ASRDispatchTaskBase;
using kiv::Threads::RefreshTimer;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

namespace {

// What a test sees of its tasks: how many are alive and whatever the bodies record, under one
// lock whose condition is notified on every change. Tasks own it through a shared_ptr, so a task
// that outlives a failed test never touches freed memory.
struct Probe {
    std::mutex mutex;
    std::condition_variable changed;
    int live = 0;
    int runs = 0;

    void update(const std::function<void()>& change) {
        std::lock_guard<std::mutex> lock(mutex);
        change();
        changed.notify_all();
    }
    bool waitFor(const std::function<bool()>& done, milliseconds limit = milliseconds(10000)) {
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_for(lock, limit, done);
    }
};

class ProbeTask : public ASRDispatchTaskBase {
public:
    ProbeTask(std::shared_ptr<Probe> probe, std::function<void()> body)
        : ASRDispatchTaskBase(nullptr, nullptr, nullptr),
          probe_(std::move(probe)),
          body_(std::move(body)) {
        probe_->update([this] { ++probe_->live; });
    }
    ~ProbeTask() override {
        probe_->update([this] { --probe_->live; });
    }
    void execute() override {
        if (body_) {
            body_();
        }
        probe_->update([this] { ++probe_->runs; });
    }

private:
    std::shared_ptr<Probe> probe_;
    std::function<void()> body_;
};

kiv_shared_ptr<ASRDispatchTaskBase> task(const std::shared_ptr<Probe>& probe,
                                         std::function<void()> body = nullptr) {
    return kiv_shared_ptr<ASRDispatchTaskBase>(new ProbeTask(probe, std::move(body)));
}

// Waits for a child process to end; kills it and returns -1 if it takes longer than `limit`.
int waitChild(pid_t pid, std::chrono::seconds limit) {
    std::promise<int> ended;
    std::future<int> status = ended.get_future();
    std::thread waiter([&] {
        int raw = 0;
        waitpid(pid, &raw, 0);
        ended.set_value(WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw));
    });
    bool inTime = status.wait_for(limit) == std::future_status::ready;
    if (!inTime) {
        kill(pid, SIGKILL);
    }
    waiter.join();
    return inTime ? status.get() : -1;
}

#if defined(__SANITIZE_THREAD__)
#define KIV_TSAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define KIV_TSAN 1
#endif
#endif

// Creates a timer and waits until it has fired and its task is released: every timer created and
// due before it has had its turn on the timer thread by then.
void drainTimerThread(int timeoutMS) {
    auto probe = std::make_shared<Probe>();
    RefreshTimer::createTimerWithTask(task(probe), timeoutMS);
    ASSERT_TRUE(probe->waitFor([&] { return probe->runs == 1 && probe->live == 0; }));
}

}  // namespace

TEST(RefreshTimerTest, RefreshKeepsItQuietThenItFiresOnceNoEarlierThanTimeout) {
    auto probe = std::make_shared<Probe>();
    auto firedAt = std::make_shared<Clock::time_point>();
    kiv_shared_ptr<RefreshTimer> timer = RefreshTimer::createTimerWithTask(
        task(probe, [probe, firedAt] { probe->update([&] { *firedAt = Clock::now(); }); }), 200);
    ASSERT_TRUE(timer != nullptr);

    Clock::time_point lastArmed = Clock::now();
    int refreshed = 0;
    for (int i = 0; i < 20; ++i) {
        std::this_thread::sleep_for(milliseconds(50));  // pacing, not synchronisation
        Clock::time_point before = Clock::now();
        if (!timer->refresh()) {
            break;  // only a stall of 200 ms since lastArmed lets it fire; checked below
        }
        lastArmed = before;
        ++refreshed;
    }
    ASSERT_TRUE(probe->waitFor([&] { return probe->runs == 1; }));
    EXPECT_GE(*firedAt - lastArmed, milliseconds(200)) << "after " << refreshed << " refreshes";
    EXPECT_FALSE(timer->refresh()) << "a fired timer must stay disarmed";
    EXPECT_FALSE(timer->cancel());

    drainTimerThread(250);
    std::lock_guard<std::mutex> lock(probe->mutex);
    EXPECT_EQ(probe->runs, 1);
    EXPECT_EQ(probe->live, 0) << "firing must drop the timer's task";
}

TEST(RefreshTimerTest, TimerFiresAndReleasesItsTaskWithoutAnOutsideReference) {
    auto probe = std::make_shared<Probe>();
    RefreshTimer::createTimerWithTask(task(probe), 20);  // the returned reference is dropped
    EXPECT_TRUE(probe->waitFor([&] { return probe->runs == 1 && probe->live == 0; }));
}

TEST(RefreshTimerTest, CancelledTimerNeverRunsAndReleasesItsTask) {
    auto probe = std::make_shared<Probe>();
    kiv_shared_ptr<RefreshTimer> timer = RefreshTimer::createTimerWithTask(task(probe), 100);
    {
        std::lock_guard<std::mutex> lock(probe->mutex);
        ASSERT_EQ(probe->live, 1);
    }
    EXPECT_TRUE(timer->cancel());
    {
        std::lock_guard<std::mutex> lock(probe->mutex);
        EXPECT_EQ(probe->live, 0) << "cancel() must drop the task while the timer lives on";
    }
    EXPECT_FALSE(timer->cancel());
    EXPECT_FALSE(timer->refresh());

    drainTimerThread(200);
    std::lock_guard<std::mutex> lock(probe->mutex);
    EXPECT_EQ(probe->runs, 0);
}

TEST(RefreshTimerTest, TaskCancelsItsOwnTimerAndAnotherOne) {
    struct Shared {
        std::mutex mutex;
        std::condition_variable ready;
        kiv_shared_ptr<RefreshTimer> own, other;
        bool set = false;
        int ownCancel = -1, ownRefresh = -1, otherCancel = -1;
    };
    auto shared = std::make_shared<Shared>();
    auto probe = std::make_shared<Probe>();
    auto otherProbe = std::make_shared<Probe>();
    auto body = [shared] {
        std::unique_lock<std::mutex> lock(shared->mutex);
        if (!shared->ready.wait_for(lock, milliseconds(10000), [&] { return shared->set; })) {
            return;
        }
        shared->ownCancel = shared->own->cancel();
        shared->ownRefresh = shared->own->refresh();
        shared->otherCancel = shared->other->cancel();
    };
    kiv_shared_ptr<RefreshTimer> own = RefreshTimer::createTimerWithTask(task(probe, body), 10);
    kiv_shared_ptr<RefreshTimer> other = RefreshTimer::createTimerWithTask(task(otherProbe), 60000);
    {
        std::lock_guard<std::mutex> lock(shared->mutex);
        shared->own = own;
        shared->other = other;
        shared->set = true;
    }
    shared->ready.notify_all();
    ASSERT_TRUE(probe->waitFor([&] { return probe->runs == 1; }));

    std::lock_guard<std::mutex> lock(shared->mutex);
    EXPECT_EQ(shared->ownCancel, 0) << "a running timer is no longer armed";
    EXPECT_EQ(shared->ownRefresh, 0);
    EXPECT_EQ(shared->otherCancel, 1);
    std::lock_guard<std::mutex> otherLock(otherProbe->mutex);
    EXPECT_EQ(otherProbe->live, 0);
    EXPECT_EQ(otherProbe->runs, 0);
}

TEST(RefreshTimerTest, CancelFromAnotherThreadDoesNotWaitForTheRunningTask) {
    struct Latch {
        std::mutex mutex;
        std::condition_variable changed;
        bool started = false, released = false, finished = false;
    };
    auto latch = std::make_shared<Latch>();
    auto probe = std::make_shared<Probe>();
    kiv_shared_ptr<RefreshTimer> timer = RefreshTimer::createTimerWithTask(
        task(probe,
             [latch] {
                 std::unique_lock<std::mutex> lock(latch->mutex);
                 latch->started = true;
                 latch->changed.notify_all();
                 latch->changed.wait_for(lock, milliseconds(10000),
                                         [&] { return latch->released; });
                 latch->finished = true;
                 latch->changed.notify_all();
             }),
        10);
    {
        std::unique_lock<std::mutex> lock(latch->mutex);
        ASSERT_TRUE(
            latch->changed.wait_for(lock, milliseconds(10000), [&] { return latch->started; }));
    }
    EXPECT_FALSE(timer->cancel());
    {
        std::lock_guard<std::mutex> lock(latch->mutex);
        EXPECT_FALSE(latch->finished) << "cancel() waited for the task";
        latch->released = true;
    }
    latch->changed.notify_all();
    timer = static_cast<RefreshTimer*>(nullptr);
    EXPECT_TRUE(probe->waitFor([&] { return probe->live == 0; }));
}

TEST(RefreshTimerTest, TaskCreatesAndRefreshesTimersOnTheTimerThread) {
    auto late = std::make_shared<Probe>();
    auto lateFiredAt = std::make_shared<Clock::time_point>();
    kiv_shared_ptr<RefreshTimer> lateTimer = RefreshTimer::createTimerWithTask(
        task(late, [late, lateFiredAt] { late->update([&] { *lateFiredAt = Clock::now(); }); }),
        300);

    auto created = std::make_shared<Probe>();
    auto refreshedAt = std::make_shared<Clock::time_point>();
    auto refreshOk = std::make_shared<bool>(false);
    auto starter = std::make_shared<Probe>();
    RefreshTimer::createTimerWithTask(task(starter,
                                           [=] {
                                               *refreshedAt = Clock::now();
                                               *refreshOk = lateTimer->refresh();
                                               RefreshTimer::createTimerWithTask(task(created), 30);
                                           }),
                                      20);

    ASSERT_TRUE(created->waitFor([&] { return created->runs == 1; }));
    ASSERT_TRUE(late->waitFor([&] { return late->runs == 1; }));
    ASSERT_TRUE(starter->waitFor([&] { return starter->runs == 1; }));
    EXPECT_TRUE(*refreshOk);
    EXPECT_GE(*lateFiredAt - *refreshedAt, milliseconds(300));
}

TEST(RefreshTimerTest, EarlierNewDeadlineWakesTheSleepingThread) {
    auto far = std::make_shared<Probe>();
    kiv_shared_ptr<RefreshTimer> farTimer = RefreshTimer::createTimerWithTask(task(far), 20000);
    drainTimerThread(10);
    // Lets the thread settle into its sleep toward farTimer's deadline. Not needed for the
    // outcome: a thread that is still awake finds the new timer on its own.
    std::this_thread::sleep_for(milliseconds(20));
    auto near = std::make_shared<Probe>();
    RefreshTimer::createTimerWithTask(task(near), 50);
    EXPECT_TRUE(near->waitFor([&] { return near->runs == 1; }, milliseconds(10000)));
    EXPECT_TRUE(farTimer->cancel());
}

TEST(RefreshTimerTest, ManyTimersOnManyThreadsFireOrCancelExactlyOnce) {
    const int kThreads = 4;
    const int kPerThread = 250;
    auto probe = std::make_shared<Probe>();
    // Owned by the tasks too, so a failed test leaves no task pointing into freed memory.
    auto fires = std::make_shared<std::vector<std::atomic<int>>>(kThreads * kPerThread);
    std::vector<int> cancelled(kThreads * kPerThread, 0);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            std::mt19937 random(1234 + t);
            std::vector<kiv_shared_ptr<RefreshTimer>> timers;
            for (int i = 0; i < kPerThread; ++i) {
                int index = t * kPerThread + i;
                // Half share one deadline, so that many expire together.
                int timeout = i % 2 ? 20 : static_cast<int>(random() % 30);
                timers.push_back(RefreshTimer::createTimerWithTask(
                    task(probe, [fires, index] { ++(*fires)[index]; }), timeout));
                timers[random() % timers.size()]->refresh();
            }
            for (int i = 0; i < kPerThread; i += 1 + random() % 3) {
                cancelled[t * kPerThread + i] = timers[i]->cancel() ? 1 : 0;
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    int expected = 0;
    for (int c : cancelled) {
        expected += 1 - c;
    }
    ASSERT_TRUE(probe->waitFor([&] { return probe->runs == expected; }));
    drainTimerThread(50);
    for (size_t i = 0; i < fires->size(); ++i) {
        ASSERT_EQ((*fires)[i].load(), 1 - cancelled[i]) << "timer " << i;
    }
    EXPECT_TRUE(probe->waitFor([&] { return probe->live == 0; }));
}

TEST(RefreshTimerTest, BadArguments) {
    EXPECT_TRUE(RefreshTimer::createTimerWithTask(kiv_shared_ptr<ASRDispatchTaskBase>(), 10) ==
                nullptr);
    auto probe = std::make_shared<Probe>();
    EXPECT_TRUE(RefreshTimer::createTimerWithTask(task(probe), -5) != nullptr);
    EXPECT_TRUE(probe->waitFor([&] { return probe->runs == 1; }));
}

const int kExitChildStatus = 42;

// Run in a child process by the next test. Exits with armed timers and the timer thread asleep
// ("idle"), or while a task blocks on the timer thread and another thread keeps creating,
// refreshing and cancelling timers ("busy").
TEST(RefreshTimerExitChild, Exit) {
    const char* mode = getenv("KIV_TIMER_EXIT_CHILD");
    if (!mode) {
        GTEST_SKIP() << "only run as the child of ProcessExitDoesNotHangOrCrash";
    }
    auto probe = std::make_shared<Probe>();
    for (int i = 0; i < 200; ++i) {
        RefreshTimer::createTimerWithTask(task(probe), 60000);
    }
    if (std::string(mode) == "idle") {
        drainTimerThread(1);
        std::exit(kExitChildStatus);  // distinct from a skipped or failed run
    }
    auto blocked = std::make_shared<Probe>();
    RefreshTimer::createTimerWithTask(
        task(blocked,
             [blocked] {
                 blocked->update([&] { blocked->live += 1000; });
                 std::unique_lock<std::mutex> lock(blocked->mutex);
                 blocked->changed.wait_for(lock, std::chrono::seconds(30), [] { return false; });
             }),
        0);
    std::thread churn([probe] {
        Clock::time_point end = Clock::now() + std::chrono::seconds(30);
        while (Clock::now() < end) {
            kiv_shared_ptr<RefreshTimer> timer = RefreshTimer::createTimerWithTask(task(probe), 5);
            if (timer != nullptr) {
                timer->refresh();
                timer->cancel();
            }
            RefreshTimer::createTimerWithTask(task(probe), 1);
        }
    });
    churn.detach();
    ASSERT_TRUE(blocked->waitFor([&] { return blocked->live > 1000; }));
    std::exit(kExitChildStatus);
}

int runExitChild(const std::string& mode) {
    char self[4096];
    ssize_t len = readlink("/proc/self/exe", self, sizeof self - 1);
    if (len <= 0) {
        return -2;
    }
    self[len] = '\0';
    char filter[] = "--gtest_filter=RefreshTimerExitChild.Exit";
    char* argv[] = {self, filter, nullptr};
    std::vector<std::string> envStrings;
    for (char** e = environ; *e; ++e) {
        envStrings.push_back(*e);
    }
    envStrings.push_back("KIV_TIMER_EXIT_CHILD=" + mode);
    std::vector<char*> envp;
    for (auto& e : envStrings) {
        envp.push_back(&e[0]);
    }
    envp.push_back(nullptr);
    pid_t pid = 0;
    if (posix_spawn(&pid, self, nullptr, nullptr, argv, envp.data()) != 0) {
        return -2;
    }
    return waitChild(pid, std::chrono::seconds(30));
}

TEST(RefreshTimerTest, ProcessExitDoesNotHangOrCrash) {
    EXPECT_EQ(runExitChild("idle"), kExitChildStatus);
    EXPECT_EQ(runExitChild("busy"), kExitChildStatus);
}

TEST(RefreshTimerTest, ForkedChildDropsInheritedTimersAndRunsItsOwn) {
#ifdef KIV_TSAN
    GTEST_SKIP() << "ThreadSanitizer does not support threads started after a multi-threaded fork";
#else
    auto probe = std::make_shared<Probe>();
    kiv_shared_ptr<RefreshTimer> inherited = RefreshTimer::createTimerWithTask(task(probe), 60000);
    // Let the timer thread settle before the fork. Here the test keeps the last references, so
    // the thread frees nothing afterwards: what it frees would stay allocated in the child.
    auto settle = std::make_shared<Probe>();
    kiv_shared_ptr<ASRDispatchTaskBase> settleTask = task(settle);
    kiv_shared_ptr<RefreshTimer> settleTimer = RefreshTimer::createTimerWithTask(settleTask, 1);
    ASSERT_TRUE(settle->waitFor([&] { return settle->runs == 1; }));
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        if (inherited->refresh()) {
            std::exit(2);
        }
        auto own = std::make_shared<Probe>();
        RefreshTimer::createTimerWithTask(task(own), 10);
        std::exit(own->waitFor([&] { return own->runs == 1; }) ? 0 : 3);
    }
    EXPECT_EQ(waitChild(pid, std::chrono::seconds(30)), 0);
    EXPECT_TRUE(inherited->cancel()) << "the parent's timer must stay armed";
#endif
}
