// Names for the compiler's lock analysis (-Wthread-safety).
#pragma once

#define LOCK_CAPABILITY(Name) __attribute__((capability(Name)))
#define GUARDED_BY(Lock) __attribute__((guarded_by(Lock)))
#define REQUIRES_LOCK(...) __attribute__((requires_capability(__VA_ARGS__)))
#define EXCLUDES_LOCK(...) __attribute__((locks_excluded(__VA_ARGS__)))
#define NO_LOCK_ANALYSIS __attribute__((no_thread_safety_analysis))
