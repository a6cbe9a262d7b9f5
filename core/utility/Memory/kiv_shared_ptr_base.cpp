#include "core/utility/Memory/kiv_shared_ptr_base.h"

#include <new>

namespace kiv {
namespace Memory {

namespace {

// Increment of the strong count that refuses to leave zero: once the last strong reference has
// started destroying the object, no weak reference may bring it back.
bool try_acquire_strong(kiv_shared_ptr_control_object* block) {
    int32_t n = block->strongCount.load(std::memory_order_relaxed);
    while (n > 0) {
        if (block->strongCount.compare_exchange_weak(n, n + 1, std::memory_order_acq_rel,
                                                     std::memory_order_relaxed)) {
            return true;
        }
    }
    return false;
}

}  // namespace

kiv_shared_ptr_base::~kiv_shared_ptr_base() {
    releaseManagedPointer();
}

void kiv_shared_ptr_base::copyControlObject_base(const kiv_shared_ptr_base* from) {
    if (from == this) {
        return;
    }
    kiv_shared_ptr_control_object* block = from ? from->controlObject : nullptr;
    if (block) {
        // The source reference keeps the block alive while we add our own share, so the
        // block-count increment needs no ordering.
        if (isStrong) {
            // A strong source holds a share itself, so the count cannot be 0 and a plain
            // increment will do; only a weak source needs the compare-and-swap.
            if (from->isStrong) {
                block->strongCount.fetch_add(1, std::memory_order_relaxed);
                block->refCount.fetch_add(1, std::memory_order_relaxed);
            } else if (try_acquire_strong(block)) {
                block->refCount.fetch_add(1, std::memory_order_relaxed);
            } else {
                block = nullptr;
            }
        } else {
            block->refCount.fetch_add(1, std::memory_order_relaxed);
        }
    }
    releaseManagedPointer();
    controlObject = block;
}

void kiv_shared_ptr_base::releaseManagedPointer() {
    kiv_shared_ptr_control_object* block = controlObject;
    if (!block) {
        return;
    }
    controlObject = nullptr;
    if (isStrong && block->strongCount.fetch_sub(1, std::memory_order_acq_rel) == 1) {
        if (deleter) {
            deleter(block, block->managedPointer);
        } else if (block->customDestructor) {
            block->customDestructor(block->managedPointer);
        }
    }
    if (block->refCount.fetch_sub(1, std::memory_order_acq_rel) == 1) {
        delete block;
    }
}

void kiv_shared_ptr_base::adopt(void* object) {
    releaseManagedPointer();
    if (!object) {
        return;
    }
    auto* block = new kiv_shared_ptr_control_object;
    block->managedPointer = object;
    block->strongCount.store(1, std::memory_order_relaxed);
    block->refCount.store(1, std::memory_order_relaxed);
    controlObject = block;
}

}  // namespace Memory
}  // namespace kiv
