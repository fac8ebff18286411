#pragma once

#include "support/FreeWith.h"

#include <dbus/dbus.h>
#include <memory>

namespace orvexd {

/// What a filter tells libdbus: whether the message was for it.
inline constexpr auto kHandled = DBUS_HANDLER_RESULT_HANDLED;
inline constexpr auto kNotHandled = DBUS_HANDLER_RESULT_NOT_YET_HANDLED;

/// One reference to a message; ends with the owner. libdbus counts references atomically, but the
/// daemon uses messages on the main loop's thread only.
using BusMessage = std::unique_ptr<DBusMessage, FreeWith<dbus_message_unref>>;

/// One reference to a shared connection. dbus_bus_get keeps one of its own for the life of the
/// process, so the holder gives back its reference and never closes the connection.
using BusConnection = std::unique_ptr<DBusConnection, FreeWith<dbus_connection_unref>>;

/// Gives a question up: what answers it later reaches nobody.
inline void cancelAndUnref(DBusPendingCall* call) noexcept {
    dbus_pending_call_cancel(call);
    dbus_pending_call_unref(call);
}

/// A question that waits for its answer; cancelled with its owner. Main loop's thread.
using BusPendingCall = std::unique_ptr<DBusPendingCall, FreeWith<cancelAndUnref>>;

/// An error slot for libdbus calls, initialised and freed with its scope. One slot serves one call:
/// libdbus refuses a slot that holds an error already.
class BusError {
public:
    BusError() noexcept { dbus_error_init(&error_); }
    ~BusError() { dbus_error_free(&error_); }
    BusError(const BusError&) = delete;
    BusError& operator=(const BusError&) = delete;

    /// What a libdbus call takes as its last argument.
    DBusError* get() noexcept { return &error_; }
    /// True when a call has failed; name and message are null otherwise.
    [[nodiscard]] bool isSet() const noexcept { return dbus_error_is_set(&error_) != FALSE; }
    /// Name of the error on the bus, such as "org.freedesktop.DBus.Error.Failed"; null for none.
    [[nodiscard]] const char* name() const noexcept { return error_.name; }
    /// What the error says to people; null for none.
    [[nodiscard]] const char* message() const noexcept { return error_.message; }

private:
    DBusError error_{};
};

} // namespace orvexd
