#pragma once

/// Annotations of locks that clang checks (-Wthread-safety). Other compilers ignore them.

#if defined(__clang__)
#define KESTO_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define KESTO_THREAD_ANNOTATION(x)
#endif

/// A class whose objects are locks, and one whose objects hold a lock as long as they live.
#define CAPABILITY(name) KESTO_THREAD_ANNOTATION(capability(name))
#define SCOPED_CAPABILITY KESTO_THREAD_ANNOTATION(scoped_lockable)

/// A field that needs the lock: held alone for a write, held or shared for a read.
#define GUARDED_BY(lock) KESTO_THREAD_ANNOTATION(guarded_by(lock))

/// Locks that are taken before or after this one.
#define ACQUIRED_BEFORE(...) KESTO_THREAD_ANNOTATION(acquired_before(__VA_ARGS__))
#define ACQUIRED_AFTER(...) KESTO_THREAD_ANNOTATION(acquired_after(__VA_ARGS__))

/// A function whose caller holds the lock, or must not hold it.
#define REQUIRES(...) KESTO_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define REQUIRES_SHARED(...) KESTO_THREAD_ANNOTATION(requires_shared_capability(__VA_ARGS__))
#define EXCLUDES(...) KESTO_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))

/// A function that takes the lock, releases it, or takes it when it returns the value named first.
#define ACQUIRE(...) KESTO_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define ACQUIRE_SHARED(...) KESTO_THREAD_ANNOTATION(acquire_shared_capability(__VA_ARGS__))
#define RELEASE(...) KESTO_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define RELEASE_SHARED(...) KESTO_THREAD_ANNOTATION(release_shared_capability(__VA_ARGS__))
#define RELEASE_GENERIC(...) KESTO_THREAD_ANNOTATION(release_generic_capability(__VA_ARGS__))
#define TRY_ACQUIRE(...) KESTO_THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))

/// A function that is not checked; a comment beside it gives the reason.
#define NO_THREAD_SAFETY_ANALYSIS KESTO_THREAD_ANNOTATION(no_thread_safety_analysis)
