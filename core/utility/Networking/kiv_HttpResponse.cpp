#include "core/utility/Networking/kiv_HttpResponse.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <new>

namespace kiv {
namespace Networking {

using kiv::Memory::kiv_shared_ptr;

namespace {

// Body buffers carry their capacity in a header just before the bytes that the shared pointer
// points at, so a response can grow its body geometrically without a field of its own.
constexpr size_t kHeaderSize = alignof(std::max_align_t);

size_t capacity_of(const char* data) {
    size_t capacity;
    memcpy(&capacity, data - kHeaderSize, sizeof capacity);
    return capacity;
}

void free_body(void* data) {
    ::operator delete(static_cast<char*>(data) - kHeaderSize);
}

kiv_shared_ptr<char> new_body(size_t capacity) {
    char* block = static_cast<char*>(::operator new(kHeaderSize + capacity));
    memcpy(block, &capacity, sizeof capacity);
    kiv_shared_ptr<char> body;
    try {
        body = block + kHeaderSize;
    } catch (...) {
        ::operator delete(block);
        throw;
    }
    body.setCustomDestructor(&free_body);
    return body;
}

}  // namespace

const kiv_shared_ptr<char>& kiv_HttpResponse::empty_body() {
    alignas(std::max_align_t) static char storage[2 * kHeaderSize] = {};  // capacity 0, "\0"
    // Deliberately never destroyed: responses held by threads that outlive static destruction
    // still hand out shares of it.
    static const kiv_shared_ptr<char>* body = [] {
        auto* ref = new kiv_shared_ptr<char>(storage + kHeaderSize);
        ref->setCustomDestructor([](void*) {});
        return ref;
    }();
    return *body;
}

kiv_HttpResponse::kiv_HttpResponse()
    : _requestError(HTTP_REQUEST_OK),
      _http_status(0),
      _data_len(1),
      _source(nullptr),
      _curl_code(0) {}

kiv_shared_ptr<kiv_HttpResponse> kiv_HttpResponse::alloc() {
    return kiv_shared_ptr<kiv_HttpResponse>::adoptNew(new kiv_HttpResponse());
}

void kiv_HttpResponse::receive_new_data(const char* data, uint32_t len) {
    if (len == 0 || !data) {
        return;
    }
    size_t used = _data_len;  // bytes plus terminator
    char* current = _data.getPTR() ? _data.getPTR() : empty_body().getPTR();
    if (len > UINT32_MAX - used) {
        len = static_cast<uint32_t>(UINT32_MAX - used);  // the length field cannot count more
    }
    size_t needed = used + len;
    if (needed > capacity_of(current)) {
        size_t capacity = capacity_of(current);
        size_t grown = capacity == 0 ? needed : capacity * 2;
        kiv_shared_ptr<char> bigger = new_body(grown > needed ? grown : needed);
        memcpy(bigger.getPTR(), current, used - 1);
        _data = bigger;
        current = _data.getPTR();
    }
    memcpy(current + used - 1, data, len);
    current[needed - 1] = '\0';
    _data_len = static_cast<uint32_t>(needed);
}

}  // namespace Networking
}  // namespace kiv
