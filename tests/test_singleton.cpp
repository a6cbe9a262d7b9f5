#include "core/utility/Memory/singleton.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <future>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <vector>

namespace kiv {
namespace Memory {

// Test-only access to the singleton's statics (declared a friend by Singleton). Touches the
// statics in the same order as instance(): mutex_, then the weak, then the strong static.
struct SingletonTestAccess {
    template <typename T>
    static void emptyStrong() {
        Threads::Synchronization::AppLock lock(&Singleton<T>::mutex_);
        (void)Singleton<T>::instanceWeakRef;
        Singleton<T>::instanceStrongRef = static_cast<T*>(nullptr);
    }

    template <typename T>
    static bool strongHolds() {
        Threads::Synchronization::AppLock lock(&Singleton<T>::mutex_);
        (void)Singleton<T>::instanceWeakRef;
        return Singleton<T>::instanceStrongRef.getPTR() != nullptr;
    }

    template <typename T>
    static bool weakAlive() {
        Threads::Synchronization::AppLock lock(&Singleton<T>::mutex_);
        return Singleton<T>::instanceWeakRef.getPTR().getPTR() != nullptr;
    }
};

}  // namespace Memory
}  // namespace kiv

namespace {

using kiv::Memory::kiv_shared_ptr;
using kiv::Memory::Singleton;
using kiv::Memory::SingletonTestAccess;
using namespace std::chrono_literals;

// Each test uses its own T, so every test starts with fresh statics.
template <int N>
struct Counted {
    static std::atomic<int> constructed;
    static std::atomic<int> initialised;
    static std::atomic<int> destroyed;

    Counted() { ++constructed; }
    virtual void initInstance() { ++initialised; }
    virtual ~Counted() { ++destroyed; }
};
template <int N>
std::atomic<int> Counted<N>::constructed{0};
template <int N>
std::atomic<int> Counted<N>::initialised{0};
template <int N>
std::atomic<int> Counted<N>::destroyed{0};

// A type whose constructor is slow, so that racing callers really overlap in instance().
struct SlowToBuild {
    static std::atomic<int> constructed;
    static std::atomic<int> initialised;
    SlowToBuild() {
        ++constructed;
        std::this_thread::sleep_for(20ms);  // widens the race window; not a synchronisation
    }
    virtual void initInstance() { ++initialised; }
    virtual ~SlowToBuild() = default;
};
std::atomic<int> SlowToBuild::constructed{0};
std::atomic<int> SlowToBuild::initialised{0};

TEST(Singleton, CreatedOnceUnderARaceOfManyThreads) {
    constexpr int kThreads = 32;
    std::mutex m;
    std::condition_variable cv;
    bool go = false;
    int ready = 0;
    std::vector<SlowToBuild*> seen(kThreads, nullptr);
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([&, i] {
            {
                std::unique_lock<std::mutex> lock(m);
                ++ready;
                cv.notify_all();
                cv.wait_for(lock, 10s, [&] { return go; });
            }
            seen[i] = Singleton<SlowToBuild>::instance().getPTR();
        });
    }
    {
        std::unique_lock<std::mutex> lock(m);
        ASSERT_TRUE(cv.wait_for(lock, 10s, [&] { return ready == kThreads; }));
        go = true;
    }
    cv.notify_all();
    for (auto& t : threads) {
        t.join();
    }
    ASSERT_NE(seen[0], nullptr);
    for (int i = 1; i < kThreads; ++i) {
        EXPECT_EQ(seen[i], seen[0]) << "thread " << i;
    }
    EXPECT_EQ(SlowToBuild::constructed.load(), 1);
    EXPECT_EQ(SlowToBuild::initialised.load(), 1);
}

TEST(Singleton, LaterCallsReturnTheSameInstanceWithoutInitialisingAgain) {
    using T = Counted<1>;
    kiv_shared_ptr<T> first = Singleton<T>::instance();
    ASSERT_NE(first.getPTR(), nullptr);
    EXPECT_TRUE(SingletonTestAccess::strongHolds<T>());
    for (int i = 0; i < 10; ++i) {
        EXPECT_EQ(Singleton<T>::instance().getPTR(), first.getPTR());
    }
    EXPECT_EQ(T::constructed.load(), 1);
    EXPECT_EQ(T::initialised.load(), 1);
    EXPECT_EQ(T::destroyed.load(), 0);
}

