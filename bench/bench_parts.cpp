// The layer's parts against the plain alternatives a user would write, in alternating blocks:
//
//  - worker pool hand-off: runTaskAsync() to the start of the task's execute(), every worker
//    asleep (each hand-off wakes one), against a std::thread woken through a
//    std::condition_variable: p50 and p99.
//  - refresh timer: 10,000 armed timers (12 s timeout) refreshed 200,000 times a second in all
//    by two threads: refresh() (p50, p99) against a mutex-guarded deadline store, and the timer
//    thread's CPU; then the same with a 300 ms timeout, so that the timer thread re-keys every
//    stale entry about three times a second; then 1,000 timers due together in 500 ms against
//    a thread that sleeps until then and runs the same callbacks: lateness p50 and max.
//  - PCM queue: 3,200-byte frames (100 ms of 16 kHz 16-bit mono) in and out, and 16,384-byte
//    reads from a backlog of 40 frames (the ring wraps constantly), against memcpy of the same
//    bytes in the same sizes through a flat buffer: GB/s.
//
// Usage: bench_parts [--quick] [--handoffs 20000] [--seconds 10] [--mib 2048] [--rounds 4]

#include <atomic>
#include <condition_variable>
#include <cstring>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

#include "bench/harness.h"
#include "core/Audio/PCMQueue.h"
#include "core/utility/Memory/singleton.h"
#include "core/utility/Threads/GlobalThreadPool.h"
#include "core/utility/Threads/kiv_Timer_refresh.h"
#include "core/utility/kiv_utility.h"

