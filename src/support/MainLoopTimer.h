#pragma once

#include <chrono>
#include <functional>
#include <glib.h>

namespace orvexd {

/// A one-shot timer on the default main context, removed when it goes out of scope. Main loop's
/// thread only.
class MainLoopTimer {
public:
    MainLoopTimer() noexcept = default;
    ~MainLoopTimer() { cancel(); }
    MainLoopTimer(const MainLoopTimer&) = delete;
    MainLoopTimer& operator=(const MainLoopTimer&) = delete;
    MainLoopTimer(MainLoopTimer&&) = delete;
    MainLoopTimer& operator=(MainLoopTimer&&) = delete;

    bool isPending() const noexcept { return source_ != 0; }

    /// Runs `action` once after `delay`; must not be pending. Delays beyond GLib's range of about
    /// 49 days are shortened to it.
    void start(std::chrono::milliseconds delay, std::function<void()> action);

    /// Forgets the action; nothing happens when none is pending.
    void cancel() noexcept;

private:
    static gboolean fire(gpointer timer) noexcept;

    guint source_ = 0;
    std::function<void()> action_;
};

} // namespace orvexd
