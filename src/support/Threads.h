#pragma once

// GLib's threads: locks, a condition, a worker, and what ThreadSanitizer has to be told of them.

#include <glib.h>
#include <malloc.h>
#include <mutex>
#include <utility>

// ThreadSanitizer does not see GLib's futex-based GMutex and GCond, nor the hand-over of a record
// through a main context. The calls in namespace tsan tell it. In every other build they are empty.

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

/// Around the life of a mutex and around each of its steps: what the sanitizer would learn from a
/// mutex of pthread. Any thread, the one that takes the step.
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
/// What was written before a `release` of the record happened before what follows.
inline void acquire(void* record) noexcept {
    __tsan_acquire(record);
}

/// While it lives, the sanitizer's stacks show `function`. Code within a library has no frames of
/// its own there. Without this, a suppression could only name our function that calls the library,
/// and would hide everything else that this function does.
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
/// Nobody looks at stacks in this build.
class [[maybe_unused]] LibraryFrame {
public:
    template <typename Function> explicit LibraryFrame(Function* /*function*/) noexcept {}
};

#endif

} // namespace orvexd::tsan

namespace orvexd {

/// GLib's plain mutex with the standard library's lock interface, so that `Lock` guards it. A
/// thread that locks it twice waits for ever. It must not move: threads wait on its address.
class Mutex {
public:
    Mutex() noexcept {
        g_mutex_init(&mutex_);
        tsan::mutexCreated(&mutex_);
    }
    ~Mutex() {
        tsan::mutexDestroyed(&mutex_);
        g_mutex_clear(&mutex_);
    }
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

    /// Waits until the mutex is free, without a limit. Any thread that does not hold it.
    void lock() noexcept {
        tsan::beforeLock(&mutex_);
        g_mutex_lock(&mutex_);
        tsan::afterLock(&mutex_);
    }
    /// Gives it back. The thread that holds it.
    void unlock() noexcept {
        tsan::beforeUnlock(&mutex_);
        g_mutex_unlock(&mutex_);
        tsan::afterUnlock(&mutex_);
    }

private:
    friend class Condition;
    GMutex mutex_{};
};

/// GLib's condition variable. The waiter holds the mutex; who broadcasts need not. Nobody may wait
/// when it goes. Deadlines are on the monotonic clock, so that setting the device's time neither
/// shortens nor lengthens a wait.
class Condition {
public:
    Condition() noexcept { g_cond_init(&condition_); }
    ~Condition() { g_cond_clear(&condition_); }
    Condition(const Condition&) = delete;
    Condition& operator=(const Condition&) = delete;

    /// Wakes every thread that waits. Nothing is kept for threads that wait later.
    void broadcast() noexcept { g_cond_broadcast(&condition_); }

    /// Releases `mutex`, which the caller holds, waits and takes it again.
    /// @param deadline microseconds on g_get_monotonic_time's clock.
    /// @return false when the deadline has passed; true on a wake-up, which may be spurious.
    [[nodiscard]] bool waitUntil(Mutex& mutex, gint64 deadline) noexcept {
        tsan::beforeUnlock(&mutex.mutex_);
        tsan::afterUnlock(&mutex.mutex_);
        const bool woken = g_cond_wait_until(&condition_, &mutex.mutex_, deadline) != FALSE;
        tsan::beforeLock(&mutex.mutex_);
        tsan::afterLock(&mutex.mutex_);
        return woken;
    }

private:
    GCond condition_{};
};

/// Holds a mutex for its scope.
using Lock = std::lock_guard<Mutex>;

/// A GLib thread that is joined by whoever holds it, at the latest when it goes out of scope. All
/// operations belong to the thread that holds it.
class WorkerThread {
public:
    WorkerThread() noexcept = default;
    ~WorkerThread() { join(); }
    WorkerThread(const WorkerThread&) = delete;
    WorkerThread& operator=(const WorkerThread&) = delete;

    /// True from a successful `start` until `join`, also when the thread has ended by itself.
    [[nodiscard]] bool isJoinable() const noexcept { return thread_ != nullptr; }

    /// Joins a thread held before, then starts `entry(argument)` on a new one.
    /// @param name shown by debuggers, at most 15 bytes of it (prctl(2), PR_SET_NAME).
    /// @param argument must stay valid until the thread is joined.
    /// @return false when the system has no thread to give.
    [[nodiscard]] bool start(const char* name, GThreadFunc entry, gpointer argument) noexcept {
        join();
        thread_ = g_thread_try_new(name, entry, argument, nullptr);
        return thread_ != nullptr;
    }

    /// Waits until the thread has ended, without a limit of its own. Nothing happens when none is
    /// held.
    void join() noexcept {
        if (thread_ != nullptr) {
            g_thread_join(std::exchange(thread_, nullptr));
        }
    }

private:
    GThread* thread_ = nullptr;
};

/// Gives back to the system what the allocator keeps of freed memory. Any thread; a worker calls it
/// at its end.
///
/// The allocator keeps pages between those that are in use, in an arena per thread: without this
/// the daemon would go on holding about the most that any exchange has ever needed.
inline void returnFreeMemory() noexcept {
#ifdef __GLIBC__
    (void)malloc_trim(0); // whether there was anything to give back does not matter
#endif
}

} // namespace orvexd
