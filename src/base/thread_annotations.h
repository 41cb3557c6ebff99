// The lock rules as the compiler checks them (Clang; nothing elsewhere).
#pragma once

#if defined(__clang__)
#define ZU_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define ZU_THREAD_ANNOTATION(x)
#endif

#define ZU_CAPABILITY(name) ZU_THREAD_ANNOTATION(capability(name))
#define ZU_SCOPED_CAPABILITY ZU_THREAD_ANNOTATION(scoped_lockable)
#define ZU_GUARDED_BY(lock) ZU_THREAD_ANNOTATION(guarded_by(lock))
#define ZU_ACQUIRE(...) ZU_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define ZU_TRY_ACQUIRE(...) ZU_THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))
#define ZU_RELEASE(...) ZU_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define ZU_REQUIRES(...) ZU_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define ZU_NO_THREAD_SAFETY_ANALYSIS ZU_THREAD_ANNOTATION(no_thread_safety_analysis)
