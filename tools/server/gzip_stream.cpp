#include "tools/server/gzip_stream.h"

#include <zlib.h>

#include <algorithm>
#include <cstring>

namespace kiv {
namespace demo {

namespace {

// 16 added to the window bits selects the gzip wrapper in both directions.
constexpr int kGzipWindowBits = 16 + MAX_WBITS;
constexpr size_t kChunk = size_t{32} * 1024;

}  // namespace

struct GzipWriter::State {
    z_stream zs;
};

GzipWriter::GzipWriter(int level) : state_(new State) {
    std::memset(&state_->zs, 0, sizeof(state_->zs));
    ok_ = deflateInit2(&state_->zs, level, Z_DEFLATED, kGzipWindowBits, 8, Z_DEFAULT_STRATEGY) ==
          Z_OK;
}

GzipWriter::~GzipWriter() {
    if (ok_) {
        deflateEnd(&state_->zs);
    }
}

std::string GzipWriter::run(const uint8_t* data, size_t size, int flush) {
    std::string out;
    if (!ok_ || finished_) {
        return out;
    }
    z_stream& zs = state_->zs;
    // zlib takes uInt lengths: feed very large inputs in slices.
    size_t offset = 0;
    unsigned char buffer[kChunk];
    do {
        const size_t slice = std::min<size_t>(size - offset, 1u << 30);
        zs.next_in = const_cast<Bytef*>(data + offset);
        zs.avail_in = static_cast<uInt>(slice);
        offset += slice;
        const int mode = offset < size ? Z_NO_FLUSH : flush;
        int rc;
        do {
            zs.next_out = buffer;
            zs.avail_out = sizeof(buffer);
            rc = deflate(&zs, mode);
            if (rc == Z_STREAM_ERROR) {
                ok_ = false;
                return std::string();
            }
            out.append(reinterpret_cast<const char*>(buffer), sizeof(buffer) - zs.avail_out);
            // With a flush, deflate is done once it leaves output space unused.
        } while (zs.avail_out == 0 || (mode == Z_FINISH && rc != Z_STREAM_END));
    } while (offset < size);
    return out;
}

std::string GzipWriter::push(const uint8_t* data, size_t size) {
    static const uint8_t kNothing = 0;
    return run(size == 0 ? &kNothing : data, size, Z_SYNC_FLUSH);
}

std::string GzipWriter::finish() {
    static const uint8_t kNothing = 0;
    std::string out = run(&kNothing, 0, Z_FINISH);
    if (ok_) {
        finished_ = true;
    }
    return out;
}

struct GzipReader::State {
    z_stream zs;
    bool ready = false;
};

GzipReader::GzipReader() : state_(new State) {
    std::memset(&state_->zs, 0, sizeof(state_->zs));
    state_->ready = inflateInit2(&state_->zs, kGzipWindowBits) == Z_OK;
    if (!state_->ready) {
        error_ = "cannot initialise zlib";
    }
}

GzipReader::~GzipReader() {
    if (state_->ready) {
        inflateEnd(&state_->zs);
    }
}

bool GzipReader::push(const uint8_t* data, size_t size, const Sink& sink) {
    if (failed()) {
        return false;
    }
    z_stream& zs = state_->zs;
    unsigned char buffer[kChunk];
    size_t offset = 0;
    while (offset < size) {
        const size_t slice = std::min<size_t>(size - offset, 1u << 30);
        zs.next_in = const_cast<Bytef*>(data + offset);
        zs.avail_in = static_cast<uInt>(slice);
        while (zs.avail_in > 0) {
            if (complete_) {
                // More input after a complete member: the next member of the same stream.
                inflateReset(&zs);
                complete_ = false;
            }
            zs.next_out = buffer;
            zs.avail_out = sizeof(buffer);
            const int rc = inflate(&zs, Z_NO_FLUSH);
            const size_t produced = sizeof(buffer) - zs.avail_out;
            if (rc != Z_OK && rc != Z_STREAM_END && rc != Z_BUF_ERROR) {
                error_ = std::string("invalid gzip data: ") + (zs.msg ? zs.msg : zError(rc));
                return false;
            }
            if (produced > 0) {
                total_out_ += produced;
                if (!sink(buffer, produced)) {
                    error_ = "stopped by the consumer";
                    return false;
                }
            }
            if (rc == Z_STREAM_END) {
                complete_ = true;
            } else if (rc == Z_BUF_ERROR && produced == 0) {
                // Input and output space were both available: zlib cannot go on.
                error_ = "invalid gzip data: no progress";
                return false;
            }
        }
        offset += slice;
    }
    return true;
}

std::string gzip(const std::string& data, int level) {
    GzipWriter writer(level);
    std::string out = writer.push(data);
    out += writer.finish();
    return out;
}

bool gunzip(const std::string& compressed, std::string* out, std::string* error) {
    GzipReader reader;
    std::string result;
    const bool ok = reader.push(reinterpret_cast<const uint8_t*>(compressed.data()),
                                compressed.size(), [&](const uint8_t* data, size_t size) {
                                    result.append(reinterpret_cast<const char*>(data), size);
                                    return true;
                                });
    if (!ok || !reader.complete()) {
        if (error) {
            *error = ok ? "gzip stream truncated" : reader.error();
        }
        return false;
    }
    if (out) {
        *out = std::move(result);
    }
    return true;
}

}  // namespace demo
}  // namespace kiv
