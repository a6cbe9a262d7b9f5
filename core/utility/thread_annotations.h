#ifndef KIV_UTILITY_THREAD_ANNOTATIONS_H
#define KIV_UTILITY_THREAD_ANNOTATIONS_H

// Lock rules the compiler checks. With clang, -Wthread-safety proves that every field marked
// KIV_GUARDED_BY is touched only with its lock held, and that lock and unlock calls pair up;
// with other compilers these expand to nothing.
#if defined(__clang__)
#define KIV_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define KIV_THREAD_ANNOTATION(x)
#endif

// A type whose objects are locks.
#define KIV_CAPABILITY(name) KIV_THREAD_ANNOTATION(capability(name))
// A type whose objects hold a lock for their lifetime (scoped guards).
#define KIV_SCOPED_CAPABILITY KIV_THREAD_ANNOTATION(scoped_lockable)
// A field read or written only with lock `x` held.
#define KIV_GUARDED_BY(x) KIV_THREAD_ANNOTATION(guarded_by(x))
// A pointer field whose target is read or written only with lock `x` held.
#define KIV_PT_GUARDED_BY(x) KIV_THREAD_ANNOTATION(pt_guarded_by(x))
// A function that takes, gives back or tries to take the named locks (none named: `this`).
#define KIV_ACQUIRE(...) KIV_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define KIV_RELEASE(...) KIV_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define KIV_TRY_ACQUIRE(...) KIV_THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))
// A function called only with the named locks held / not held.
#define KIV_REQUIRES(...) KIV_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define KIV_EXCLUDES(...) KIV_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
// A function that returns (a reference to) lock `x`.
#define KIV_RETURN_CAPABILITY(x) KIV_THREAD_ANNOTATION(lock_returned(x))
// A function the analysis cannot follow (for example, fork handlers that lock in one function
// and unlock in another); every such use says why.
#define KIV_NO_THREAD_SAFETY_ANALYSIS KIV_THREAD_ANNOTATION(no_thread_safety_analysis)

#endif
