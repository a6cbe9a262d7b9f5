// Audio byte queue throughput: queueAudio of 3,200-byte frames (100 ms of 16 kHz 16-bit mono)
// and dequeSamples of them, against memcpy of the same bytes in and out of a flat buffer (the
// least copying any queue has to do), in the same run.
//
// Two shapes: frame in, frame out (the queue stays near empty), and an upload-like reader that
// takes 16,384-byte reads from a backlog of a few dozen frames, so the ring wraps constantly.
//
// Usage: bench_pcmqueue [megabytes per case, default 4096]

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "core/Audio/PCMQueue.h"

using kiv::PCMQueue;
using kiv::Memory::kiv_shared_ptr;
using Clock = std::chrono::steady_clock;

namespace {

const int kFrame = 3200;
const int kRead = 16384;
const int kBacklogFrames = 40;

// Sixty-four different frames, so the source is not one cache-hot line of bytes.
std::vector<uint8_t> g_source(kFrame * 64);
std::vector<uint8_t> g_sink(kRead);
unsigned g_check = 0;

const uint8_t* frame(long long i) {
    return g_source.data() + (i % 64) * kFrame;
}

double seconds(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

double queueFrameInFrameOut(long long frames) {
    kiv_shared_ptr<PCMQueue> queue = PCMQueue::newQueue(0);
    Clock::time_point start = Clock::now();
    for (long long i = 0; i < frames; ++i) {
        queue->queueAudio(frame(i), kFrame);
        g_check += queue->dequeSamples(g_sink.data(), kFrame, false);
        g_check += g_sink[i % kFrame];
    }
    return seconds(start);
}

double memcpyFrameInFrameOut(long long frames) {
    std::vector<uint8_t> stage(kFrame);
    Clock::time_point start = Clock::now();
    for (long long i = 0; i < frames; ++i) {
        memcpy(stage.data(), frame(i), kFrame);
        memcpy(g_sink.data(), stage.data(), kFrame);
        g_check += g_sink[i % kFrame];
    }
    return seconds(start);
}

double queueBacklog(long long frames) {
    kiv_shared_ptr<PCMQueue> queue = PCMQueue::newQueue(0);
    long long i = 0;
    for (; i < kBacklogFrames; ++i) {
        queue->queueAudio(frame(i), kFrame);
    }
    Clock::time_point start = Clock::now();
    long long out = 0;
    for (; i < frames + kBacklogFrames; ++i) {
        queue->queueAudio(frame(i), kFrame);
        while (queue->mDataLength >= kBacklogFrames * kFrame) {
            out += queue->dequeSamples(g_sink.data(), kRead, false);
            g_check += g_sink[out % kRead];
        }
    }
    return seconds(start);
}

double memcpyBacklog(long long frames) {
    // The same copies, in the same sizes and order, at rolling offsets of a flat buffer of the
    // backlog's size; no bookkeeping and no wrap-around splits.
    const size_t size = static_cast<size_t>(kBacklogFrames + 8) * kFrame;
    std::vector<uint8_t> flat(size);
    size_t in = 0;
    size_t out = 0;
    long long held = 0;
    long long i = 0;
    for (; i < kBacklogFrames; ++i) {
        memcpy(flat.data() + in, frame(i), kFrame);
        in = in + 2 * kFrame > size ? 0 : in + kFrame;
        held += kFrame;
    }
    Clock::time_point start = Clock::now();
    for (; i < frames + kBacklogFrames; ++i) {
        memcpy(flat.data() + in, frame(i), kFrame);
        in = in + 2 * kFrame > size ? 0 : in + kFrame;
        held += kFrame;
        while (held >= static_cast<long long>(kBacklogFrames) * kFrame) {
            memcpy(g_sink.data(), flat.data() + out, kRead);
            out = out + 2 * kRead > size ? 0 : out + kRead;
            held -= kRead;
            g_check += g_sink[held % kRead];
        }
    }
    return seconds(start);
}

void report(const char* name, long long frames, double queueS, double memcpyS) {
    double bytes = static_cast<double>(frames) * kFrame;
    printf("%-28s queue %7.2f GB/s   memcpy %7.2f GB/s   queue/memcpy %.2f\n", name,
           bytes / queueS / 1e9, bytes / memcpyS / 1e9, memcpyS / queueS);
}

}  // namespace

int main(int argc, char** argv) {
    long long megabytes = argc > 1 ? atoll(argv[1]) : 4096;
    if (megabytes <= 0) {
        megabytes = 4096;
    }
    long long frames = megabytes * 1024 * 1024 / kFrame;
    for (size_t i = 0; i < g_source.size(); ++i) {
        g_source[i] = static_cast<uint8_t>(i * 31 + 7);
    }
    printf("%lld MB per case, %d-byte frames\n", megabytes, kFrame);
    // Each pair runs twice, plain alternative first and last, so warm-up favours neither.
    for (int round = 0; round < 2; ++round) {
        double m1 = memcpyFrameInFrameOut(frames);
        double q1 = queueFrameInFrameOut(frames);
        report("frame in, frame out", frames, q1, m1);
        double q2 = queueBacklog(frames);
        double m2 = memcpyBacklog(frames);
        report("backlog, 16384-byte reads", frames, q2, m2);
    }
    printf("(checksum %u)\n", g_check);
    return 0;
}
