#pragma once

#include "fakes/Gate.h"

#include <algorithm>
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

/// Lets all timers of the default main context come so much nearer, and runs what is due then, and
/// what it posted: as if the time had passed.
inline void passTime(std::chrono::microseconds interval) {
    const guint newest = g_idle_add([](gpointer) -> gboolean { return G_SOURCE_REMOVE; }, nullptr);
    for (guint id = 1; id < newest; ++id) { // sources are numbered as they come
        GSource* const source = g_main_context_find_source_by_id(nullptr, id);
        const gint64 due = source != nullptr ? g_source_get_ready_time(source) : -1;
        if (due >= 0) {
            g_source_set_ready_time(source, std::max<gint64>(0, due - interval.count()));
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
