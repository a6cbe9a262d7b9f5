#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "core/utility/Threads/kiv_Timer_refresh.h"

using kiv::Memory::kiv_shared_ptr;
using kiv::Threads::ASRDispatchTaskBase;
using kiv::Threads::RefreshTimer;
using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

namespace {

// What a test sees of its tasks: how many are alive, how many ran and when the last one began,
// plus a step that threads wait for; all under one lock whose condition is notified on every
// change. Tasks co-own it, so a task that outlives a failed test never touches freed memory.
struct Probe {
    std::mutex mutex;
    std::condition_variable changed;
    int live = 0, runs = 0, step = 0;
    Clock::time_point ranAt;

    void update(const std::function<void()>& change) {
        std::lock_guard<std::mutex> lock(mutex);
        change();
        changed.notify_all();
    }
    bool waitFor(const std::function<bool()>& done, std::chrono::milliseconds limit = 10s) {
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_for(lock, limit, done);
    }
    bool awaitStep(int s) {
        return waitFor([&] { return step >= s; });
    }
    std::string counts() {  // "runs/live"
        std::lock_guard<std::mutex> lock(mutex);
        return std::to_string(runs) + "/" + std::to_string(live);
    }
};

struct ProbeTask : ASRDispatchTaskBase {
    ProbeTask(std::shared_ptr<Probe> probe, std::function<void()> body)
        : ASRDispatchTaskBase(nullptr, nullptr, nullptr), p_(std::move(probe)), body_(body) {
        p_->update([this] { ++p_->live; });
    }
    ~ProbeTask() override {
        p_->update([this] { --p_->live; });
    }
    void execute() override {
        p_->update([this] { p_->ranAt = Clock::now(); });
        body_();
        p_->update([this] { ++p_->runs; });
    }
    std::shared_ptr<Probe> p_;
    std::function<void()> body_;
};

kiv_shared_ptr<ASRDispatchTaskBase> task(
    const std::shared_ptr<Probe>& probe, std::function<void()> body = [] {}) {
    return kiv_shared_ptr<ASRDispatchTaskBase>(new ProbeTask(probe, std::move(body)));
}

// Creates a timer and waits until it has fired and its task is released: every timer created and
// due before it has had its turn on the timer thread by then.
void drainTimerThread(int timeoutMS) {
    auto probe = std::make_shared<Probe>();
    RefreshTimer::createTimerWithTask(task(probe), timeoutMS);
    ASSERT_TRUE(probe->waitFor([&] { return probe->runs == 1 && probe->live == 0; }));
}

}  // namespace

TEST(RefreshTimerTest, RefreshedTimerNeverFiresEarlyAndFiresOnceAfterTheLastRefresh) {
    auto probe = std::make_shared<Probe>();
    kiv_shared_ptr<RefreshTimer> timer = RefreshTimer::createTimerWithTask(task(probe), 200);
    Clock::time_point lastArmed = Clock::now();
    for (int i = 0; i < 20; ++i) {
        std::this_thread::sleep_for(50ms);  // pacing, not synchronisation
        Clock::time_point before = Clock::now();
        if (timer->refresh()) {  // false only once a stall of 200 ms let it fire; checked below
            lastArmed = before;
        }
    }
    ASSERT_TRUE(probe->waitFor([&] { return probe->runs == 1; }));
    EXPECT_GE(probe->ranAt - lastArmed, 200ms);
    EXPECT_FALSE(timer->refresh()) << "a fired timer must stay disarmed";
    EXPECT_FALSE(timer->cancel());
    drainTimerThread(250);
    EXPECT_EQ(probe->counts(), "1/0") << "fired once, and firing drops the timer's task";
}

TEST(RefreshTimerTest, CancelledTimerNeverRunsAndEarlierNewDeadlineWakesTheThread) {
    auto probe = std::make_shared<Probe>(), far = std::make_shared<Probe>(),
         near = std::make_shared<Probe>();
    kiv_shared_ptr<RefreshTimer> farTimer = RefreshTimer::createTimerWithTask(task(far), 20000);
    kiv_shared_ptr<RefreshTimer> timer = RefreshTimer::createTimerWithTask(task(probe), 100);
    EXPECT_TRUE(timer->cancel());
    EXPECT_EQ(probe->counts(), "0/0") << "cancel() must drop the task while the timer lives on";
    EXPECT_FALSE(timer->cancel());
    EXPECT_FALSE(timer->refresh());
    drainTimerThread(200);  // past the cancelled deadline
    EXPECT_EQ(probe->counts(), "0/0");
    // Lets the thread settle into its sleep toward farTimer's deadline. Not needed for the
    // outcome: a thread that is still awake finds the new timer on its own.
    std::this_thread::sleep_for(20ms);
    RefreshTimer::createTimerWithTask(task(near), 50);
    EXPECT_TRUE(near->waitFor([&] { return near->runs == 1; })) << "the thread was not woken";
    EXPECT_TRUE(farTimer->cancel());
}

