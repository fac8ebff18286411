#pragma once

#include "support/BusHandles.h"

#include <string>
#include <vector>

namespace orvexd {

/// The process's one connection to the system bus, and how messages leave on it. Main loop's thread
/// only.
class BusLink {
public:
    BusLink() = delete;

    /// Null until the bus was reached, and again after `close`.
    [[nodiscard]] static DBusConnection* connection();
    /// Keeps the connection; a connection before is given back.
    static void open(BusConnection connection);
    /// Gives the reference back.
    static void close();

    /// Makes a signal of the daemon's interface, without arguments yet.
    /// @return 0, 2204 when there is no bus connection, 2001 when the message cannot be made.
    [[nodiscard]] static int createSignal(const char* member, BusMessage& message);

    /// Sends `message` and waits until it has been written. Nothing happens when it is null or when
    /// there is no connection.
    /// @throws std::string when libdbus refuses it. Nothing catches that: the process ends.
    static void sendOrThrow(BusMessage message);

    /// Answers `call` with the daemon's error "(code) unspecifiedError".
    /// @throws std::string when the reply cannot be made or sent.
    static void sendError(DBusMessage& call, int code);

private:
    static BusConnection& slot();
};

/// `text` as the bus takes it: libdbus ends the process on a string that is not valid UTF-8. The
/// text ends at its first NUL, and each byte that is no UTF-8 becomes U+FFFD; of the result the
/// characters that fit into 14 MiB are left. Valid texts up to that size stay as they are.
[[nodiscard]] std::string toBusText(const std::string& text);

/// Splits a blank-separated list into lists of at most 16 MiB, so that each fits into one message;
/// a shorter list, an empty one included, is the only element.
[[nodiscard]] std::vector<std::string> splitKeyList(const std::string& keys);

} // namespace orvexd
