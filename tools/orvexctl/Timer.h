#pragma once

#include <chrono>
#include <functional>
#include <glib.h>

namespace orvexd::ctl {

/// Something the main loop does later; forgotten when this goes out of scope.
class Timer {
public:
    Timer() noexcept = default;
    ~Timer() { stop(); }
    Timer(const Timer&) = delete;
    Timer& operator=(const Timer&) = delete;

    [[nodiscard]] bool isRunning() const noexcept { return source_ != 0; }

    /// Runs `action` once after `delay`; replaces what was planned before.
    void once(std::chrono::milliseconds delay, std::function<void()> action);

    /// Runs `action` every `period`; replaces what was planned before.
    void every(std::chrono::milliseconds period, std::function<void()> action);

    /// Runs `action` once after everything that has already arrived was handled.
    void whenIdle(std::function<void()> action);

    void stop() noexcept;

private:
    static gboolean fireOnce(gpointer self) noexcept;
    static gboolean fireAgain(gpointer self) noexcept;

    guint source_ = 0;
    std::function<void()> action_;
};

} // namespace orvexd::ctl
