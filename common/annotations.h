// Names for the compiler's lock analysis (-Wthread-safety), the same as the driver's own.
#pragma once

#define LOCK_CAPABILITY(Name) __attribute__((capability(Name)))
#define GUARDED_BY(Lock) __attribute__((guarded_by(Lock)))
#define REQUIRES_LOCK(...) __attribute__((requires_capability(__VA_ARGS__)))
#define NO_LOCK_ANALYSIS __attribute__((no_thread_safety_analysis))

// What only locks of user mode need.
#define SCOPED_LOCK __attribute__((scoped_lockable))
#define POINTS_TO_GUARDED_BY(Lock) __attribute__((pt_guarded_by(Lock)))
#define REQUIRES_SHARED_LOCK(...) __attribute__((requires_shared_capability(__VA_ARGS__)))
#define EXCLUDES_LOCK(...) __attribute__((locks_excluded(__VA_ARGS__)))
#define ACQUIRES_LOCK(...) __attribute__((acquire_capability(__VA_ARGS__)))
#define ACQUIRES_SHARED_LOCK(...) __attribute__((acquire_shared_capability(__VA_ARGS__)))
#define TRIES_LOCK(...) __attribute__((try_acquire_capability(__VA_ARGS__)))
#define RELEASES_LOCK(...) __attribute__((release_capability(__VA_ARGS__)))
#define RELEASES_ANY_LOCK(...) __attribute__((release_generic_capability(__VA_ARGS__)))
#define RETURNS_LOCK(Lock) __attribute__((lock_returned(Lock)))
