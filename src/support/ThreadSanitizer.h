#pragma once

// ThreadSanitizer sees neither GLib's futex-based GMutex and GCond nor the hand-over of a record
// through a main context. These calls tell it; in every other build they are empty.

#if defined(__SANITIZE_THREAD__)
#define ORVEXD_THREAD_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define ORVEXD_THREAD_SANITIZER 1
#endif
#endif

#ifdef ORVEXD_THREAD_SANITIZER
#include <sanitizer/tsan_interface.h>

// What the compiler calls at the begin and the end of each function.
extern "C" void __tsan_func_entry(void* caller);
extern "C" void __tsan_func_exit();
#endif

namespace orvexd::tsan {

#ifdef ORVEXD_THREAD_SANITIZER

inline void mutexCreated(void* mutex) noexcept {
    __tsan_mutex_create(mutex, 0);
}
inline void mutexDestroyed(void* mutex) noexcept {
    __tsan_mutex_destroy(mutex, 0);
}
inline void beforeLock(void* mutex) noexcept {
    __tsan_mutex_pre_lock(mutex, 0);
}
inline void afterLock(void* mutex) noexcept {
    __tsan_mutex_post_lock(mutex, 0, 0);
}
inline void beforeUnlock(void* mutex) noexcept {
    (void)__tsan_mutex_pre_unlock(mutex, 0);
}
inline void afterUnlock(void* mutex) noexcept {
    __tsan_mutex_post_unlock(mutex, 0);
}
/// What this thread wrote so far becomes visible to whoever calls `acquire` on `record`.
inline void release(void* record) noexcept {
    __tsan_release(record);
}
inline void acquire(void* record) noexcept {
    __tsan_acquire(record);
}

/// While it lives, the sanitizer's stacks show `function`. What runs within a library has no frames
/// otherwise, so that a suppression could only name the function of ours that calls it, with all
/// else that this one does.
class LibraryFrame {
public:
    template <typename Function>
    [[gnu::no_sanitize_thread]] explicit LibraryFrame(Function* function) noexcept {
        // Return addresses make up the stack: the sanitizer looks at what stands before them.
        __tsan_func_entry(reinterpret_cast<char*>(function) + 1);
    }
    [[gnu::no_sanitize_thread]] ~LibraryFrame() { __tsan_func_exit(); }
    LibraryFrame(const LibraryFrame&) = delete;
    LibraryFrame& operator=(const LibraryFrame&) = delete;
    LibraryFrame(LibraryFrame&&) = delete;
    LibraryFrame& operator=(LibraryFrame&&) = delete;
};

#else

inline void mutexCreated(void*) noexcept {}
inline void mutexDestroyed(void*) noexcept {}
inline void beforeLock(void*) noexcept {}
inline void afterLock(void*) noexcept {}
inline void beforeUnlock(void*) noexcept {}
inline void afterUnlock(void*) noexcept {}
inline void release(void*) noexcept {}
inline void acquire(void*) noexcept {}
class [[maybe_unused]] LibraryFrame {
public:
    template <typename Function> explicit LibraryFrame(Function* /*function*/) noexcept {}
};

#endif

} // namespace orvexd::tsan
