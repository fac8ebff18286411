#include "Timer.h"

#include <algorithm>

namespace orvexd::ctl {
namespace {

guint milliseconds(std::chrono::milliseconds time) {
    return static_cast<guint>(
        std::clamp<std::chrono::milliseconds::rep>(time.count(), 0, G_MAXINT));
}

} // namespace

void Timer::once(std::chrono::milliseconds delay, std::function<void()> action) {
    stop();
    action_ = std::move(action);
    source_ = g_timeout_add(milliseconds(delay), fireOnce, this);
}

void Timer::every(std::chrono::milliseconds period, std::function<void()> action) {
    stop();
    action_ = std::move(action);
    source_ = g_timeout_add(milliseconds(period), fireAgain, this);
}

void Timer::whenIdle(std::function<void()> action) {
    stop();
    action_ = std::move(action);
    source_ = g_idle_add_full(G_PRIORITY_LOW, fireOnce, this, nullptr);
}

void Timer::stop() noexcept {
    if (source_ != 0) {
        g_source_remove(source_);
    }
    source_ = 0;
    action_ = nullptr;
}

gboolean Timer::fireOnce(gpointer self) noexcept {
    auto& timer = *static_cast<Timer*>(self);
    // The action may plan the next one, so the slot is free before it runs.
    timer.source_ = 0;
    const std::function<void()> action = std::move(timer.action_);
    action();
    return G_SOURCE_REMOVE;
}

gboolean Timer::fireAgain(gpointer self) noexcept {
    static_cast<Timer*>(self)->action_();
    return G_SOURCE_CONTINUE;
}

} // namespace orvexd::ctl
