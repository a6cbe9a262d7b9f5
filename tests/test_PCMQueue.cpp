#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <deque>
#include <random>
#include <vector>

#include "core/Audio/PCMQueue.h"

using kiv::PCMQueue;
using kiv::Memory::kiv_shared_ptr;

namespace {

std::vector<uint8_t> bytes(int count, int first) {
    std::vector<uint8_t> out(count);
    for (int i = 0; i < count; ++i) {
        out[i] = static_cast<uint8_t>(first + i * 7);
    }
    return out;
}

// A plain model of the queue: the held bytes, the logical start and the snapshot mark.
struct Model {
    std::deque<uint8_t> held;
    int logicStart = 0;
    bool marked = false;
    std::deque<uint8_t> markHeld;
    int markLogicStart = 0;
};

}  // namespace

TEST(PCMQueueTest, KeepsOrderAcrossUnevenQueueAndDequeSizes) {
    kiv_shared_ptr<PCMQueue> queue = PCMQueue::newQueue(0);
    std::deque<uint8_t> reference;
    std::mt19937 random(20240611);
    int next = 0;
    std::vector<uint8_t> out(9000);
    for (int step = 0; step < 20000; ++step) {
        if (random() % 2) {
            int n = static_cast<int>(random() % (random() % 8 ? 700 : 9000));
            std::vector<uint8_t> in = bytes(n, next);
            next += n;
            ASSERT_EQ(queue->queueAudio(in.data(), n), n);
            reference.insert(reference.end(), in.begin(), in.end());
        } else {
            int n = static_cast<int>(random() % 3000);
            int expected = std::min<int>(n, static_cast<int>(reference.size()));
            ASSERT_EQ(queue->dequeSamples(out.data(), n, false), expected) << "step " << step;
            ASSERT_TRUE(std::equal(out.begin(), out.begin() + expected, reference.begin()))
                << "step " << step;
            reference.erase(reference.begin(), reference.begin() + expected);
        }
        ASSERT_EQ(queue->mDataLength, static_cast<int>(reference.size()));
        ASSERT_EQ(queue->haveData(), !reference.empty());
    }
}

// Every operation mixed at random and checked against the model, so that positions, peeks,
// shifts and the snapshot mark are exercised across growth and wrap-around.
TEST(PCMQueueTest, AllOperationsMatchAModel) {
    kiv_shared_ptr<PCMQueue> queue = PCMQueue::newQueue(16);
    Model m;
    std::mt19937 random(77);
    int next = 0;
    std::vector<uint8_t> out(5000);
    for (int step = 0; step < 20000; ++step) {
        int held = static_cast<int>(m.held.size());
        int n = static_cast<int>(random() % 2500);
        switch (random() % 10) {
            case 0:
            case 1:
            case 2: {
                std::vector<uint8_t> in = bytes(n, next);
                next += n;
                ASSERT_EQ(queue->queueAudio(in.data(), n), n);
                m.held.insert(m.held.end(), in.begin(), in.end());
                break;
            }
            case 3:
            case 4: {
                int k = std::min(n, held);
                ASSERT_EQ(queue->dequeSamples(out.data(), n, true), k);
                ASSERT_TRUE(std::equal(out.begin(), out.begin() + k, m.held.begin())) << step;
                ASSERT_TRUE(std::all_of(out.begin() + k, out.begin() + n, [](uint8_t b) {
                    return b == 0;
                })) << step;
                m.held.erase(m.held.begin(), m.held.begin() + k);
                m.logicStart += k;
                break;
            }
            case 5: {
                int skip = static_cast<int>(random() % (held + 2)) - 1;
                int offset = static_cast<int>(random() % 100);
                int k = skip < 0 ? -1 : std::max(0, std::min(n, held - skip));
                ASSERT_EQ(queue->readSamples(out.data(), offset, n, m.logicStart + skip, false), k);
                if (k > 0) {
                    ASSERT_TRUE(std::equal(out.begin() + offset, out.begin() + offset + k,
                                           m.held.begin() + skip))
                        << step;
                }
                break;
            }
            case 6: {
                int k = std::min(n, held);
                if (random() % 2) {
                    ASSERT_EQ(queue->shiftSize(n), k);
                } else {
                    ASSERT_EQ(queue->shiftToLogicPos(m.logicStart + n), k);
                }
                m.held.erase(m.held.begin(), m.held.begin() + k);
                m.logicStart += k;
                break;
            }
            case 7:
                queue->snapshot();
                m.marked = true;
                m.markHeld = m.held;
                m.markLogicStart = m.logicStart;
                break;
            case 8:
                queue->restore();
                if (m.marked) {
                    m.held = m.markHeld;
                    m.logicStart = m.markLogicStart;
                    m.marked = false;
                }
                break;
            case 9:
                if (random() % 20 == 0) {
                    queue->reset();
                    m = Model();
                }
                break;
        }
        ASSERT_EQ(queue->mDataLength, static_cast<int>(m.held.size())) << "step " << step;
        int k = queue->readSamples(out.data(), static_cast<int>(out.size()), false);
        ASSERT_TRUE(std::equal(out.begin(), out.begin() + k, m.held.begin())) << step;
    }
}

