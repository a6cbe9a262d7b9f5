#ifndef KIV_UTILITY_MEMORY_KIV_SHARED_PTR_CONTROL_OBJECT_H
#define KIV_UTILITY_MEMORY_KIV_SHARED_PTR_CONTROL_OBJECT_H

#include <atomic>
#include <cstdint>

namespace kiv {
namespace Memory {

// Shared bookkeeping of one managed object.
//
// `strongCount` counts strong references; the object is destroyed when it drops to zero.
// `refCount` counts every reference of either kind; the block itself is freed when it drops to
// zero. A strong reference therefore contributes to both, and gives up its `refCount` share only
// after the object's destruction has finished, so a deleter may still read this block.
//
// Only kiv_shared_ptr_base touches the counters; everything here is lock-free.
class kiv_shared_ptr_control_object {
public:
    kiv_shared_ptr_control_object() = default;
    kiv_shared_ptr_control_object(const kiv_shared_ptr_control_object&) = delete;
    kiv_shared_ptr_control_object& operator=(const kiv_shared_ptr_control_object&) = delete;

    std::atomic<int32_t> strongCount{0};
    std::atomic<int32_t> refCount{0};
    void* managedPointer = nullptr;
    void (*customDestructor)(void*) = nullptr;
};

}  // namespace Memory
}  // namespace kiv

#endif
