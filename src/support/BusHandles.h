#pragma once

#include "support/FreeWith.h"

#include <dbus/dbus.h>
#include <memory>

namespace orvexd {

/// One reference to a message.
using BusMessage = std::unique_ptr<DBusMessage, FreeWith<dbus_message_unref>>;

/// One reference to a shared connection (dbus_bus_get); never closed by its holder.
using BusConnection = std::unique_ptr<DBusConnection, FreeWith<dbus_connection_unref>>;

/// An error slot for libdbus calls.
class BusError {
public:
    BusError() noexcept { dbus_error_init(&error_); }
    ~BusError() { dbus_error_free(&error_); }
    BusError(const BusError&) = delete;
    BusError& operator=(const BusError&) = delete;
    BusError(BusError&&) = delete;
    BusError& operator=(BusError&&) = delete;

    DBusError* get() noexcept { return &error_; }
    [[nodiscard]] bool isSet() const noexcept { return dbus_error_is_set(&error_) != FALSE; }
    [[nodiscard]] const char* name() const noexcept { return error_.name; }
    [[nodiscard]] const char* message() const noexcept { return error_.message; }

private:
    DBusError error_{};
};

} // namespace orvexd