TEST(PCMQueueTest, EmptyQueueGivesNothingOrSilence) {
    kiv_shared_ptr<PCMQueue> queue = PCMQueue::newQueue(0);
    uint8_t out[8] = {1, 1, 1, 1, 1, 1, 1, 1};
    EXPECT_EQ(queue->dequeSamples(out, 8, false), 0);
    EXPECT_EQ(out[0], 1);
    EXPECT_EQ(queue->dequeSamples(out, 8, true), 0);
    EXPECT_EQ(out[7], 0);
    EXPECT_FALSE(queue->haveData());
    EXPECT_EQ(queue->shiftSize(10), 0);
}

TEST(PCMQueueTest, NullOrEmptyQueueAudioIsANoOpAndBadArgumentsChangeNothing) {
    kiv_shared_ptr<PCMQueue> queue = PCMQueue::newQueue(0);
    uint8_t one = 9;
    EXPECT_EQ(queue->queueAudio(nullptr, 0), 0);
    EXPECT_EQ(queue->queueAudio(&one, 0), 0);
    EXPECT_EQ(queue->queueAudio(&one, -1), -1);
    EXPECT_EQ(queue->queueAudio(nullptr, 4), -1);
    EXPECT_EQ(queue->mDataLength, 0);
    ASSERT_EQ(queue->queueAudio(&one, 1), 1);
    EXPECT_EQ(queue->dequeSamples(nullptr, 1, false), -1);
    EXPECT_EQ(queue->readSamples(&one, -1, 1, 0, false), -1);
    EXPECT_EQ(queue->shiftSize(-1), -1);
    uint8_t out = 0;
    EXPECT_EQ(queue->dequeSamples(&out, 1, false), 1);
    EXPECT_EQ(out, 9);
    EXPECT_EQ(queue->readSamples(&out, 0, 1, 0, false), -1) << "position 0 is gone";
}

TEST(PCMQueueTest, GrowsFromZeroOnAFirstLargeQueue) {
    kiv_shared_ptr<PCMQueue> queue = PCMQueue::newQueue(0);
    std::vector<uint8_t> in = bytes(3 * 1024 * 1024 + 1, 5);
    ASSERT_EQ(queue->queueAudio(in.data(), static_cast<int>(in.size())),
              static_cast<int>(in.size()));
    std::vector<uint8_t> out(in.size() + 10);
    ASSERT_EQ(queue->dequeSamples(out.data(), static_cast<int>(out.size()), false),
              static_cast<int>(in.size()));
    out.resize(in.size());
    EXPECT_EQ(out, in);
}

TEST(PCMQueueTest, RestoreReturnsExactlyTheMarkedContentAcrossGrowth) {
    kiv_shared_ptr<PCMQueue> queue = PCMQueue::newQueue(8);
    std::vector<uint8_t> first = bytes(6, 1);
    queue->queueAudio(first.data(), 6);
    uint8_t out[6];
    queue->dequeSamples(out, 2, false);  // logical start 2
    queue->snapshot();
    queue->dequeSamples(out, 3, false);
    std::vector<uint8_t> more = bytes(10000, 50);  // forces growth with the mark set
    queue->queueAudio(more.data(), 10000);
    queue->restore();
    ASSERT_EQ(queue->mDataLength, 4);
    EXPECT_EQ(queue->readSamples(out, 0, 4, 2, false), 4);
    EXPECT_EQ(std::vector<uint8_t>(out, out + 4),
              std::vector<uint8_t>(first.begin() + 2, first.end()));
    queue->restore();  // the mark is gone: nothing changes
    EXPECT_EQ(queue->mDataLength, 4);
    queue->reset();
    EXPECT_FALSE(queue->haveData());
    queue->queueAudio(first.data(), 6);
    EXPECT_EQ(queue->shiftToLogicPos(4), 4) << "positions restart at 0 after reset";
}
