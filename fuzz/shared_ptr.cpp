// kiv_shared_ptr / kiv_weak_ptr against a count model. Each input is a series of operations on
// a few strong slots (of a class and of a derived class that starts at the same address), a few
// weak slots and a list of heap copies made with getRefPtr(). The model knows, for every object,
// how many strong references it has; after every operation each object must be alive exactly
// while that count is positive, destroyed exactly once when it reaches zero, every strong slot
// must show its object, and every weak slot must give its object while it lives and an empty
// reference from the moment its destruction begins (checked from inside the destructor too).
// ASan's leak check at the end of each input catches a control block that is never freed.

#include <fuzzer/FuzzedDataProvider.h>

#include <cstdint>
#include <vector>

#include "core/utility/Memory/kiv_shared_ptr.h"
#include "core/utility/Memory/kiv_weak_ptr.h"
#include "fuzz/fuzz_check.h"

using kiv::Memory::kiv_shared_ptr;
using kiv::Memory::kiv_shared_ptr_base;
using kiv::Memory::kiv_weak_ptr;

namespace {

constexpr int kSlots = 4;
constexpr size_t kMaxHeapCopies = 16;
constexpr size_t kMaxObjects = 64;

struct Base;

struct ObjectState {
    Base* address = nullptr;
    int destroyed = 0;
    int customDeletes = 0;
    bool custom = false;  // the model: a custom destructor was set
};

std::vector<ObjectState> g_objects;
// The weak slots, so that a destructor can check that none of them revives its object.
kiv_weak_ptr<Base>* g_weak_slots = nullptr;

struct Base {
    explicit Base(size_t id) : id(id) {}
    virtual ~Base();
    size_t id;
};

struct Derived : Base {
    using Base::Base;
    ~Derived() override { ++derivedDestroyed; }
    int derivedDestroyed = 0;
};

Base::~Base() {
    FUZZ_CHECK(g_objects[id].destroyed == 0, "object %zu destroyed twice", id);
    ++g_objects[id].destroyed;
    for (int i = 0; g_weak_slots && i < kSlots; ++i) {
        kiv_shared_ptr<Base> locked = g_weak_slots[i].getPTR();
        FUZZ_CHECK(locked.getPTR() != this,
                   "weak slot %d revived object %zu during its destruction", i, id);
    }
}

void custom_delete(void* object) {
    Base* base = static_cast<Base*>(object);
    ++g_objects[base->id].customDeletes;
    delete base;
}

// What the model knows of one reference: which object it refers to (-1: none).
struct Ref {
    int object = -1;
};

// A heap copy: its kind and model, beside the untyped pointer the library hands out.
struct HeapCopy {
    kiv_shared_ptr_base* ref;
    bool strong;
    Ref model;
};

class Harness {
public:
    Harness() { g_weak_slots = weak_; }
    ~Harness() {
        g_weak_slots = nullptr;
        for (HeapCopy& copy : heap_) {
            delete copy.ref;
        }
    }

    void run(FuzzedDataProvider& in) {
        while (in.remaining_bytes() > 0) {
            step(in);
            check();
        }
    }

    // After everything is released, every object must be gone exactly once.
    void release_all() {
        for (HeapCopy& copy : heap_) {
            delete copy.ref;
        }
        heap_.clear();
        for (int i = 0; i < kSlots; ++i) {
            base_[i] = static_cast<Base*>(nullptr);
            derived_[i] = static_cast<Derived*>(nullptr);
            weak_[i] = kiv_shared_ptr<Base>();
        }
        for (size_t id = 0; id < g_objects.size(); ++id) {
            FUZZ_CHECK(g_objects[id].destroyed == 1, "object %zu destroyed %d times at the end", id,
                       g_objects[id].destroyed);
        }
    }

private:
    // Strong references per object in the model.
    std::vector<int> strong_counts() const {
        std::vector<int> counts(g_objects.size(), 0);
        for (int i = 0; i < kSlots; ++i) {
            for (const Ref* ref : {&baseModel_[i], &derivedModel_[i]}) {
                if (ref->object >= 0) {
                    ++counts[ref->object];
                }
            }
        }
        for (const HeapCopy& copy : heap_) {
            if (copy.strong && copy.model.object >= 0) {
                ++counts[copy.model.object];
            }
        }
        return counts;
    }
    bool alive(int object) const { return object >= 0 && g_objects[object].destroyed == 0; }

