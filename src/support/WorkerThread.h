#pragma once

#include <glib.h>
#include <utility>

namespace orvexd {

/// A GLib thread that is joined by whoever holds it, at the latest when it goes out of scope.
class WorkerThread {
public:
    WorkerThread() noexcept = default;
    ~WorkerThread() { join(); }
    WorkerThread(const WorkerThread&) = delete;
    WorkerThread& operator=(const WorkerThread&) = delete;
    WorkerThread(WorkerThread&&) = delete;
    WorkerThread& operator=(WorkerThread&&) = delete;

    bool isJoinable() const noexcept { return thread_ != nullptr; }

    /// Joins a thread held before, then starts `entry(argument)` on a new one.
    /// @return false when the system has no thread to give.
    bool start(const char* name, GThreadFunc entry, gpointer argument) noexcept {
        join();
        thread_ = g_thread_try_new(name, entry, argument, nullptr);
        return thread_ != nullptr;
    }

    /// Waits until the thread has ended; nothing happens when none is held.
    void join() noexcept {
        if (thread_ != nullptr) {
            g_thread_join(std::exchange(thread_, nullptr));
        }
    }

private:
    GThread* thread_ = nullptr;
};

} // namespace orvexd
