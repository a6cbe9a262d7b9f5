#ifndef KIV_UTILITY_THREADS_APPTHREADTASK_H
#define KIV_UTILITY_THREADS_APPTHREADTASK_H

#include "core/utility/Memory/kiv_shared_ptr.h"
#include "core/utility/Threads/Synchronization/AppMutex.h"

namespace kiv {
namespace Threads {

// One deferred call: a target plus one parameter passed as an untyped reference.
//
// The task keeps its own heap copy of the parameter reference (made with getRefPtr() when the
// task is built), so the caller's reference may go at once. The copy is dropped right after a
// member-function task runs, or at the latest when the task is destroyed; releaseResource() is
// idempotent, so the two never release twice. A task is built on one thread and run once on
// another; the runner (pool or timer) makes the hand-off visible.
class ASRDispatchTaskBase {
public:
    ASRDispatchTaskBase(Synchronization::AppConditionMutex* waitFinishMutex,
                        kiv::Memory::kiv_shared_ptr_base* methodParameter,
                        void (*func)(kiv::Memory::kiv_shared_ptr_base*))
        : _releaseResourceAfterExecute(true),
          isStopRunLoopTask(false),
          iExecutionFinishedMux(waitFinishMutex),
          iTargetMethod(func),
          imethodParameter(methodParameter ? methodParameter->getRefPtr() : nullptr) {}

    virtual ~ASRDispatchTaskBase() { ASRDispatchTaskBase::releaseResource(); }

    // Calls the plain target with the parameter copy; does not release it.
    virtual void execute() {
        if (iTargetMethod) {
            iTargetMethod(imethodParameter);
        }
    }

    // Drops the parameter copy; later calls do nothing.
    virtual void releaseResource() {
        kiv::Memory::kiv_shared_ptr_base* parameter = imethodParameter;
        imethodParameter = nullptr;
        delete parameter;
    }

    // What runners call: execute(), then wake a thread waiting for this task, if any. The
    // waiter's condition is broadcast under its mutex so that a wake-up cannot be missed.
    void doExecute() {
        execute();
        if (iExecutionFinishedMux) {
            iExecutionFinishedMux->lock();
            iExecutionFinishedMux->broadcast();
            iExecutionFinishedMux->unlock();
        }
    }

    bool _releaseResourceAfterExecute;
    // Marks a task that only ends a run loop; the library's runners treat it as a no-op task.
    bool isStopRunLoopTask;
    Synchronization::AppConditionMutex* iExecutionFinishedMux;

protected:
    void (*iTargetMethod)(kiv::Memory::kiv_shared_ptr_base*);
    kiv::Memory::kiv_shared_ptr_base* imethodParameter;

    ASRDispatchTaskBase(const ASRDispatchTaskBase&);
    ASRDispatchTaskBase& operator=(const ASRDispatchTaskBase&);
};

// A call of a member function of TCLASS. The task holds a strong reference to the object, so the
// object lives at least as long as the task.
template <typename TCLASS>
class ASRDispatchTaskWithResPointer : public ASRDispatchTaskBase {
public:
    typedef void (TCLASS::*process_fuc)(kiv::Memory::kiv_shared_ptr_base*);

    ASRDispatchTaskWithResPointer()
        : ASRDispatchTaskBase(nullptr, nullptr, nullptr), _fuc(nullptr) {}

    ASRDispatchTaskWithResPointer(kiv::Memory::kiv_shared_ptr<TCLASS> instance, process_fuc fuc,
                                  kiv::Memory::kiv_shared_ptr_base* resource)
        : ASRDispatchTaskBase(nullptr, resource, nullptr), _instance(instance), _fuc(fuc) {}

    ~ASRDispatchTaskWithResPointer() override {
        releaseResource();
        _instance = static_cast<TCLASS*>(nullptr);
    }

    // Calls the member function with the parameter copy (the target must not delete it), then
    // drops the copy when _releaseResourceAfterExecute is set.
    void execute() override {
        TCLASS* target = _instance.getPTR();
        if (target && _fuc) {
            (target->*_fuc)(imethodParameter);
        }
        if (_releaseResourceAfterExecute) {
            releaseResource();
        }
    }

protected:
    kiv::Memory::kiv_shared_ptr<TCLASS> _instance;
    process_fuc _fuc;

private:
    ASRDispatchTaskWithResPointer(const ASRDispatchTaskWithResPointer&);
    ASRDispatchTaskWithResPointer& operator=(const ASRDispatchTaskWithResPointer&);
};

}  // namespace Threads
}  // namespace kiv

#endif
