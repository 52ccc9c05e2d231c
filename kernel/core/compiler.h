// What the compiler is told beside the language: printf-style checking and the annotations of
// clang's thread-safety analysis. These can only be macros; they vanish under other compilers.
#pragma once

/// The function formats like printf: `fmt` and `first` are 1-based argument positions.
#define VORN_PRINTF(fmt, first) __attribute__((format(printf, fmt, first)))

#if defined(__clang__)
#define VORN_TS(x) __attribute__((x))
#else
#define VORN_TS(x)
#endif

#define CAPABILITY(name) VORN_TS(capability(name))
#define SCOPED_CAPABILITY VORN_TS(scoped_lockable)
#define GUARDED_BY(lock) VORN_TS(guarded_by(lock))
#define REQUIRES(...) VORN_TS(requires_capability(__VA_ARGS__))
#define EXCLUDES(...) VORN_TS(locks_excluded(__VA_ARGS__))
#define ACQUIRE(...) VORN_TS(acquire_capability(__VA_ARGS__))
#define RELEASE(...) VORN_TS(release_capability(__VA_ARGS__))
#define NO_THREAD_SAFETY_ANALYSIS VORN_TS(no_thread_safety_analysis)