namespace {

using namespace kiv_bench;
using kiv::Memory::kiv_shared_ptr;
using kiv::Threads::ASRDispatchTaskBase;
using kiv::Threads::RefreshTimer;

class FnTask : public ASRDispatchTaskBase {
public:
    explicit FnTask(std::function<void()> fn)
        : ASRDispatchTaskBase(nullptr, nullptr, nullptr), fn_(std::move(fn)) {}
    void execute() override { fn_(); }

private:
    std::function<void()> fn_;
};

unsigned g_check = 0;  // printed, so that the copies cannot be optimised away

kiv_shared_ptr<ASRDispatchTaskBase> task(std::function<void()> fn) {
    return kiv_shared_ptr<ASRDispatchTaskBase>(new FnTask(std::move(fn)));
}

void handoff(int handoffs) {
    using kiv::Threads::GlobalThreadPool;
    auto pool = kiv::Memory::Singleton<GlobalThreadPool>::instance();
    const int core = GlobalThreadPool::GLOBAL_POOL_THREAD_COUNT;
    // The driver spins on `done` so that its own wake-up does not delay the next hand-off.
    std::atomic<int64_t> started{0};
    std::atomic<int> done{0};
    auto mark = [&] { started = now_ns(), done.fetch_add(1); };
    std::mutex mutex;  // the baseline: one thread sleeping on a condition until a slot is filled
    std::condition_variable cv;
    bool work = false, asleep = false;
    std::thread plain([&, total = 200 + handoffs / 20 * 20] {
        std::unique_lock<std::mutex> lock(mutex);
        for (int k = 0; k < total; ++k) {
            asleep = true;
            cv.wait(lock, [&] { return work; });
            asleep = work = false;
            lock.unlock();
            mark();
            lock.lock();
        }
    });
    std::vector<double> us[2];
    auto block = [&](bool layer, int n) {
        for (int i = 0; i < n; ++i) {
            // Until the worker sleeps again, and a little longer so that it reaches the futex.
            for (bool idle = false; !idle; std::this_thread::yield()) {
                std::lock_guard<std::mutex> lock(mutex);
                idle = layer ? pool->idleWorkerCount() >= core : asleep;
            }
            std::this_thread::sleep_for(std::chrono::microseconds(20));
            const int before = done.load();
            const int64_t t0 = now_ns();
            if (layer) {
                pool->runTaskAsync(task(mark));
            } else {
                {
                    std::lock_guard<std::mutex> lock(mutex);
                    work = true;
                }
                cv.notify_one();
            }
            while (done.load() == before) {
                std::this_thread::yield();
            }
            us[layer ? 0 : 1].push_back(static_cast<double>(started.load() - t0) * 1e-3);
        }
    };
    alternate(1, [&](bool layer) { block(layer, 200); });  // thread start, page faults
    us[0].clear(), us[1].clear();
    begin_phase();
    alternate(20, [&](bool layer) { block(layer, handoffs / 20); });
    result_tails("handoff", us, "us", " baseline=std::thread+condition_variable");
    plain.join();
}

// Calls op(i) on round-robin indices of 10,000 from two threads, 200,000 calls a second in all,
// paced in 1 ms ticks, for `seconds`; appends every call's duration (ns) to `out`.
void paced(double seconds, const std::function<void(int)>& op, std::vector<double>& out) {
    std::vector<double> per[2];
    std::vector<std::thread> threads;
    for (int t = 0; t < 2; ++t) {
        threads.emplace_back([&, t] {
            int index = t * 5000;
            for (int64_t tick = now_ns(), k = 0; k < seconds * 1000; ++k) {
                for (int i = 0; i < 100; ++i, index = (index + 1) % 10000) {
                    const int64_t start = now_ns();
                    op(index);
                    per[t].push_back(static_cast<double>(now_ns() - start));
                }
                sleep_until_ns(tick += 1000000);
            }
        });
    }
    for (int t = 0; t < 2; ++t) {
        threads[t].join();
        out.insert(out.end(), per[t].begin(), per[t].end());
    }
}

// refresh() against the mutex-guarded store (measured here when `ns[1]` is empty, else reused:
// with a short timeout the timers would fire while the baseline runs), and the timer thread's
// CPU (% of one core) while refreshing.
void refresh(const char* name, int timeout_ms, double seconds, int rounds,
             std::vector<double> (&ns)[2]) {
    pthread_t timer;
    std::vector<kiv_shared_ptr<RefreshTimer>> timers;
    for (int i = 0; i < 10000; ++i) {
        timers.push_back(RefreshTimer::createTimerWithTask(task([] {}), timeout_ms));
    }
    RefreshTimer::getTimerThread(&timer);
    std::vector<unsigned long long> deadlines(10000, 0);
    std::mutex mutex;
    double timer_cpu = 0, wall = 0;
    const bool baseline = ns[1].empty();
    ns[0].clear();
    begin_phase();
    alternate(rounds, [&](bool layer) {
        const double cpu0 = thread_cpu_seconds(timer);
        const int64_t wall0 = now_ns();
        if (layer || baseline) {
            paced(
                seconds / rounds,
                [&](int i) {
                    if (layer) {
                        timers[i]->refresh();
                    } else {
                        std::lock_guard<std::mutex> lock(mutex);
                        deadlines[i] = kiv::monotonic_ms() + 12000;
                    }
                },
                ns[layer ? 0 : 1]);
        }
        timer_cpu += layer ? thread_cpu_seconds(timer) - cpu0 : 0;
        wall += layer ? static_cast<double>(now_ns() - wall0) * 1e-9 : 0;
    });
    result_tails(name, ns, "ns", fmt(" timeout_ms=%d baseline=mutex+store", timeout_ms));
    result(fmt("%s_timer_thread_cpu", name).c_str(), 100 * timer_cpu / wall, 0, "%core",
           " baseline=none");
    for (auto& t : timers) {
        t->cancel();
    }
}

// Lateness (ms) of 1,000 callbacks due together in 500 ms, run by timers or by a plain thread.
void firing(bool layer, std::vector<double>& late_ms) {
    std::vector<int64_t> fired(1000, 0);
    std::atomic<size_t> done{0};
    const int64_t armed = now_ns(), due = armed + 500000000;
    std::vector<kiv_shared_ptr<RefreshTimer>> timers;
    for (size_t i = 0; layer && i < fired.size(); ++i) {
        timers.push_back(RefreshTimer::createTimerWithTask(
            task([&, i] { fired[i] = now_ns(), done.fetch_add(1); }), 500));
    }
    if (!layer) {
        std::thread([&] {
            sleep_until_ns(due);
            for (size_t i = 0; i < fired.size(); ++i) {
                fired[i] = now_ns(), done.fetch_add(1);
            }
        }).join();
    }
    while (done.load() < fired.size() && now_ns() < armed + 10000000000LL) {
        sleep_ms(5);
    }
    for (int64_t at : fired) {
        late_ms.push_back(static_cast<double>(at - due) * 1e-6);
    }
}

// The PCM queue, or memcpy through a flat buffer with the same copies in the same sizes and
// order (no bookkeeping, no wrap-around splits), over `frames` frames from 64 different ones.
void pcm(bool queue, bool backlog, long frames) {
    const int kFrame = 3200, kRead = 16384, kBacklog = 40;
    static std::vector<uint8_t> source(kFrame * 64), sink(kRead);
    for (size_t i = 0; i < source.size(); ++i) {
        source[i] = static_cast<uint8_t>(i * 31 + 7);
    }
    auto q = kiv::PCMQueue::newQueue(0);
    std::vector<uint8_t> flat(static_cast<size_t>(kBacklog + 8) * kFrame);
    size_t in = 0, out = 0;
    long held = 0;
    const int read = backlog ? kRead : kFrame;
    for (long i = 0; i < frames; ++i) {
        const uint8_t* frame = source.data() + (i % 64) * kFrame;
        if (queue) {
            q->queueAudio(frame, kFrame);
        } else {
            memcpy(flat.data() + in, frame, kFrame);
            in = in + 2 * kFrame > flat.size() ? 0 : in + kFrame;
        }
        for (held += kFrame; held >= (backlog ? kBacklog * kFrame : kFrame); held -= read) {
            if (queue) {
                q->dequeSamples(sink.data(), read, false);
            } else {
                memcpy(sink.data(), flat.data() + out, static_cast<size_t>(read));
                out = out + 2 * read > flat.size() ? 0 : out + read;
            }
            g_check += sink[static_cast<size_t>(held) % read];
        }
    }
}

}  // namespace

