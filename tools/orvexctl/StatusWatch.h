#pragma once

#include "Failure.h"
#include "GioHandles.h"
#include "Timer.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <orvexclient.h>

namespace orvexd::ctl {

/// Shows the connection status now and after each change, across the daemon's end and its next
/// start, until a signal ends it.
class StatusWatch {
public:
    using Show = std::function<void(std::optional<std::uint32_t>)>;

    /// @param show gets each new status, nothing for a daemon that has gone; may throw a Failure.
    StatusWatch(OrvexClient* client, Show show);
    ~StatusWatch();
    StatusWatch(const StatusWatch&) = delete;
    StatusWatch& operator=(const StatusWatch&) = delete;

    /// @param status that was told already. @throws Failure
    void run(std::uint32_t status);

private:
    static void changed(OrvexClient* client, GParamSpec* property, gpointer self) noexcept;
    static void told(GObject* client, GAsyncResult* result, gpointer self) noexcept;

    void update();
    void tell(std::optional<std::uint32_t> status);
    void stop(const Failure& why);
    void lookForBus();

    OrvexClient* client_;
    Show show_;
    MainLoopRef loop_{g_main_loop_new(nullptr, FALSE)};
    ObjectRef<GCancellable> end_{g_cancellable_new()};
    std::optional<std::uint32_t> last_;
    Timer look_;
    std::optional<Failure> failure_;
};

} // namespace orvexd::ctl