TEST(RefreshTimerTest, TaskUsesTimersOnTheTimerThreadAndCancelDoesNotWaitForIt) {
    auto probe = std::make_shared<Probe>(), late = std::make_shared<Probe>(),
         created = std::make_shared<Probe>();
    kiv_shared_ptr<RefreshTimer> lateTimer = RefreshTimer::createTimerWithTask(task(late), 300);
    auto own = std::make_shared<kiv_shared_ptr<RefreshTimer>>();
    auto inside = std::make_shared<std::string>();
    // Steps: 1 `own` is stored, 2 the task has used the timers, 3 the test has cancelled `own`.
    auto body = [=] {
        if (probe->awaitStep(1)) {
            // Its own timer is no longer armed once running: cancel() and refresh() fail.
            *inside = std::to_string((*own)->cancel()) + std::to_string((*own)->refresh()) +
                      std::to_string(lateTimer->refresh());
            RefreshTimer::createTimerWithTask(task(created), 30);  // its reference dropped at once
            probe->update([&] { probe->step = 2; });
            probe->awaitStep(3);
        }
    };
    *own = RefreshTimer::createTimerWithTask(task(probe, body), 20);
    probe->update([&] { probe->step = 1; });
    ASSERT_TRUE(probe->awaitStep(2));
    EXPECT_FALSE((*own)->cancel());
    EXPECT_EQ(probe->counts(), "0/1") << "cancel() from another thread waited for the task";
    probe->update([&] { probe->step = 3; });
    ASSERT_TRUE(created->waitFor([&] { return created->runs == 1 && created->live == 0; }));
    ASSERT_TRUE(late->waitFor([&] { return late->runs == 1; }));
    EXPECT_EQ(probe->counts(), "1/0");
    EXPECT_EQ(*inside, "001");
    EXPECT_GE(late->ranAt - probe->ranAt, 300ms) << "the refresh from the task was lost";
}

TEST(RefreshTimerTest, ManyTimersOnManyThreadsFireTogetherOrAreCancelledExactlyOnce) {
    constexpr int kTimers = 1000;
    std::vector<std::shared_ptr<Probe>> probes(kTimers);
    std::vector<char> cancelled(kTimers, 0);
    auto everyFourth = [&](int t) {  // run on four threads at once
        std::vector<kiv_shared_ptr<RefreshTimer>> timers;
        for (int i = t; i < kTimers; i += 4) {  // many share a deadline
            probes[i] = std::make_shared<Probe>();
            timers.push_back(RefreshTimer::createTimerWithTask(task(probes[i]), 20 + i % 3));
            timers[timers.size() / 2]->refresh();
        }
        for (int i = t; i < kTimers; i += 12) {
            cancelled[i] = timers[(i - t) / 4]->cancel();
        }
    };
    std::thread a(everyFourth, 0), b(everyFourth, 1), c(everyFourth, 2);
    everyFourth(3);
    a.join();
    b.join();
    c.join();
    drainTimerThread(50);  // due after every timer above, whose tasks are released by then
    for (int i = 0; i < kTimers; ++i) {
        ASSERT_EQ(probes[i]->counts(), cancelled[i] ? "0/0" : "1/0") << "timer " << i;
    }
}

// Run in a child process by the next test: exits while timers are armed and timers are being
// created, refreshed and cancelled, either on another thread while the timer thread sleeps
// ("idle") or by a task that keeps the timer thread busy ("busy").
TEST(RefreshTimerExitChild, Exit) {
    const char* mode = getenv("KIV_TIMER_EXIT_CHILD");
    if (!mode) {
        GTEST_SKIP() << "only run as the child of ProcessExitDoesNotHangOrCrash";
    }
    auto probe = std::make_shared<Probe>();
    for (int i = 0; i < 200; ++i) {
        RefreshTimer::createTimerWithTask(task(probe), 60000);
    }
    auto churn = [probe] {
        probe->update([&] { probe->step = 1; });
        for (;;) {  // later deadlines than the armed ones: a sleeping timer thread stays asleep
            kiv_shared_ptr<RefreshTimer> timer =
                RefreshTimer::createTimerWithTask(task(probe), 70000);
            if (timer != nullptr) {
                timer->refresh();
                timer->cancel();
            }
        }
    };
    if (std::string(mode) == "idle") {
        std::thread(churn).detach();
        drainTimerThread(1);
    } else {
        RefreshTimer::createTimerWithTask(task(probe, churn), 0);
    }
    ASSERT_TRUE(probe->awaitStep(1));
    std::exit(42);  // distinct from a skipped or failed run
}

TEST(RefreshTimerTest, ProcessExitDoesNotHangOrCrash) {
    char self[4096] = {};
    ASSERT_GT(readlink("/proc/self/exe", self, sizeof self - 1), 0);
    for (std::string mode : {"idle", "busy"}) {
        // Runs the test above in a child process, killed if it is still there after 30 s.
        const std::string command = "KIV_TIMER_EXIT_CHILD=" + mode + " timeout -s KILL 30 '" +
                                    self + "' --gtest_filter=RefreshTimerExitChild.Exit >/dev/null";
        const int status = std::system(command.c_str());
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 42) << mode << ": " << status;
    }
}
