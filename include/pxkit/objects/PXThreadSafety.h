// PXKit — thread-safety annotations, checked by clang's -Wthread-safety.
//
// The macros name which lock guards what and which locks a function needs or
// takes; the "thread-safety" build (a clang preset) checks them and fails on a
// mismatch. Other compilers see nothing.
//
//   class Registry : public PXObject {
//     void addLocked(PXValue v) PX_REQUIRES(monitor());   // caller holds the monitor
//     void add(PXValue v) PX_EXCLUDES(monitor()) {
//       PXMonitorLock lock(monitor());                     // scoped, annotated
//       addLocked(std::move(v));
//     }
//   };
//
// Thread safety: compile-time only.
#pragma once

#if defined(__clang__)
#define PX_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define PX_THREAD_ANNOTATION(x)
#endif

#define PX_CAPABILITY(name) PX_THREAD_ANNOTATION(capability(name))
#define PX_SCOPED_CAPABILITY PX_THREAD_ANNOTATION(scoped_lockable)
#define PX_GUARDED_BY(lock) PX_THREAD_ANNOTATION(guarded_by(lock))
#define PX_PT_GUARDED_BY(lock) PX_THREAD_ANNOTATION(pt_guarded_by(lock))
#define PX_ACQUIRED_BEFORE(...) PX_THREAD_ANNOTATION(acquired_before(__VA_ARGS__))
#define PX_ACQUIRED_AFTER(...) PX_THREAD_ANNOTATION(acquired_after(__VA_ARGS__))
#define PX_REQUIRES(...) PX_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define PX_ACQUIRE(...) PX_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define PX_RELEASE(...) PX_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define PX_TRY_ACQUIRE(...) PX_THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))
#define PX_EXCLUDES(...) PX_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define PX_RETURN_CAPABILITY(x) PX_THREAD_ANNOTATION(lock_returned(x))
#define PX_NO_THREAD_SAFETY_ANALYSIS PX_THREAD_ANNOTATION(no_thread_safety_analysis)