    // A strong reference made from a reference to `object`: empty once the object is gone.
    Ref strong_from(const Ref& source) const { return alive(source.object) ? source : Ref(); }

    // The model of any reference, picked by index: strong base, strong derived, weak, heap.
    kiv_shared_ptr_base* pick(FuzzedDataProvider& in, Ref* model, bool* strong) {
        const int kind = in.ConsumeIntegralInRange<int>(0, 3);
        const int i = in.ConsumeIntegralInRange<int>(0, kSlots - 1);
        switch (kind) {
            case 0:
                *model = baseModel_[i];
                *strong = true;
                return &base_[i];
            case 1:
                *model = derivedModel_[i];
                *strong = true;
                return &derived_[i];
            case 2:
                *model = weakModel_[i];
                *strong = false;
                return &weak_[i];
            default:
                if (heap_.empty()) {
                    *model = Ref();
                    *strong = false;
                    return nullptr;
                }
                HeapCopy& copy = heap_[in.ConsumeIntegralInRange<size_t>(0, heap_.size() - 1)];
                *model = copy.model;
                *strong = copy.strong;
                return copy.ref;
        }
    }

    void step(FuzzedDataProvider& in) {
        const int d = in.ConsumeIntegralInRange<int>(0, kSlots - 1);
        const int s = in.ConsumeIntegralInRange<int>(0, kSlots - 1);
        switch (in.ConsumeIntegralInRange<int>(0, 12)) {
            case 0:  // adopt a new object into a base or a derived slot
            case 1: {
                if (g_objects.size() >= kMaxObjects) {
                    break;
                }
                g_objects.emplace_back();
                const int id = static_cast<int>(g_objects.size() - 1);
                auto* object = new Derived(static_cast<size_t>(id));
                g_objects[id].address = object;
                if (in.ConsumeBool()) {
                    baseModel_[d].object = id;
                    base_[d] = object;
                } else {
                    derivedModel_[d].object = id;
                    derived_[d] = object;
                }
                break;
            }
            case 2:  // release a strong slot
                if (in.ConsumeBool()) {
                    baseModel_[d] = Ref();
                    base_[d] = static_cast<Base*>(nullptr);
                } else {
                    derivedModel_[d] = Ref();
                    derived_[d] = static_cast<Derived*>(nullptr);
                }
                break;
            case 3:  // typed assignments, strong and weak, self-assignment included
                switch (in.ConsumeIntegralInRange<int>(0, 3)) {
                    case 0:
                        baseModel_[d] = baseModel_[s];
                        base_[d] = base_[s];
                        break;
                    case 1:
                        baseModel_[d] = strong_from(weakModel_[s]);
                        base_[d] = weak_[s];
                        break;
                    case 2:
                        weakModel_[d] = baseModel_[s];
                        weak_[d] = base_[s];
                        break;
                    default:
                        weakModel_[d] = weakModel_[s];
                        weak_[d] = weak_[s];
                        break;
                }
                break;
            case 4:  // copyControlObject from any reference, of any kind and element type
            case 5: {
                Ref source;
                bool sourceStrong;
                kiv_shared_ptr_base* from = pick(in, &source, &sourceStrong);
                switch (in.ConsumeIntegralInRange<int>(0, 2)) {
                    case 0:
                        baseModel_[d] = strong_from(source);
                        base_[d].copyControlObject(from);
                        break;
                    case 1:
                        derivedModel_[d] = strong_from(source);
                        derived_[d].copyControlObject(from);
                        break;
                    default:
                        // A weak reference keeps observing a block whose object is gone; that is
                        // invisible here, since it then only ever gives empty references.
                        weakModel_[d] = source;
                        weak_[d].copyControlObject(from);
                        break;
                }
                break;
            }
            case 6: {  // copy construction, then the copy replaces a slot
                if (in.ConsumeBool()) {
                    kiv_shared_ptr<Base> copy(weak_[s]);
                    FUZZ_CHECK(copy.getPTR() == expected(strong_from(weakModel_[s])),
                               "strong from weak slot %d", s);
                    baseModel_[d] = strong_from(weakModel_[s]);
                    base_[d] = copy;
                } else {
                    kiv_weak_ptr<Base> copy(base_[s]);
                    weakModel_[d] = baseModel_[s];
                    weak_[d] = copy;
                }
                break;
            }
            case 7: {  // a weak slot locked, the lock kept on the heap
                if (heap_.size() >= kMaxHeapCopies) {
                    break;
                }
                kiv_shared_ptr<Base> locked = weak_[s].getPTR();
                const Ref lockedModel = strong_from(weakModel_[s]);
                FUZZ_CHECK(locked.getPTR() == expected(lockedModel), "lock of weak slot %d", s);
                heap_.push_back({new kiv_shared_ptr<Base>(locked), true, lockedModel});
                break;
            }
            case 8:  // heap copy of any reference
            case 9: {
                if (heap_.size() >= kMaxHeapCopies) {
                    break;
                }
                Ref source;
                bool strong;
                kiv_shared_ptr_base* from = pick(in, &source, &strong);
                if (!from) {
                    break;
                }
                // A weak copy is made through a strong one: an empty weak reference once the
                // object is gone, indistinguishable from one still observing the block.
                heap_.push_back({from->getRefPtr(), strong, strong ? source : strong_from(source)});
                break;
            }
            case 10:  // delete a heap copy
            case 11:
                if (!heap_.empty()) {
                    const size_t i = in.ConsumeIntegralInRange<size_t>(0, heap_.size() - 1);
                    HeapCopy copy = heap_[i];
                    heap_.erase(heap_.begin() + static_cast<long>(i));
                    delete copy.ref;
                }
                break;
            case 12:  // a custom destructor, shared by every strong reference to the object
                if (baseModel_[d].object >= 0) {
                    base_[d].setCustomDestructor(&custom_delete);
                    g_objects[baseModel_[d].object].custom = true;
                }
                break;
        }
    }