int main(int argc, char** argv) {
    start(argc, argv, false);
    const double seconds = arg("seconds", 10, 1);
    const int rounds = static_cast<int>(arg("rounds", 4, 2));
    handoff(static_cast<int>(arg("handoffs", 20000, 2000)));

    std::vector<double> ns[2];
    refresh("timer_refresh", 12000, seconds, rounds, ns);
    refresh("timer_refresh_rekeyed", 300, seconds / 5 + 1, rounds, ns);
    begin_phase();
    std::vector<double> late[2];
    alternate(rounds / 2, [&](bool layer) { firing(layer, late[layer ? 0 : 1]); });
    // Deadlines round up to the next whole millisecond, so a timer never fires early; that alone
    // accounts for up to 1 ms.
    result("timer_lateness_p50", quantile(late[0], 0.5), quantile(late[1], 0.5), "ms",
           " timers=1000 baseline=sleep_until_thread");
    result("timer_lateness_max", quantile(late[0], 1), quantile(late[1], 1), "ms",
           fmt(" timers=1000 min_layer=%.3f", quantile(late[0], 0)));

    const long frames = static_cast<long>(arg("mib", 2048, 128) * (1 << 20) / 3200);
    for (bool backlog : {false, true}) {
        begin_phase();
        std::vector<double> gbps[2];
        alternate(rounds, [&](bool queue) {
            const int64_t start = now_ns();
            pcm(queue, backlog, frames);
            gbps[queue ? 0 : 1].push_back(frames * 3200.0 / (now_ns() - start));
        });
        result(backlog ? "pcmqueue_backlog_reads" : "pcmqueue_frame_in_out", quantile(gbps[0], 0.5),
               quantile(gbps[1], 0.5), "GB/s",
               fmt(" mib=%ld baseline=memcpy check=%u", frames * 3200 >> 20, g_check % 10));
    }
    return 0;
}
