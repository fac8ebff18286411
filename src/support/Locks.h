#pragma once

#include "support/ThreadSanitizer.h"

#include <glib.h>
#include <mutex>

namespace orvexd {

/// GLib's recursive mutex with the standard library's lock interface.
class RecursiveMutex {
public:
    RecursiveMutex() noexcept { g_rec_mutex_init(&mutex_); }
    ~RecursiveMutex() { g_rec_mutex_clear(&mutex_); }
    RecursiveMutex(const RecursiveMutex&) = delete;
    RecursiveMutex& operator=(const RecursiveMutex&) = delete;
    RecursiveMutex(RecursiveMutex&&) = delete;
    RecursiveMutex& operator=(RecursiveMutex&&) = delete;

    void lock() noexcept { g_rec_mutex_lock(&mutex_); }
    void unlock() noexcept { g_rec_mutex_unlock(&mutex_); }

private:
    GRecMutex mutex_{};
};

/// GLib's plain mutex with the standard library's lock interface.
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
    Mutex(Mutex&&) = delete;
    Mutex& operator=(Mutex&&) = delete;

    void lock() noexcept {
        tsan::beforeLock(&mutex_);
        g_mutex_lock(&mutex_);
        tsan::afterLock(&mutex_);
    }
    void unlock() noexcept {
        tsan::beforeUnlock(&mutex_);
        g_mutex_unlock(&mutex_);
        tsan::afterUnlock(&mutex_);
    }

private:
    friend class Condition;
    GMutex mutex_{};
};

/// GLib's condition variable.
class Condition {
public:
    Condition() noexcept { g_cond_init(&condition_); }
    ~Condition() { g_cond_clear(&condition_); }
    Condition(const Condition&) = delete;
    Condition& operator=(const Condition&) = delete;
    Condition(Condition&&) = delete;
    Condition& operator=(Condition&&) = delete;

    void broadcast() noexcept { g_cond_broadcast(&condition_); }

    /// Releases `mutex`, which the caller holds, waits and takes it again.
    /// @param deadline microseconds on g_get_monotonic_time's clock.
    /// @return false when the deadline has passed; true on a wake-up, which may be spurious.
    bool waitUntil(Mutex& mutex, gint64 deadline) noexcept {
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

using RecursiveLock = std::lock_guard<RecursiveMutex>;
using Lock = std::lock_guard<Mutex>;

} // namespace orvexd
