#ifndef KIV_UTILITY_MEMORY_KIV_WEAK_PTR_H
#define KIV_UTILITY_MEMORY_KIV_WEAK_PTR_H

#include "core/utility/Memory/kiv_shared_ptr_base.h"

namespace kiv {
namespace Memory {

template <typename T>
class kiv_shared_ptr;

// Weak reference: observes an object without keeping it alive. getPTR() gives a strong
// reference to the object while it lives, and an empty one once its destruction has begun.
template <typename T>
class kiv_weak_ptr : public kiv_shared_ptr_base {
public:
    kiv_weak_ptr() : kiv_shared_ptr_base(false) {}
    kiv_weak_ptr(const kiv_shared_ptr<T>& other) : kiv_shared_ptr_base(false) {
        copyControlObject_base(&other);
    }
    kiv_weak_ptr(const kiv_weak_ptr<T>& other) : kiv_shared_ptr_base(false) {
        copyControlObject_base(&other);
    }

    kiv_weak_ptr& operator=(const kiv_shared_ptr<T>& other) {
        copyControlObject_base(&other);
        return *this;
    }
    kiv_weak_ptr& operator=(const kiv_weak_ptr<T>& other) {
        copyControlObject_base(&other);
        return *this;
    }

    // Shares the control block of any reference, whatever its kind or element type; no type
    // check and no pointer adjustment is made.
    kiv_weak_ptr& copyControlObject(kiv_shared_ptr_base* fromPtr) {
        copyControlObject_base(fromPtr);
        return *this;
    }

    kiv_shared_ptr<T> getPTR() const;

    ~kiv_weak_ptr() override = default;

protected:
    kiv_shared_ptr_base* getRefPtr() override;
};

}  // namespace Memory
}  // namespace kiv

#include "core/utility/Memory/kiv_shared_ptr.h"

#endif
