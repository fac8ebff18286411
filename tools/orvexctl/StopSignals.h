#pragma once

#include <array>
#include <functional>
#include <glib.h>

namespace orvexd::ctl {

/// Receives SIGINT, SIGTERM and SIGHUP on the main loop for as long as it lives. When one has come,
/// no further one ends the process behind that: it is about to end by itself, with its own status.
class StopSignals {
public:
    /// @param handler gets the signal number, once for each delivery.
    explicit StopSignals(std::function<void(int signal)> handler);
    ~StopSignals();
    StopSignals(const StopSignals&) = delete;
    StopSignals& operator=(const StopSignals&) = delete;

private:
    template <int Signal> static gboolean deliver(gpointer self) noexcept;

    std::function<void(int signal)> handler_;
    bool delivered_ = false;
    std::array<guint, 3> sources_;
};

} // namespace orvexd::ctl
