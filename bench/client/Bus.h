#pragma once

#include "support/BusHandles.h"

#include <chrono>
#include <cstdint>
#include <dbus/dbus.h>
#include <stdexcept>
#include <string>
#include <string_view>

namespace orvexd::bench {

using Clock = std::chrono::steady_clock;

inline constexpr const char* kName = "com.kelvra.orvexd";
inline constexpr const char* kPath = "/com/kelvra/orvexd";

inline std::int64_t nanoseconds(Clock::duration time) {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(time).count();
}

/// The client's connection to the system bus, without a main loop: whoever waits reads messages
/// itself.
class Bus {
public:
    /// Listens to the daemon's signals.
    Bus();

    DBusConnection* get() const noexcept { return connection_.get(); }

    /// Sends `message`. @return its serial.
    dbus_uint32_t send(const BusMessage& message) const;

    /// The next message, null when none has come until `deadline`.
    BusMessage receive(Clock::time_point deadline) const;

    /// Sends a call and waits for its answer, dropping everything else. @throws for an error reply.
    BusMessage call(const BusMessage& message) const;

private:
    BusConnection connection_;
};

/// A call of the daemon's interface.
BusMessage makeCall(const char* member, const char* interface = kName);

template <typename... Arguments> void append(const BusMessage& message, Arguments... arguments) {
    if (dbus_message_append_args(message.get(), arguments..., DBUS_TYPE_INVALID) == FALSE) {
        throw std::runtime_error("no memory for a message");
    }
}

template <typename... Arguments> void read(const BusMessage& message, Arguments... arguments) {
    BusError error;
    if (dbus_message_get_args(message.get(), error.get(), arguments..., DBUS_TYPE_INVALID) ==
        FALSE) {
        throw std::runtime_error(std::string("unexpected arguments: ") + error.message());
    }
}

/// The one number of a reply.
dbus_uint32_t readNumber(const BusMessage& message);

/// @throws for the error reply that `message` is.
[[noreturn]] void throwError(const BusMessage& message);

bool isSignal(const BusMessage& message, const char* member);

/// How a client asks for a connection.
dbus_uint32_t openConnection(const Bus& bus, std::uint32_t chunkSize,
                             std::string_view encoding = "binary");

/// Its requests and what is left of their answers go with it.
void closeConnection(const Bus& bus, dbus_uint32_t connection);

BusMessage makePrepare(dbus_uint32_t connection, const char* member = "prepare",
                       dbus_uint32_t policy = 2);
BusMessage makeSendData(dbus_uint32_t connection, dbus_uint32_t request, std::string_view data,
                        bool last);
BusMessage makeGetData(dbus_uint32_t connection, dbus_uint32_t request);
BusMessage makeGetStatus();

/// One chunk of an answer.
struct Chunk {
    std::size_t bytes = 0;
    dbus_uint32_t code = 0;
};
inline constexpr dbus_uint32_t kResponseComplete = 2303;
Chunk readChunk(const BusMessage& reply);

} // namespace orvexd::bench