    // Addresses are only compared while the model says the object lives.
    static Base* expected(const Ref& ref) {
        return ref.object >= 0 ? g_objects[ref.object].address : nullptr;
    }

    void check() const {
        const std::vector<int> counts = strong_counts();
        for (size_t id = 0; id < g_objects.size(); ++id) {
            const int strong = counts[id];
            const ObjectState& state = g_objects[id];
            FUZZ_CHECK(state.destroyed == (strong == 0 ? 1 : 0),
                       "object %zu: %d strong references, destroyed %d times", id, strong,
                       state.destroyed);
            FUZZ_CHECK(state.customDeletes == (state.destroyed && state.custom ? 1 : 0),
                       "object %zu: %d custom deletions", id, state.customDeletes);
        }
        for (int i = 0; i < kSlots; ++i) {
            check_strong(base_[i].getPTR(), baseModel_[i], "base", i);
            check_strong(derived_[i].getPTR(), derivedModel_[i], "derived", i);
            kiv_shared_ptr<Base> locked = weak_[i].getPTR();
            if (alive(weakModel_[i].object)) {
                FUZZ_CHECK(
                    locked.getPTR() && locked->id == static_cast<size_t>(weakModel_[i].object),
                    "weak slot %d lost object %d", i, weakModel_[i].object);
            } else {
                FUZZ_CHECK(!locked.getPTR(), "weak slot %d gave an object that is gone", i);
            }
        }
    }

    void check_strong(const Base* got, const Ref& model, const char* kind, int i) const {
        if (model.object < 0) {
            FUZZ_CHECK(!got, "%s slot %d should be empty", kind, i);
        } else {
            FUZZ_CHECK(got && got->id == static_cast<size_t>(model.object),
                       "%s slot %d should hold object %d", kind, i, model.object);
        }
    }

    kiv_shared_ptr<Base> base_[kSlots];
    kiv_shared_ptr<Derived> derived_[kSlots];
    kiv_weak_ptr<Base> weak_[kSlots];
    Ref baseModel_[kSlots];
    Ref derivedModel_[kSlots];
    Ref weakModel_[kSlots];
    std::vector<HeapCopy> heap_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    g_objects.clear();
    g_objects.reserve(kMaxObjects);
    {
        FuzzedDataProvider in(data, size);
        Harness harness;
        harness.run(in);
        harness.release_all();
    }
    return 0;
}
