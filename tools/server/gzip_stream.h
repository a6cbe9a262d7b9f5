#ifndef KIV_TOOLS_SERVER_GZIP_STREAM_H
#define KIV_TOOLS_SERVER_GZIP_STREAM_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace kiv {
namespace demo {

// Compresses one gzip member piece by piece, for an upload that is sent while it is produced.
// Every push() ends with a sync flush, so the bytes it returns, once received, can be inflated
// completely without waiting for later pieces: the receiver hears each audio frame as soon as
// it arrives, at a small cost in ratio. finish() writes the end of the member (the last deflate
// block and the CRC-32/length trailer).
//
// Not thread-safe: one writer per stream. After finish(), push() and finish() return an empty
// string. A writer that cannot allocate its zlib state returns empty strings and ok() is false.
class GzipWriter {
public:
    // `level` is a zlib compression level (0-9, or -1 for zlib's default).
    explicit GzipWriter(int level = 6);
    ~GzipWriter();
    GzipWriter(const GzipWriter&) = delete;
    GzipWriter& operator=(const GzipWriter&) = delete;

    // Compressed bytes for `data`, flushed to a byte boundary. Empty input still yields the
    // (small) flush marker, and the gzip header on the first call.
    std::string push(const uint8_t* data, size_t size);
    std::string push(const std::string& data) {
        return push(reinterpret_cast<const uint8_t*>(data.data()), data.size());
    }
    // The final block and trailer. Idempotent: a second call returns "".
    std::string finish();

    bool ok() const { return ok_; }
    bool finished() const { return finished_; }

private:
    std::string run(const uint8_t* data, size_t size, int flush);

    struct State;
    std::unique_ptr<State> state_;
    bool ok_ = false;
    bool finished_ = false;
};

// Inflates a gzip stream piece by piece (one or more concatenated members, as RFC 1952 allows),
// handing each piece of output to a sink as soon as zlib produces it.
//
// Not thread-safe. Once push() has failed, the reader stays failed and error() says why.
// complete() is true when the input so far ends exactly at the end of a member: a stream whose
// input has ended while complete() is false was truncated.
class GzipReader {
public:
    using Sink = std::function<bool(const uint8_t* data, size_t size)>;

    GzipReader();
    ~GzipReader();
    GzipReader(const GzipReader&) = delete;
    GzipReader& operator=(const GzipReader&) = delete;

    // Feeds compressed bytes; calls `sink` for each piece of output (at most 32 KiB at a time).
    // Returns false on corrupt input, on a zlib failure, or when the sink returns false (that
    // stops the reader: error() is then "stopped by the consumer").
    bool push(const uint8_t* data, size_t size, const Sink& sink);
    bool complete() const { return complete_; }
    bool failed() const { return !error_.empty(); }
    const std::string& error() const { return error_; }
    // Inflated bytes handed to sinks so far.
    uint64_t total_out() const { return total_out_; }

private:
    struct State;
    std::unique_ptr<State> state_;
    bool complete_ = false;
    std::string error_;
    uint64_t total_out_ = 0;
};

// One-shot helpers for tests and small payloads; gunzip returns false on invalid or truncated
// input.
std::string gzip(const std::string& data, int level = 6);
bool gunzip(const std::string& compressed, std::string* out, std::string* error = nullptr);

}  // namespace demo
}  // namespace kiv

#endif
