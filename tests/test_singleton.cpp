#include "core/utility/Memory/singleton.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace kiv {
namespace Memory {

// Test-only access (a friend of Singleton): empties the strong static.
struct SingletonTestAccess {
    template <typename T>
    static void emptyStrong() {
        Threads::Synchronization::AppLock lock(Singleton<T>::mutex_.get());
        *Singleton<T>::instanceStrongRef = static_cast<T*>(nullptr);
    }
};

}  // namespace Memory
}  // namespace kiv

namespace {

using kiv::Memory::Singleton;
using namespace std::chrono_literals;

enum Kind { kRace, kRefill, kFailsFirst };

// Each test uses its own Kind, so its statics start fresh; counts what happens to instances.
template <Kind K>
struct Counted {
    static inline std::atomic<int> constructed{0}, initialised{0}, destroyed{0};
    Counted() {
        if (++constructed == 1 && K == kFailsFirst) {
            throw std::runtime_error("first construction fails");
        }
        std::this_thread::sleep_for(20ms);  // widens the race window; not a synchronisation
    }
    virtual void initInstance() { ++initialised; }
    virtual ~Counted() { ++destroyed; }
    // "constructed/initialised/destroyed"
    static std::string counts() {
        return std::to_string(constructed) + "/" + std::to_string(initialised) + "/" +
               std::to_string(destroyed);
    }
};

// Calls instance() on a detached thread, so that a deadlock fails the test instead of hanging it.
template <typename T>
std::future<T*> instanceOnThread() {
    auto promise = std::make_shared<std::promise<T*>>();
    std::future<T*> result = promise->get_future();
    std::thread([promise] { promise->set_value(Singleton<T>::instance().getPTR()); }).detach();
    return result;
}

TEST(Singleton, OneInstanceInitialisedOnceUnderARace) {
    using T = Counted<kRace>;
    std::vector<std::future<T*>> seen;
    for (int i = 0; i < 32; ++i) {  // the later ones arrive while the first is being constructed
        seen.push_back(instanceOnThread<T>());
    }
    std::set<T*> instances;
    for (auto& result : seen) {
        ASSERT_EQ(result.wait_for(10s), std::future_status::ready) << "instance() deadlocked";
        instances.insert(result.get());
    }
    EXPECT_EQ(instances.size(), 1u);
    EXPECT_EQ(T::counts(), "1/1/0");
}

TEST(Singleton, EmptiedStrongStaticIsRefilledWithTheLiveInstance) {
    using T = Counted<kRefill>;
    auto held = Singleton<T>::instance();
    kiv::Memory::SingletonTestAccess::emptyStrong<T>();
    EXPECT_EQ(Singleton<T>::instance().getPTR(), held.getPTR()) << "a second instance was made";
    // The refilled strong static keeps the instance alive once the callers let go.
    held = static_cast<T*>(nullptr);
    EXPECT_EQ(T::counts(), "1/1/0");
    // Emptied with no other holder: the instance goes and the next call makes a new one.
    kiv::Memory::SingletonTestAccess::emptyStrong<T>();
    EXPECT_EQ(T::counts(), "1/1/1");
    EXPECT_NE(Singleton<T>::instance().getPTR(), nullptr);
    EXPECT_EQ(T::counts(), "2/2/1");
}

TEST(Singleton, ThrowingConstructorLetsTheNextCallRetry) {
    using T = Counted<kFailsFirst>;
    EXPECT_THROW(Singleton<T>::instance(), std::runtime_error);
    EXPECT_EQ(T::counts(), "1/0/0");
    // From another thread: the exception must have released the (recursive) mutex.
    std::future<T*> retry = instanceOnThread<T>();
    ASSERT_EQ(retry.wait_for(10s), std::future_status::ready) << "mutex left locked";
    EXPECT_EQ(retry.get(), Singleton<T>::instance().getPTR());
    EXPECT_EQ(T::counts(), "2/1/0");
}

}  // namespace
