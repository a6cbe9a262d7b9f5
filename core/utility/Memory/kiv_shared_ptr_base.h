#ifndef KIV_UTILITY_MEMORY_KIV_SHARED_PTR_BASE_H
#define KIV_UTILITY_MEMORY_KIV_SHARED_PTR_BASE_H

#include "core/utility/Memory/kiv_shared_ptr_control_object.h"

namespace kiv {
namespace Memory {

// Untyped half of kiv_shared_ptr / kiv_weak_ptr: all counting, linking and releasing.
//
// Thread safety: operations on one control block from different reference objects may run
// concurrently on any threads. A single reference object is not synchronised: a reference that
// several threads read and write needs its owner's lock.
class kiv_shared_ptr_base {
public:
    // Heap copy of this reference with the same kind and element type; the caller owns it and
    // ends it with `delete` through this base.
    virtual kiv_shared_ptr_base* getRefPtr() = 0;
    virtual ~kiv_shared_ptr_base();

    explicit kiv_shared_ptr_base(bool strong) : isStrong(strong) {}

    // Makes this reference share `from`'s control block, keeping this reference's own kind.
    // The new share is taken before the old one is dropped, so self-assignment and assignment
    // between references to one object never destroy it. A strong reference made from a source
    // whose object is gone (or from an empty or null source) ends up empty.
    void copyControlObject_base(const kiv_shared_ptr_base* from);

protected:
    void releaseManagedPointer();

    // Adopts a raw pointer into a new control block with both counts at 1.
    void adopt(void* object);

    void* managedPointer() const { return controlObject ? controlObject->managedPointer : nullptr; }

    kiv_shared_ptr_control_object* controlObject = nullptr;
    void (*deleter)(kiv_shared_ptr_control_object*, void*) = nullptr;
    bool isStrong;

    kiv_shared_ptr_base(const kiv_shared_ptr_base&) = delete;
    kiv_shared_ptr_base& operator=(const kiv_shared_ptr_base&) = delete;
};

}  // namespace Memory
}  // namespace kiv

#endif
