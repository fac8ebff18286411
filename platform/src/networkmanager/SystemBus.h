#pragma once

#include "networkmanager/ObjectHandles.h"

#include <chrono>
#include <functional>
#include <optional>
#include <string>

namespace trilba::live {

/// A connection of our own to the system bus. It is made without waiting, and made anew when it is
/// lost or was not to be had. The end of the bus does not end the process, as it would with the
/// connection that GLib shares. Main-loop thread only.
class SystemBus {
public:
    /// `onChange` runs when the connection has come or gone.
    explicit SystemBus(std::function<void()> onChange);
    SystemBus(const SystemBus&) = delete;
    SystemBus& operator=(const SystemBus&) = delete;
    ~SystemBus() = default;

    /// Null while there is none.
    [[nodiscard]] GDBusConnection* connection() const { return connection_.get(); }

    /// Why there is none; empty otherwise.
    [[nodiscard]] const std::string& fault() const { return fault_; }

private:
    void connect();
    void onConnected(GAsyncResult* result);
    void onClosed();
    void tryAgain();

    std::function<void()> onChange_;
    Object<GDBusConnection> connection_;
    std::optional<SignalHandler> closed_;
    std::string fault_;
    std::chrono::seconds pause_{1}; // before the next attempt
    OneShot again_;
    PendingAnswers pending_;
};

} // namespace trilba::live
