#ifndef KIV_UTILITY_MEMORY_KIV_SHARED_PTR_H
#define KIV_UTILITY_MEMORY_KIV_SHARED_PTR_H

#include <cstddef>

#include "core/utility/Memory/kiv_shared_ptr_base.h"
#include "core/utility/Memory/kiv_weak_ptr.h"

namespace kiv {
namespace Memory {

// Strong reference: the object lives until the last strong reference to it is released.
//
// Conversions between element types (copyControlObject) share the managed pointer unchanged, so
// they are only valid between a class and a base that starts at the same address, or where the
// caller knows the real type behind an untyped reference. A converted reference destroys the
// object as its own element type, so that type needs a virtual destructor.
//
// Array storage (new T[n]) must be given arrayDestructor, or be made with make_shared_array().
// If the control block cannot be allocated, adoption throws and leaves the object to the caller,
// since only the caller knows how it must be released.
template <typename T>
class kiv_shared_ptr : public kiv_shared_ptr_base {
public:
    kiv_shared_ptr() : kiv_shared_ptr_base(true) { deleter = &deleteManagedPointer; }
    kiv_shared_ptr(T* object) : kiv_shared_ptr() { adopt(object); }
    kiv_shared_ptr(const kiv_shared_ptr<T>& other) : kiv_shared_ptr() {
        copyControlObject_base(&other);
    }
    kiv_shared_ptr(const kiv_weak_ptr<T>& other) : kiv_shared_ptr() {
        copyControlObject_base(&other);
    }

    kiv_shared_ptr& operator=(T* object) {
        adopt(object);
        return *this;
    }
    kiv_shared_ptr& operator=(const kiv_shared_ptr<T>& other) { return copyControlObject(&other); }
    kiv_shared_ptr& operator=(const kiv_weak_ptr<T>& other) { return copyControlObject(&other); }

    kiv_shared_ptr& copyControlObject(const kiv_shared_ptr_base* fromPtr) {
        copyControlObject_base(fromPtr);
        deleter = &deleteManagedPointer;
        return *this;
    }

    T* getPTR() const { return static_cast<T*>(managedPointer()); }
    T* operator->() const { return getPTR(); }

    bool operator==(const kiv_shared_ptr<T>& other) const { return getPTR() == other.getPTR(); }
    bool operator!=(const kiv_shared_ptr<T>& other) const { return getPTR() != other.getPTR(); }
    bool operator==(const T* other) const { return getPTR() == other; }
    bool operator!=(const T* other) const { return getPTR() != other; }

    // Replaces the type's own deletion for this object; shared by every reference to it.
    void setCustomDestructor(void (*destructor)(void*)) {
        if (controlObject) {
            controlObject->customDestructor = destructor;
        }
    }

    static void arrayDestructor(void* ptr) { delete[] static_cast<T*>(ptr); }

    // Adopts an object just made with `new`; if the control block cannot be allocated, the
    // object is destroyed (as the type's own deletion would) before the exception goes on, so
    // nothing leaks and nothing the object holds stays held. For classes whose destructor is
    // private to kiv_shared_ptr, this is the only way to get that guarantee.
    static kiv_shared_ptr<T> adoptNew(T* object) {
        kiv_shared_ptr<T> ref;
        try {
            ref = object;
        } catch (...) {
            delete object;
            throw;
        }
        return ref;
    }

    ~kiv_shared_ptr() override = default;

protected:
    static void deleteManagedPointer(kiv_shared_ptr_control_object* block, void* ptr) {
        if (!ptr) {
            return;
        }
        if (block && block->customDestructor) {
            block->customDestructor(ptr);
            return;
        }
        delete static_cast<T*>(ptr);
    }

    kiv_shared_ptr_base* getRefPtr() override {
        auto* copy = new kiv_shared_ptr<T>();
        *copy = *this;
        return copy;
    }
};

template <typename T>
kiv_shared_ptr<T> kiv_weak_ptr<T>::getPTR() const {
    return kiv_shared_ptr<T>(*this);
}

template <typename T>
kiv_shared_ptr_base* kiv_weak_ptr<T>::getRefPtr() {
    auto* copy = new kiv_weak_ptr<T>();
    *copy = getPTR();
    return copy;
}

// A zero-initialised array of `count` elements, released with delete[].
template <typename T>
kiv_shared_ptr<T> make_shared_array(size_t count) {
    T* storage = new T[count]();
    kiv_shared_ptr<T> ref;
    try {
        ref = storage;
    } catch (...) {
        delete[] storage;
        throw;
    }
    ref.setCustomDestructor(&kiv_shared_ptr<T>::arrayDestructor);
    return ref;
}

}  // namespace Memory
}  // namespace kiv

#endif
