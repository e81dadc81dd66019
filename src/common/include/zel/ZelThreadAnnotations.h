// ZelThreadAnnotations.h - lock annotations for clang's -Wthread-safety.
//
// Under clang the macros expand to the thread-safety attributes, so the
// compiler can check which lock guards which member; under other compilers
// they expand to nothing. They document the locking rules either way.
#ifndef ZEL_THREAD_ANNOTATIONS_H
#define ZEL_THREAD_ANNOTATIONS_H

#if defined(__clang__)
#define ZEL_THREAD_ATTRIBUTE(x) __attribute__((x))  // the attribute x under clang, nothing elsewhere
#else
#define ZEL_THREAD_ATTRIBUTE(x)  // the attribute x under clang, nothing elsewhere
#endif

#define ZEL_CAPABILITY(x) ZEL_THREAD_ATTRIBUTE(capability(x))  // the class is a lock of kind x
#define ZEL_GUARDED_BY(x) ZEL_THREAD_ATTRIBUTE(guarded_by(x))  // the member is accessed only with x held
#define ZEL_PT_GUARDED_BY(x) ZEL_THREAD_ATTRIBUTE(pt_guarded_by(x))  // what the pointer points to needs x
#define ZEL_ACQUIRE(...) ZEL_THREAD_ATTRIBUTE(acquire_capability(__VA_ARGS__))  // the function takes the locks
#define ZEL_RELEASE(...) ZEL_THREAD_ATTRIBUTE(release_capability(__VA_ARGS__))  // the function releases the locks
#define ZEL_REQUIRES(...) ZEL_THREAD_ATTRIBUTE(requires_capability(__VA_ARGS__))  // callers hold the locks
#define ZEL_EXCLUDES(...) ZEL_THREAD_ATTRIBUTE(locks_excluded(__VA_ARGS__))  // callers must not hold the locks
#define ZEL_NO_THREAD_SAFETY_ANALYSIS ZEL_THREAD_ATTRIBUTE(no_thread_safety_analysis)  // the function is not checked

#endif  // ZEL_THREAD_ANNOTATIONS_H
