#pragma once

#include "Awaited.h"
#include "Failure.h"
#include "GioHandles.h"
#include "Timer.h"

#include <chrono>
#include <functional>
#include <optional>

namespace orvexd::ctl {

/// Waits for asynchronous operations, one after the other and all of them within one time. The main
/// loop runs meanwhile.
class Wait {
public:
    /// @param limit zero for none
    explicit Wait(std::chrono::seconds limit);
    ~Wait() = default;
    Wait(const Wait&) = delete;
    Wait& operator=(const Wait&) = delete;

    // For the operation that is to be started next.
    [[nodiscard]] GCancellable* cancellable() const noexcept { return stop_.get(); }
    static void finished(GObject* source, GAsyncResult* result, gpointer self) noexcept;

    /// Waits for the operation that was started.
    /// @param what is asked when the time is over
    /// @throws Failure when the time is over, or when
    /// somebody has given it up.
    /// @return the operation's result, which may be a failure
    GAsyncResult* run(const std::function<Awaited()>& what);
    GAsyncResult* run(Awaited what) {
        return run([what] { return what; });
    }

    /// Ends the operation under way, and run() with this failure.
    void giveUp(const Failure& why);

private:
    void end();

    std::chrono::seconds limit_;
    ObjectRef<GCancellable> stop_{g_cancellable_new()};
    ObjectRef<GAsyncResult> result_;
    MainLoopRef loop_{g_main_loop_new(nullptr, FALSE)};
    Timer timer_;
    bool isOver_ = false;
    std::function<Awaited()> what_; ///< while an operation is under way
    std::optional<Failure> failure_;
};

} // namespace orvexd::ctl
