// PCMQueue against a std::deque model: each input is a series of operations on one queue, and
// after every one the queue must hold exactly the model's bytes at the model's stream positions.
// Buffers handed to the queue are heap blocks of exactly the size the call may touch, so ASan
// reports any write or read past them; the bytes a call must leave alone are checked too.

#include <fuzzer/FuzzedDataProvider.h>

#include <climits>
#include <cstdint>
#include <cstring>
#include <deque>
#include <vector>

#include "core/Audio/PCMQueue.h"
#include "core/utility/kiv_log.h"
#include "fuzz/fuzz_check.h"

using kiv::PCMQueue;

namespace {

// Bytes queued by one input stay bounded, so that an input runs in milliseconds.
constexpr size_t kMaxQueued = 1 << 17;
constexpr int kMaxLength = 9000;  // past twice the queue's smallest grown ring
// Content past this size is checked at both ends after each step and whole at the end.
constexpr size_t kFullCheck = 4096;
constexpr uint8_t kUntouched = 0xA5;
constexpr size_t kPatternPeriod = 65521;

struct Model {
    std::deque<uint8_t> bytes;
    int logicStart = 0;
    bool marked = false;
    std::deque<uint8_t> markBytes;
    int markLogicStart = 0;

    void drop(size_t n) {
        bytes.erase(bytes.begin(), bytes.begin() + static_cast<long>(n));
        logicStart = static_cast<int>(static_cast<unsigned>(logicStart) + n);
    }
};

// Queued bytes come from a pseudo-random pattern with a prime period, read on along the whole
// input, so that a byte from the wrong place shows.
std::vector<uint8_t> make_pattern() {
    std::vector<uint8_t> pattern(kPatternPeriod + kMaxLength);
    uint32_t x = 2463534242u;
    for (uint8_t& b : pattern) {
        x ^= x << 13;
        x ^= x >> 17;
        x ^= x << 5;
        b = static_cast<uint8_t>(x >> 24);
    }
    return pattern;
}
const std::vector<uint8_t> g_pattern = make_pattern();

// Loops stay out of the harness where a library call does the work: the harness is compiled
// with comparison tracing, and byte loops would cost more than the queue itself.
bool all_equal(const uint8_t* p, size_t n, uint8_t value) {
    return n == 0 || (p[0] == value && memcmp(p, p + 1, n - 1) == 0);
}

int wrapping_diff(int to, int from) {
    return static_cast<int>(static_cast<unsigned>(to) - static_cast<unsigned>(from));
}

// A stream position: mostly near the queued bytes (before, inside or past them), sometimes any.
int pick_position(FuzzedDataProvider& in, const Model& model) {
    if (in.ConsumeIntegralInRange<int>(0, 7) == 0) {
        return in.ConsumeIntegral<int>();
    }
    const int64_t delta =
        in.ConsumeIntegralInRange<int64_t>(-300, static_cast<int64_t>(model.bytes.size()) + 300);
    return static_cast<int>(static_cast<uint32_t>(model.logicStart) + static_cast<uint32_t>(delta));
}

int length(FuzzedDataProvider& in) {
    switch (in.ConsumeIntegralInRange<int>(0, 7)) {
        case 0:
            return -in.ConsumeIntegralInRange<int>(1, INT_MAX);
        case 1:
        case 2:
            return in.ConsumeIntegralInRange<int>(0, kMaxLength);
        default:
            return in.ConsumeIntegralInRange<int>(0, 300);
    }
}

// Checks `got[0, n)` against the model's bytes from `skip` on.
void expect_bytes(const Model& model, size_t skip, const uint8_t* got, size_t n, const char* op) {
    if (n == 0) {
        return;
    }
    const auto from = model.bytes.begin() + static_cast<long>(skip);
    const std::vector<uint8_t> want(from, from + static_cast<long>(n));
    if (memcmp(got, want.data(), n) != 0) {
        size_t i = 0;
        while (got[i] == want[i]) {
            ++i;
        }
        FUZZ_CHECK(false, "%s: byte %zu of %zu (from %zu) is %u, not %u", op, i, n, skip, got[i],
                   want[i]);
    }
}

// Checks a buffer filled by a read of `length` bytes from `from` that returned `n`: padding
// (zeros) up to `length` when asked, and nothing else written.
void expect_tail(const std::vector<uint8_t>& buffer, size_t from, size_t n, size_t length, bool pad,
                 const char* op) {
    const size_t end = from + length;
    if (pad) {
        FUZZ_CHECK(all_equal(buffer.data() + from + n, end - from - n, 0), "%s: padding", op);
    } else {
        FUZZ_CHECK(all_equal(buffer.data() + from + n, end - from - n, kUntouched),
                   "%s: wrote past the %zu bytes it returned", op, n);
    }
    FUZZ_CHECK(all_equal(buffer.data() + end, buffer.size() - end, kUntouched),
               "%s: wrote past its length", op);
}

void expect_content(PCMQueue& queue, const Model& model, bool whole) {
    FUZZ_CHECK(queue.mDataLength == static_cast<int>(model.bytes.size()), "holds %d, expected %zu",
               queue.mDataLength, model.bytes.size());
    FUZZ_CHECK(queue.haveData() == !model.bytes.empty(), "haveData");
    const size_t size = model.bytes.size();
    auto window = [&](size_t skip, size_t n) {
        std::vector<uint8_t> out(n);
        const int position = static_cast<int>(static_cast<unsigned>(model.logicStart) + skip);
        const int got = queue.readSamples(out.data(), 0, static_cast<int>(n), position, false);
        FUZZ_CHECK(got == static_cast<int>(n), "content read returned %d, expected %zu", got, n);
        expect_bytes(model, skip, out.data(), n, "content");
    };
    if (whole || size <= kFullCheck) {
        window(0, size);
    } else {
        window(0, kFullCheck / 2);
        window(size - kFullCheck / 2, kFullCheck / 2);
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    // Invalid arguments are logged at level 2; they are expected here by the thousand.
    kiv::set_log_level(1);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider in(data, size);
    auto queue = PCMQueue::newQueue(in.ConsumeIntegralInRange<int>(-1, 64));
    FUZZ_CHECK(queue.getPTR() != nullptr, "no queue");
    PCMQueue& q = *queue.getPTR();
    Model model;
    size_t serial = 0;
    size_t queued = 0;

    while (in.remaining_bytes() > 0) {
        const bool pad = in.ConsumeBool();
        switch (in.ConsumeIntegralInRange<int>(0, 10)) {
            case 0: {  // queueAudio
                int n = length(in);
                if (n > 0 && queued + static_cast<size_t>(n) > kMaxQueued) {
                    n = 0;
                }
                const size_t start = serial % kPatternPeriod;
                std::vector<uint8_t> bytes(
                    g_pattern.begin() + static_cast<long>(start),
                    g_pattern.begin() + static_cast<long>(start) + (n > 0 ? n : 0));
                const bool null = n > 0 && in.ConsumeIntegralInRange<int>(0, 15) == 0;
                const int got = q.queueAudio(null ? nullptr : bytes.data(), n);
                const int want = n < 0 || null ? -1 : n;
                FUZZ_CHECK(got == want, "queueAudio(%d%s) returned %d, expected %d", n,
                           null ? ", null" : "", got, want);
                if (want > 0) {
                    serial += static_cast<size_t>(n);
                    model.bytes.insert(model.bytes.end(), bytes.begin(), bytes.end());
                    queued += static_cast<size_t>(n);
                }
                break;
            }
            case 1:    // dequeSamples
            case 2: {  // readSamples (oldest bytes)
                const bool deque = in.ConsumeBool();
                const int n = length(in);
                std::vector<uint8_t> out(n > 0 ? static_cast<size_t>(n) : 0, kUntouched);
                const int got =
                    deque ? q.dequeSamples(out.data(), n, pad) : q.readSamples(out.data(), n, pad);
                const char* op = deque ? "dequeSamples" : "readSamples";
                if (n < 0) {
                    FUZZ_CHECK(got == -1, "%s(%d) returned %d", op, n, got);
                    break;
                }
                const size_t want = std::min(static_cast<size_t>(n), model.bytes.size());
                FUZZ_CHECK(got == static_cast<int>(want), "%s(%d) returned %d, expected %zu", op, n,
                           got, want);
                expect_bytes(model, 0, out.data(), want, op);
                expect_tail(out, 0, want, static_cast<size_t>(n), pad, op);
                if (deque) {
                    model.drop(want);
                }
                break;
            }
            case 3: {  // readSamples at a stream position and buffer offset
                const int offset = in.ConsumeIntegralInRange<int>(-1, 64);
                const int n = length(in);
                const int position = pick_position(in, model);
                const size_t span = offset >= 0 && n >= 0
                                        ? static_cast<size_t>(offset) + static_cast<size_t>(n)
                                        : 0;
                std::vector<uint8_t> out(span, kUntouched);
                const int got =
                    q.readSamples(span ? out.data() : nullptr, offset, n, position, pad);
                const int skip = wrapping_diff(position, model.logicStart);
                if (offset < 0 || n < 0 || skip < 0) {
                    FUZZ_CHECK(got == -1, "readSamples(offset %d, length %d, skip %d) returned %d",
                               offset, n, skip, got);
                    break;
                }
                const size_t available =
                    static_cast<size_t>(skip) < model.bytes.size() ? model.bytes.size() - skip : 0;
                const size_t want = std::min(static_cast<size_t>(n), available);
                FUZZ_CHECK(got == static_cast<int>(want),
                           "readSamples(offset %d, length %d, skip %d) returned %d, expected %zu",
                           offset, n, skip, got, want);
                FUZZ_CHECK(all_equal(out.data(), static_cast<size_t>(offset), kUntouched),
                           "readSamples wrote before the offset");
                expect_bytes(model, static_cast<size_t>(skip), out.data() + offset, want,
                             "readSamples at a position");
                expect_tail(out, static_cast<size_t>(offset), want, static_cast<size_t>(n), pad,
                            "readSamples at a position");
                break;
            }
            case 4: {  // shiftToLogicPos
                const int position = pick_position(in, model);
                const int ahead = wrapping_diff(position, model.logicStart);
                const size_t want =
                    ahead <= 0 ? 0 : std::min(static_cast<size_t>(ahead), model.bytes.size());
                const int got = q.shiftToLogicPos(position);
                FUZZ_CHECK(got == static_cast<int>(want),
                           "shiftToLogicPos(+%d) returned %d, "
                           "expected %zu",
                           ahead, got, want);
                model.drop(want);
                break;
            }
            case 5: {  // shiftSize
                const int n = length(in);
                const int got = q.shiftSize(n);
                if (n < 0) {
                    FUZZ_CHECK(got == -1, "shiftSize(%d) returned %d", n, got);
                    break;
                }
                const size_t want = std::min(static_cast<size_t>(n), model.bytes.size());
                FUZZ_CHECK(got == static_cast<int>(want), "shiftSize(%d) returned %d, expected %zu",
                           n, got, want);
                model.drop(want);
                break;
            }
            case 6:  // invalid buffers change nothing
                FUZZ_CHECK(q.dequeSamples(nullptr, 1, pad) == -1, "dequeSamples(null)");
                FUZZ_CHECK(q.readSamples(nullptr, 1, pad) == -1, "readSamples(null)");
                FUZZ_CHECK(q.readSamples(nullptr, 0, 1, model.logicStart, pad) == -1,
                           "readSamples(null, position)");
                FUZZ_CHECK(q.readSamples(nullptr, 0, 0, model.logicStart, pad) == 0,
                           "readSamples(null, 0 bytes)");
                break;
            case 7:
                q.reset();
                model.bytes.clear();
                model.logicStart = 0;
                model.marked = false;
                break;
            case 8:
            case 9:
                q.snapshot();
                model.marked = true;
                model.markBytes = model.bytes;
                model.markLogicStart = model.logicStart;
                break;
            case 10:
                q.restore();
                if (model.marked) {
                    model.bytes = model.markBytes;
                    model.logicStart = model.markLogicStart;
                    model.marked = false;
                }
                break;
        }
        expect_content(q, model, false);
    }
    expect_content(q, model, true);
    return 0;
}
