#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <deque>
#include <random>
#include <vector>

#include "core/Audio/PCMQueue.h"

using kiv::PCMQueue;
using Bytes = std::vector<uint8_t>;

// Uneven queue and take sizes across growth and wrap-around; taking alternates between
// dequeSamples and a read by stream position followed by shiftSize.
TEST(PCMQueueTest, KeepsOrderAcrossUnevenSizesLikeADeque) {
    auto queue = PCMQueue::newQueue(0);
    std::deque<uint8_t> reference;
    std::mt19937 random(20240611);
    int next = 0, position = 0;
    Bytes out(9000);
    for (int step = 0; step < 20000; ++step) {
        if (random() % 2) {
            const int n = static_cast<int>(random() % (random() % 8 ? 700 : 9000));
            Bytes in(n);
            for (uint8_t& b : in) {
                b = static_cast<uint8_t>(next++);
            }
            ASSERT_EQ(queue->queueAudio(in.data(), n), n);
            reference.insert(reference.end(), in.begin(), in.end());
        } else {
            const int n = static_cast<int>(random() % 3000);
            const int k = std::min<int>(n, static_cast<int>(reference.size()));
            if (step % 3) {
                ASSERT_EQ(queue->dequeSamples(out.data(), n, false), k) << step;
            } else {
                ASSERT_EQ(queue->readSamples(out.data(), 0, n, position, false), k) << step;
                ASSERT_EQ(queue->shiftSize(n), k) << step;
            }
            ASSERT_TRUE(std::equal(out.begin(), out.begin() + k, reference.begin())) << step;
            reference.erase(reference.begin(), reference.begin() + k);
            position += k;
        }
        ASSERT_EQ(queue->mDataLength, static_cast<int>(reference.size()));
    }
}

TEST(PCMQueueTest, EmptyZeroAndNullArgumentsChangeNothing) {
    auto queue = PCMQueue::newQueue(0);
    uint8_t out[4] = {1, 1, 1, 1};
    EXPECT_EQ(queue->dequeSamples(out, 4, true), 0);
    EXPECT_EQ(Bytes(out, out + 4), Bytes(4, 0)) << "padding is silence";
    EXPECT_EQ(queue->shiftSize(10), 0);
    EXPECT_EQ(queue->queueAudio(nullptr, 0), 0);
    EXPECT_EQ(queue->queueAudio(nullptr, 4), -1);
    EXPECT_EQ(queue->queueAudio(out, -1), -1);
    EXPECT_EQ(queue->dequeSamples(nullptr, 1, false), -1);
    EXPECT_EQ(queue->readSamples(out, -1, 1, 0, false), -1);
    EXPECT_EQ(queue->shiftSize(-1), -1);
    EXPECT_FALSE(queue->haveData());
}

TEST(PCMQueueTest, PeeksShiftsSnapshotRestoreAndReset) {
    auto queue = PCMQueue::newQueue(8);
    const Bytes in = {10, 11, 12, 13, 14, 15, 16, 17, 18, 19};  // stream positions 0..9
    Bytes out(10, 9);
    ASSERT_EQ(queue->queueAudio(in.data(), 6), 6);
    EXPECT_EQ(queue->readSamples(out.data(), 8, true), 6);  // the oldest, padded, not removed
    EXPECT_EQ(out, Bytes({in[0], in[1], in[2], in[3], in[4], in[5], 0, 0, 9, 9}));
    EXPECT_EQ(queue->readSamples(out.data(), 1, 3, 2, false), 3);  // positions 2..4 at offset 1
    EXPECT_EQ(Bytes(out.begin() + 1, out.begin() + 4), Bytes(in.begin() + 2, in.begin() + 5));
    EXPECT_EQ(queue->readSamples(out.data(), 0, 4, 6, false), 0);  // nothing from the newest on
    EXPECT_EQ(queue->shiftSize(1), 1);
    EXPECT_EQ(queue->shiftToLogicPos(2), 1);
    EXPECT_EQ(queue->shiftToLogicPos(1), 0) << "behind the logical start";
    EXPECT_EQ(queue->readSamples(out.data(), 0, 1, 1, false), -1) << "position 1 is gone";
    // Positions 2..9 fill the ring, wrapping; the mark then survives a dequeue and a growth.
    ASSERT_EQ(queue->queueAudio(in.data() + 6, 4), 4);
    queue->snapshot();
    EXPECT_EQ(queue->dequeSamples(out.data(), 3, false), 3);
    const Bytes more(10000, 50);
    ASSERT_EQ(queue->queueAudio(more.data(), 10000), 10000);
    queue->restore();
    ASSERT_EQ(queue->mDataLength, 8);
    EXPECT_EQ(queue->readSamples(out.data(), 0, 8, 2, false), 8);
    EXPECT_EQ(Bytes(out.begin(), out.begin() + 8), Bytes(in.begin() + 2, in.end()));
    queue->restore();  // the mark is gone: nothing changes
    EXPECT_EQ(queue->mDataLength, 8);
    queue->reset();
    EXPECT_FALSE(queue->haveData());
    ASSERT_EQ(queue->queueAudio(in.data(), 6), 6);
    EXPECT_EQ(queue->shiftToLogicPos(4), 4) << "positions restart at 0 after reset";
}