TEST(Singleton, EmptiedStrongStaticIsRefilledWithTheLiveInstance) {
    using T = Counted<2>;
    kiv_shared_ptr<T> held = Singleton<T>::instance();
    ASSERT_NE(held.getPTR(), nullptr);

    SingletonTestAccess::emptyStrong<T>();
    EXPECT_FALSE(SingletonTestAccess::strongHolds<T>());
    EXPECT_TRUE(SingletonTestAccess::weakAlive<T>());
    EXPECT_EQ(T::destroyed.load(), 0);  // `held` keeps it alive

    kiv_shared_ptr<T> again = Singleton<T>::instance();
    EXPECT_EQ(again.getPTR(), held.getPTR());
    EXPECT_TRUE(SingletonTestAccess::strongHolds<T>());
    EXPECT_EQ(T::constructed.load(), 1);
    EXPECT_EQ(T::initialised.load(), 1);

    // The refilled strong static keeps the instance alive once the callers let go.
    held = static_cast<T*>(nullptr);
    again = static_cast<T*>(nullptr);
    EXPECT_EQ(T::destroyed.load(), 0);
    EXPECT_TRUE(SingletonTestAccess::weakAlive<T>());
}

TEST(Singleton, NewInstanceAfterTheLastReferenceIsGone) {
    using T = Counted<3>;
    T* first = Singleton<T>::instance().getPTR();
    ASSERT_NE(first, nullptr);
    SingletonTestAccess::emptyStrong<T>();  // the only strong reference left
    EXPECT_EQ(T::destroyed.load(), 1);
    EXPECT_FALSE(SingletonTestAccess::weakAlive<T>());

    kiv_shared_ptr<T> second = Singleton<T>::instance();
    ASSERT_NE(second.getPTR(), nullptr);
    EXPECT_EQ(T::constructed.load(), 2);
    EXPECT_EQ(T::initialised.load(), 2);
    EXPECT_TRUE(SingletonTestAccess::strongHolds<T>());
}

struct FailsFirst {
    static std::atomic<int> attempts;
    static std::atomic<int> initialised;
    FailsFirst() {
        if (attempts.fetch_add(1) == 0) {
            throw std::runtime_error("first construction fails");
        }
    }
    virtual void initInstance() { ++initialised; }
    virtual ~FailsFirst() = default;
};
std::atomic<int> FailsFirst::attempts{0};
std::atomic<int> FailsFirst::initialised{0};

TEST(Singleton, ThrowingConstructorLeavesTheNextCallToTryAgain) {
    EXPECT_THROW(Singleton<FailsFirst>::instance(), std::runtime_error);
    EXPECT_EQ(FailsFirst::attempts.load(), 1);
    EXPECT_EQ(FailsFirst::initialised.load(), 0);
    EXPECT_FALSE(SingletonTestAccess::strongHolds<FailsFirst>());
    EXPECT_FALSE(SingletonTestAccess::weakAlive<FailsFirst>());

    // From another thread: proves that the exception released the (recursive) mutex.
    auto result =
        std::async(std::launch::async, [] { return Singleton<FailsFirst>::instance().getPTR(); });
    ASSERT_EQ(result.wait_for(10s), std::future_status::ready) << "mutex left locked";
    FailsFirst* created = result.get();
    ASSERT_NE(created, nullptr);
    EXPECT_EQ(FailsFirst::attempts.load(), 2);
    EXPECT_EQ(FailsFirst::initialised.load(), 1);
    EXPECT_EQ(Singleton<FailsFirst>::instance().getPTR(), created);
}

// initInstance() runs under the singleton's mutex; a recursive call of instance() must not
// deadlock and must see the instance being initialised.
struct CallsBackFromInit {
    static std::atomic<CallsBackFromInit*> seenFromInit;
    static std::atomic<int> initialised;
    virtual void initInstance() {
        ++initialised;
        seenFromInit = Singleton<CallsBackFromInit>::instance().getPTR();
    }
    virtual ~CallsBackFromInit() = default;
};
std::atomic<CallsBackFromInit*> CallsBackFromInit::seenFromInit{nullptr};
std::atomic<int> CallsBackFromInit::initialised{0};

TEST(Singleton, InitInstanceMayCallInstanceAgain) {
    auto promise = std::make_shared<std::promise<CallsBackFromInit*>>();
    std::future<CallsBackFromInit*> result = promise->get_future();
    // Detached, so that a deadlock fails the test instead of hanging it.
    std::thread([promise] {
        promise->set_value(Singleton<CallsBackFromInit>::instance().getPTR());
    }).detach();
    ASSERT_EQ(result.wait_for(10s), std::future_status::ready) << "instance() deadlocked";
    CallsBackFromInit* created = result.get();
    ASSERT_NE(created, nullptr);
    EXPECT_EQ(CallsBackFromInit::seenFromInit.load(), created);
    EXPECT_EQ(CallsBackFromInit::initialised.load(), 1);
}

}  // namespace
