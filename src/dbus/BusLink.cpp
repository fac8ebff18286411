#include "dbus/BusLink.h"

#include "dbus/BusNames.h"
#include "support/FailureCode.h"

#include <utility>

namespace orvexd {

RecursiveMutex& BusLink::mutex() {
    static RecursiveMutex busMutex;
    return busMutex;
}

BusConnection& BusLink::slot() {
    static BusConnection connection;
    return connection;
}

DBusConnection* BusLink::connection() {
    return slot().get();
}

void BusLink::open(BusConnection connection) {
    slot() = std::move(connection);
}

void BusLink::close() {
    slot().reset();
}

int BusLink::createSignal(const char* member, BusMessage& message) {
    if (connection() == nullptr) {
        return failure::kNoConnection;
    }
    message.reset(dbus_message_new_signal(bus::kPath, bus::kInterface, member));
    return message ? failure::kNone : failure::kExchangeFailed;
}

void BusLink::sendOrThrow(BusMessage message) {
    if (!message || connection() == nullptr) {
        return;
    }
    if (dbus_connection_send(connection(), message.get(), nullptr) == FALSE) {
        throw std::string("error: dbus_connection_send() failed -> EXIT");
    }
    dbus_connection_flush(connection());
}

void BusLink::sendError(DBusMessage& call, int code) {
    if (dbus_message_get_serial(&call) == 0) {
        return; // libdbus ends the process when asked to answer a message that was never sent
    }
    BusMessage reply(
        dbus_message_new_error_printf(&call, bus::kErrorName, "(%d) %s", code, "unspecifiedError"));
    if (!reply) {
        throw std::string("error: no memory for an error reply -> EXIT");
    }
    sendOrThrow(std::move(reply));
}

} // namespace orvexd
