#include "Unfetched.h"

#include <string>

namespace orvexd::bench {

namespace {

constexpr std::chrono::seconds kPatience(30);

} // namespace

Clock::time_point startUnfetched(const Bus& bus, dbus_uint32_t connection, std::size_t count,
                                 std::size_t bytes) {
    for (std::size_t i = 1; i < count; ++i) {
        bus.call(makePrepare(connection, "attach"));
    }
    const std::string data(bytes, 'u');
    const auto begin = Clock::now();
    bus.send(makePrepare(connection));
    std::size_t given = 0;
    while (given < count) {
        const BusMessage message = bus.receive(begin + kPatience);
        if (!message) {
            throw std::runtime_error("the daemon does not ask for data");
        }
        if (dbus_message_get_type(message.get()) == DBUS_MESSAGE_TYPE_ERROR) {
            throwError(message);
        }
        if (isSignal(message, "requestData")) {
            dbus_uint32_t asked = 0;
            dbus_uint32_t request = 0;
            read(message, DBUS_TYPE_UINT32, &asked, DBUS_TYPE_UINT32, &request);
            bus.send(makeSendData(asked, request, data, true));
            ++given;
        }
    }
    dbus_connection_flush(bus.get());
    return begin;
}

} // namespace orvexd::bench
