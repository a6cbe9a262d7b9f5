// The demo server's gzip inflater, fed arbitrary bytes in arbitrary splits. Besides not
// crashing, a split must not change the result: the same input given whole and given in pieces
// must end with the same verdict (failed or not, complete or not, and the same error) and, when
// it succeeds, the same output; a failed stream may have lost the output of its last zlib call,
// so there one output must be a prefix of the other. A round trip through GzipWriter checks the
// pair from the other side: every flushed piece inflates completely as soon as it arrives.
//
// Input: byte 0 selects the mode (bit 0: 0 arbitrary bytes, 1 round trip), the split style
// (bits 1-2: pieces of 1-16, 1-512 or 1-8192 bytes, or byte by byte), the compression level of
// the round trip (bits 3-6) and whether a second member follows it (bit 7); bytes 1-2 seed the
// split points; the rest is the payload.

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "fuzz/fuzz_check.h"
#include "tools/server/gzip_stream.h"

using kiv::demo::GzipReader;
using kiv::demo::GzipWriter;

namespace {

// Piece sizes drawn from the input's seed, so that mutating the payload keeps the split.
class Splitter {
public:
    Splitter(uint32_t seed, int style) : state_(seed * 2654435761u + 1), style_(style) {}
    size_t next(size_t left) {
        static const size_t kLargest[] = {16, 512, 1, 8192};
        state_ ^= state_ << 13;
        state_ ^= state_ >> 17;
        state_ ^= state_ << 5;
        const size_t piece = 1 + state_ % kLargest[style_];
        return piece < left ? piece : left;
    }

private:
    uint32_t state_;
    int style_;
};

struct Outcome {
    bool ok = true;
    bool complete = false;
    std::string error;
    std::string out;
};

// Feeds `data` in the given pieces (all at once without a splitter). After a failed push the
// reader must stay failed and never call its sink again.
Outcome inflate(const uint8_t* data, size_t size, Splitter* splitter) {
    GzipReader reader;
    Outcome outcome;
    bool failedBefore = false;
    auto sink = [&](const uint8_t* bytes, size_t n) {
        FUZZ_CHECK(!failedBefore, "sink called after a failure");
        FUZZ_CHECK(n > 0 && n <= 32 * 1024, "sink given %zu bytes", n);
        outcome.out.append(reinterpret_cast<const char*>(bytes), n);
        return true;
    };
    size_t offset = 0;
    do {
        const size_t piece = splitter ? splitter->next(size - offset) : size - offset;
        const bool ok = reader.push(data + offset, piece, sink);
        FUZZ_CHECK(ok == !reader.failed(), "push returned %d, failed() is %d", ok, reader.failed());
        FUZZ_CHECK(!failedBefore || !ok, "a failed reader accepted more input");
        failedBefore = failedBefore || !ok;
        outcome.ok = outcome.ok && ok;
        offset += piece;
    } while (offset < size);
    FUZZ_CHECK(reader.total_out() == outcome.out.size(), "total_out %llu, sinks got %zu",
               static_cast<unsigned long long>(reader.total_out()), outcome.out.size());
    outcome.complete = reader.complete();
    outcome.error = reader.error();
    return outcome;
}

bool is_prefix(const std::string& a, const std::string& b) {
    return a.size() <= b.size() && b.compare(0, a.size(), a) == 0;
}

void arbitrary_bytes(const uint8_t* data, size_t size, uint32_t seed, int style) {
    const Outcome whole = inflate(data, size, nullptr);
    Splitter splitter(seed, style);
    const Outcome split = inflate(data, size, &splitter);
    FUZZ_CHECK(whole.ok == split.ok, "whole: %s, split: %s", whole.error.c_str(),
               split.error.c_str());
    FUZZ_CHECK(whole.error == split.error, "whole: \"%s\", split: \"%s\"", whole.error.c_str(),
               split.error.c_str());
    if (whole.ok) {
        FUZZ_CHECK(whole.complete == split.complete, "complete: whole %d, split %d", whole.complete,
                   split.complete);
        FUZZ_CHECK(whole.out == split.out, "whole gave %zu bytes, split %zu", whole.out.size(),
                   split.out.size());
    } else {
        FUZZ_CHECK(is_prefix(whole.out, split.out) || is_prefix(split.out, whole.out),
                   "outputs of a failed stream diverge");
    }

    std::string joined;
    std::string error;
    const bool gunzipped =
        kiv::demo::gunzip(std::string(reinterpret_cast<const char*>(data), size), &joined, &error);
    FUZZ_CHECK(gunzipped == (whole.ok && whole.complete), "gunzip says %d: %s", gunzipped,
               error.c_str());
    FUZZ_CHECK(!gunzipped || joined == whole.out, "gunzip output differs");

    // A consumer that stops: the reader fails with that reason and calls it no more.
    const size_t stopAt = seed % 4096;
    GzipReader reader;
    size_t given = 0;
    bool stopped = false;
    auto stopping = [&](const uint8_t*, size_t n) {
        FUZZ_CHECK(!stopped, "sink called after it stopped the reader");
        given += n;
        stopped = given > stopAt;
        return !stopped;
    };
    const bool ok = reader.push(data, size, stopping) && reader.push(data, size, stopping);
    if (stopped) {
        FUZZ_CHECK(!ok && reader.error() == "stopped by the consumer", "stop: %s",
                   reader.error().c_str());
    }
}

void round_trip(const uint8_t* data, size_t size, uint32_t seed, int style, int level,
                bool secondMember) {
    GzipWriter writer(level);
    FUZZ_CHECK(writer.ok(), "writer at level %d", level);
    GzipReader reader;
    std::string out;
    auto sink = [&](const uint8_t* bytes, size_t n) {
        out.append(reinterpret_cast<const char*>(bytes), n);
        return true;
    };
    Splitter pieces(seed, style);
    Splitter transport(seed ^ 0x5bd1e995u, (style + 1) % 4);
    auto deliver = [&](const std::string& compressed) {
        size_t offset = 0;
        do {
            const size_t piece = transport.next(compressed.size() - offset);
            FUZZ_CHECK(reader.push(reinterpret_cast<const uint8_t*>(compressed.data()) + offset,
                                   piece, sink),
                       "round trip: %s", reader.error().c_str());
            offset += piece;
        } while (offset < compressed.size());
    };
    size_t offset = 0;
    do {
        const size_t piece = pieces.next(size - offset);
        deliver(writer.push(data + offset, piece));
        offset += piece;
        // The sync flush: everything pushed so far is out, without waiting for the end.
        FUZZ_CHECK(out.size() == offset && memcmp(out.data(), data, offset) == 0,
                   "after %zu bytes pushed, %zu inflated", offset, out.size());
        FUZZ_CHECK(!reader.complete(), "complete before the trailer");
    } while (offset < size);
    deliver(writer.finish());
    FUZZ_CHECK(reader.complete(), "not complete after the trailer");
    FUZZ_CHECK(writer.finish().empty() && writer.push(data, size).empty(), "writer after finish");
    if (secondMember) {
        const std::string more = kiv::demo::gzip(std::string(out.rbegin(), out.rend()), level);
        deliver(more);
        FUZZ_CHECK(reader.complete(), "second member not complete");
        FUZZ_CHECK(out.size() == 2 * size, "second member gave %zu bytes", out.size() - size);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 3) {
        return 0;
    }
    const uint8_t flags = data[0];
    const uint32_t seed = static_cast<uint32_t>(data[1]) << 8 | data[2];
    const int style = (flags >> 1) & 3;
    data += 3;
    size -= 3;
    if (flags & 1) {
        const int level = (flags >> 3) & 15;
        round_trip(data, size, seed, style, level <= 9 ? level : -1, flags & 0x80);
    } else {
        arbitrary_bytes(data, size, seed, style);
    }
    return 0;
}
