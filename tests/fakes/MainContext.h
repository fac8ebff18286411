#pragma once

#include "fakes/Gate.h"

#include <chrono>
#include <glib.h>
#include <thread>

namespace orvexd::test {

/// A source of the default main context that exists for the scope's time.
class ScopedTimer {
public:
    ScopedTimer(std::chrono::milliseconds interval, GSourceFunc callback, gpointer data)
        : source_(g_timeout_source_new(static_cast<guint>(interval.count()))) {
        g_source_set_callback(source_, callback, data, nullptr);
        g_source_attach(source_, nullptr);
    }
    ~ScopedTimer() {
        g_source_destroy(source_);
        g_source_unref(source_);
    }
    ScopedTimer(const ScopedTimer&) = delete;
    ScopedTimer& operator=(const ScopedTimer&) = delete;
    ScopedTimer(ScopedTimer&&) = delete;
    ScopedTimer& operator=(ScopedTimer&&) = delete;

private:
    GSource* source_;
};

/// Runs the main loop's work until `done()`; the condition is also looked at when nothing is to be
/// run, since it may depend on another thread. @return false when the patience is exhausted.
template <typename Condition> bool iterateUntil(Condition done) {
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    const ScopedTimer look(
        std::chrono::milliseconds(1), [](gpointer) -> gboolean { return G_SOURCE_CONTINUE; },
        nullptr);
    while (!done()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        g_main_context_iteration(nullptr, TRUE);
    }
    return true;
}

/// Runs what is ready to be run, without waiting.
inline void drainMainContext() {
    while (g_main_context_iteration(nullptr, FALSE) != FALSE) {
    }
}

/// Runs the main loop's work until a timer that starts now has run out: every timer that was
/// started before with at most the same interval has then run too, and what it posted.
inline void iterateFor(std::chrono::milliseconds interval) {
    bool elapsed = false;
    {
        const ScopedTimer timer(
            interval,
            [](gpointer flag) -> gboolean {
                *static_cast<bool*>(flag) = true;
                return G_SOURCE_CONTINUE;
            },
            &elapsed);
        while (!elapsed) {
            g_main_context_iteration(nullptr, TRUE);
        }
    }
    drainMainContext();
}

/// Waits for another thread without running the main loop. @return false when the patience is
/// exhausted.
template <typename Condition> bool spinUntil(Condition done) {
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    while (!done()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::yield();
    }
    return true;
}

} // namespace orvexd::test
