#pragma once

#include "support/Probes.h"
#include "support/Statistics.h"
#include "support/Threads.h"

#include <algorithm>
#include <chrono>
#include <functional>
#include <glib.h>
#include <memory>
#include <utility>

namespace orvexd {

/// Tells whether the object that a post calls still exists when the post runs. The object holds a
/// Lifetime, the post a Watch. A Watch may be taken on any thread; both end on the main loop's.
class Lifetime {
public:
    /// Expired once the Lifetime has ended. Copies may be made and dropped on any thread.
    using Watch = std::weak_ptr<const Lifetime*>;
    /// For one post.
    [[nodiscard]] Watch watch() const noexcept { return token_; }

private:
    std::shared_ptr<const Lifetime*> token_ = std::make_shared<const Lifetime*>(this);
};

/// The record in which work crosses from any thread to the main loop: one action, which runs once,
/// unless the object that it calls is gone by then. Made and handed over by `postToMainLoop`.
template <typename Action> class MainLoopPost {
public:
    /// The thread that posts.
    MainLoopPost(Lifetime::Watch target, Action action)
        : target_(std::move(target)), action_(std::move(action)) {}

    /// GLib's callback: runs the action if its target lives. Main loop's thread, once.
    static gboolean run(gpointer data) noexcept {
        tsan::acquire(data);
        probe::postRun(data);
        auto& post = *static_cast<MainLoopPost*>(data);
        if (!post.target_.expired()) {
            post.action_();
        }
        return G_SOURCE_REMOVE;
    }

    /// GLib's notification that it needs the record no more. Main loop's thread.
    static void release(gpointer data) noexcept {
        tsan::acquire(data);
        const std::unique_ptr<MainLoopPost> post(static_cast<MainLoopPost*>(data));
    }

private:
    Lifetime::Watch target_;
    Action action_;
    [[no_unique_address, maybe_unused]] Counted<Statistic::Posts> counted_;
};

/// Runs `action` on the main loop's thread unless the owner of `target` is gone by then. Any
/// thread. Posts run in the order in which they were made, never inside the handler that runs at
/// that moment; none can be withdrawn. An exception that leaves `action` ends the process.
/// @throws std::bad_alloc; nothing is posted then.
template <typename Action> void postToMainLoop(const Lifetime& target, Action action) {
    using Post = MainLoopPost<Action>;
    auto post = std::make_unique<Post>(target.watch(), std::move(action));
    probe::postQueued(post.get());
    tsan::release(post.get());
    // GLib owns the record from here on. It frees it through the notification, also when the main
    // context ends before the source has run.
    g_timeout_add_full(G_PRIORITY_DEFAULT, 0, &Post::run, post.release(), &Post::release);
}

/// A one-shot timer on the default main context, removed when it goes out of scope. Main loop's
/// thread only.
class MainLoopTimer {
public:
    MainLoopTimer() noexcept = default;
    ~MainLoopTimer() { cancel(); }
    MainLoopTimer(const MainLoopTimer&) = delete;
    MainLoopTimer& operator=(const MainLoopTimer&) = delete;

    /// True from `start` until the action begins or is cancelled.
    [[nodiscard]] bool isPending() const noexcept { return source_ != 0; }

    /// Runs `action` once after `delay`; must not be pending. `action` may end this timer. Delays
    /// beyond GLib's range of about 49 days are shortened to it.
    void start(std::chrono::milliseconds delay, std::function<void()> action) {
        action_ = std::move(action);
        const auto interval =
            std::clamp<std::chrono::milliseconds::rep>(delay.count(), 0, G_MAXUINT);
        source_ = g_timeout_add_full(G_PRIORITY_DEFAULT, static_cast<guint>(interval),
                                     &MainLoopTimer::fire, this, nullptr);
    }

    /// Forgets the action; nothing happens when none is pending. The action itself may call it.
    void cancel() noexcept {
        if (source_ != 0) {
            g_source_remove(std::exchange(source_, 0));
            action_ = nullptr;
        }
    }

private:
    /// GLib's callback. An exception that leaves the action ends the process.
    static gboolean fire(gpointer timer) noexcept {
        auto& self = *static_cast<MainLoopTimer*>(timer);
        // Not pending any more before the action runs: the id is dead once this source has fired.
        self.source_ = 0;
        const std::function<void()> action = std::exchange(self.action_, nullptr);
        action();
        return G_SOURCE_REMOVE;
    }

    guint source_ = 0; // 0: none is pending
    std::function<void()> action_;
};

} // namespace orvexd
