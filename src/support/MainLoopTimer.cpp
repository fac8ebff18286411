#include "support/MainLoopTimer.h"

#include <algorithm>
#include <utility>

namespace orvexd {

void MainLoopTimer::start(std::chrono::milliseconds delay, std::function<void()> action) {
    action_ = std::move(action);
    const auto interval = std::clamp<std::chrono::milliseconds::rep>(delay.count(), 0, G_MAXUINT);
    source_ = g_timeout_add(static_cast<guint>(interval), fire, this);
}

void MainLoopTimer::cancel() noexcept {
    if (source_ != 0) {
        g_source_remove(std::exchange(source_, 0));
        action_ = nullptr;
    }
}

gboolean MainLoopTimer::fire(gpointer timer) noexcept {
    auto& self = *static_cast<MainLoopTimer*>(timer);
    // Not pending any more before the action runs: the id is dead once this source has fired.
    self.source_ = 0;
    const std::function<void()> action = std::exchange(self.action_, nullptr);
    action();
    return G_SOURCE_REMOVE;
}

} // namespace orvexd
