// Hand-off latency of the worker pool: time from runTaskAsync() to the start of the task's
// execute(), with an idle pool (every hand-off wakes a sleeping worker), against a plain
// std::thread + std::condition_variable hand-off measured in the same run.
//
// Usage: bench_handoff [hand-offs, default 20000]

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <thread>
#include <vector>

#include "core/utility/Memory/singleton.h"
#include "core/utility/Threads/AppThreadTask.h"
#include "core/utility/Threads/GlobalThreadPool.h"

using kiv::Memory::kiv_shared_ptr;
using kiv::Memory::Singleton;
using kiv::Threads::ASRDispatchTaskBase;
using kiv::Threads::GlobalThreadPool;
using Clock = std::chrono::steady_clock;

namespace {

// Completion signal from the measured thread back to the driver; the driver spins on it so
// that its own wake-up does not slow the next round.
std::atomic<long long> g_startNs{0};
std::atomic<int> g_done{0};

long long nowNs() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch())
        .count();
}

class StampTask : public ASRDispatchTaskBase {
public:
    StampTask() : ASRDispatchTaskBase(nullptr, nullptr, nullptr) {}
    void execute() override {
        g_startNs.store(nowNs(), std::memory_order_relaxed);
        g_done.fetch_add(1, std::memory_order_release);
    }
};

void waitDone(int target) {
    while (g_done.load(std::memory_order_acquire) < target) {
        std::this_thread::yield();
    }
}

// Waits until the pool's workers are all asleep again, so the next hand-off has to wake one.
void waitPoolIdle(GlobalThreadPool* pool, int idle) {
    while (pool->idleWorkerCount() < idle) {
        std::this_thread::yield();
    }
    std::this_thread::sleep_for(std::chrono::microseconds(20));  // let it reach the futex
}

struct Stats {
    double p50us, p99us, meanus;
};

Stats summarise(std::vector<long long> ns) {
    std::sort(ns.begin(), ns.end());
    double sum = 0;
    for (long long v : ns) {
        sum += static_cast<double>(v);
    }
    auto at = [&](double q) {
        size_t i = static_cast<size_t>(q * static_cast<double>(ns.size() - 1));
        return static_cast<double>(ns[i]) / 1000.0;
    };
    return {at(0.50), at(0.99), sum / static_cast<double>(ns.size()) / 1000.0};
}

void measurePool(GlobalThreadPool* pool, int rounds, std::vector<long long>& samples) {
    const int core = GlobalThreadPool::GLOBAL_POOL_THREAD_COUNT;
    for (int i = 0; i < rounds; ++i) {
        waitPoolIdle(pool, core);
        kiv_shared_ptr<ASRDispatchTaskBase> task(new StampTask);
        const int before = g_done.load(std::memory_order_acquire);
        const long long t0 = nowNs();
        pool->runTaskAsync(task);
        waitDone(before + 1);
        samples.push_back(g_startNs.load(std::memory_order_relaxed) - t0);
    }
}

// The baseline: one thread waiting on a condition variable for a slot to be filled.
class PlainHandoff {
public:
    PlainHandoff() : worker_([this] { run(); }) {}
    ~PlainHandoff() {
        {
            std::lock_guard<std::mutex> lock(m_);
            stop_ = true;
        }
        cv_.notify_one();
        worker_.join();
    }

    void measure(int rounds, std::vector<long long>& samples) {
        for (int i = 0; i < rounds; ++i) {
            for (;;) {  // until the worker sleeps again, as the pool's workers do
                std::lock_guard<std::mutex> lock(m_);
                if (waiting_) {
                    break;
                }
            }
            std::this_thread::sleep_for(std::chrono::microseconds(20));
            const int before = g_done.load(std::memory_order_acquire);
            const long long t0 = nowNs();
            {
                std::lock_guard<std::mutex> lock(m_);
                hasWork_ = true;
            }
            cv_.notify_one();
            waitDone(before + 1);
            samples.push_back(g_startNs.load(std::memory_order_relaxed) - t0);
        }
    }

private:
    void run() {
        std::unique_lock<std::mutex> lock(m_);
        for (;;) {
            waiting_ = true;
            cv_.wait(lock, [&] { return hasWork_ || stop_; });
            waiting_ = false;
            if (stop_) {
                return;
            }
            hasWork_ = false;
            lock.unlock();
            g_startNs.store(nowNs(), std::memory_order_relaxed);
            g_done.fetch_add(1, std::memory_order_release);
            lock.lock();
        }
    }

    std::mutex m_;
    std::condition_variable cv_;
    bool hasWork_ = false;
    bool stop_ = false;
    bool waiting_ = false;
    std::thread worker_;
};

}  // namespace

int main(int argc, char** argv) {
    const int rounds = argc > 1 ? std::max(1, atoi(argv[1])) : 20000;
    kiv_shared_ptr<GlobalThreadPool> pool = Singleton<GlobalThreadPool>::instance();
    PlainHandoff plain;

    // Warm both paths up (thread start, page faults), then measure them in alternating blocks
    // so that both see the same machine load.
    std::vector<long long> warm;
    measurePool(pool.getPTR(), 200, warm);
    plain.measure(200, warm);
    std::vector<long long> poolNs, plainNs;
    poolNs.reserve(static_cast<size_t>(rounds));
    plainNs.reserve(static_cast<size_t>(rounds));
    constexpr int kBlocks = 20;
    for (int b = 0; b < kBlocks; ++b) {
        const int n = rounds / kBlocks + (b < rounds % kBlocks ? 1 : 0);
        measurePool(pool.getPTR(), n, poolNs);
        plain.measure(n, plainNs);
    }

    Stats p = summarise(poolNs);
    Stats q = summarise(plainNs);
    printf("hand-off latency, %d hand-offs each to an idle worker (microseconds)\n", rounds);
    printf("%-40s p50 %8.2f  p99 %8.2f  mean %8.2f\n", "GlobalThreadPool::runTaskAsync", p.p50us,
           p.p99us, p.meanus);
    printf("%-40s p50 %8.2f  p99 %8.2f  mean %8.2f\n", "std::thread + condition_variable", q.p50us,
           q.p99us, q.meanus);
    printf("ratio pool/plain: p50 %.2f  p99 %.2f\n", p.p50us / q.p50us, p.p99us / q.p99us);
    return 0;
}
