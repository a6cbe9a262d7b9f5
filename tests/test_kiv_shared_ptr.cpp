// Single-threaded sequences of copies, conversions, heap copies, weak locking and custom
// destructors are checked against exact destruction counts by the shared_ptr fuzzer (fuzz/);
// these tests cover what a fuzzer cannot: races between threads, and the layer's conversion.

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "core/utility/Memory/kiv_shared_ptr.h"
#include "core/utility/Memory/kiv_weak_ptr.h"

using kiv::Memory::kiv_shared_ptr;
using kiv::Memory::kiv_shared_ptr_base;
using kiv::Memory::kiv_weak_ptr;

namespace {

std::atomic<int> g_live{0};
std::atomic<int> g_destroyed{0};

struct Tracked {
    Tracked() { g_live.fetch_add(1); }
    virtual ~Tracked() {
        alive = false;
        g_live.fetch_sub(1);
        g_destroyed.fetch_add(1);
    }
    std::atomic<bool> alive{true};
    int value = 7;
};

// Mirrors the task object: a derived class whose only base starts at the same address.
struct Derived : Tracked {
    ~Derived() override { g_derived_destroyed.fetch_add(1); }
    static std::atomic<int> g_derived_destroyed;
};
std::atomic<int> Derived::g_derived_destroyed{0};

class SharedPtrTest : public testing::Test {
protected:
    void SetUp() override {
        g_live = 0;
        g_destroyed = 0;
        Derived::g_derived_destroyed = 0;
    }
    void TearDown() override { EXPECT_EQ(g_live.load(), 0) << "leaked objects"; }
};

// Heap copies travel as untyped references; give the tests a way to make one.
template <typename Ref>
kiv_shared_ptr_base* heap_copy(Ref& ref) {
    return static_cast<kiv_shared_ptr_base&>(ref).getRefPtr();
}

}  // namespace

TEST_F(SharedPtrTest, ConversionFromWeakBaseDestroysThroughVirtualDestructor) {
    kiv_shared_ptr<Tracked> base(new Derived);
    kiv_weak_ptr<Tracked> self(base);
    kiv_shared_ptr<Derived> derived;
    derived.copyControlObject(&self);
    EXPECT_EQ(static_cast<Tracked*>(derived.getPTR()), base.getPTR());
    base = static_cast<Tracked*>(nullptr);
    EXPECT_EQ(g_destroyed.load(), 0);
    derived = static_cast<Derived*>(nullptr);
    EXPECT_EQ(Derived::g_derived_destroyed.load(), 1);
    EXPECT_EQ(g_destroyed.load(), 1);
}

// Copies, weak conversions, heap copies and releases of one object from many threads: the
// object must be destroyed exactly once, never while a strong reference exists, and a weak
// reference must never produce a strong one after destruction has begun.
TEST_F(SharedPtrTest, ConcurrentCopyConvertReleaseStress) {
    constexpr int kRounds = 300;
    constexpr int kThreads = 4;
    for (int round = 0; round < kRounds; ++round) {
        auto* shared = new kiv_shared_ptr<Tracked>(new Tracked);
        kiv_weak_ptr<Tracked> weak(*shared);
        std::atomic<int> ready{0};
        std::atomic<bool> go{false};
        std::vector<std::thread> threads;
        std::vector<kiv_shared_ptr<Tracked>> mine(kThreads);
        for (int t = 0; t < kThreads; ++t) {
            mine[t] = *shared;
        }
        for (int t = 0; t < kThreads; ++t) {
            threads.emplace_back([&, t] {
                kiv_shared_ptr<Tracked> local = mine[t];
                mine[t] = static_cast<Tracked*>(nullptr);
                ready.fetch_add(1);
                while (!go.load()) {
                }
                for (int i = 0; i < 200; ++i) {
                    kiv_shared_ptr<Tracked> copy(local);
                    kiv_weak_ptr<Tracked> w(copy);
                    kiv_shared_ptr_base* heap = heap_copy(copy);
                    kiv_shared_ptr<Tracked> back(w);
                    ASSERT_TRUE(back.getPTR() && back->alive.load());
                    delete heap;
                }
                local = static_cast<Tracked*>(nullptr);
                // After this thread's last strong reference, only weak locking races with the
                // destruction that another thread may be running.
                for (int i = 0; i < 200; ++i) {
                    kiv_shared_ptr<Tracked> maybe(weak);
                    if (maybe.getPTR()) {
                        ASSERT_TRUE(maybe->alive.load()) << "revived a dying object";
                    }
                }
            });
        }
        while (ready.load() < kThreads) {
        }
        delete shared;
        go = true;
        for (auto& th : threads) {
            th.join();
        }
        ASSERT_EQ(g_destroyed.load(), round + 1);
        ASSERT_EQ(weak.getPTR().getPTR(), nullptr);
    }
}
