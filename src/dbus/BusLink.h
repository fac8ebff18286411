#pragma once

#include "support/BusHandles.h"
#include "support/Locks.h"

#include <string>

namespace orvexd {

/// The process's one connection to the system bus, and how messages leave on it.
class BusLink {
public:
    BusLink() = delete;

    /// Held by every handler, every emission and the set-up for their whole run; the outermost
    /// lock.
    static RecursiveMutex& mutex();

    /// Null until the bus was reached, and again after `close`.
    static DBusConnection* connection();
    static void open(BusConnection connection);
    /// Gives the reference back.
    static void close();

    /// Makes a signal of the daemon's interface.
    /// @return 0, 2204 when there is no bus connection, 2001 when the message cannot be made.
    static int createSignal(const char* member, BusMessage& message);

    /// Sends `message` and waits until it has been written; nothing happens when it is null or
    /// there is no connection.
    /// @throws std::string when libdbus refuses it. Nothing catches that: the process ends.
    static void sendOrThrow(BusMessage message);

    /// Answers `call` with the daemon's error "(code) unspecifiedError".
    /// @throws std::string when the reply cannot be made or sent.
    static void sendError(DBusMessage& call, int code);

private:
    static BusConnection& slot();
};

} // namespace orvexd
