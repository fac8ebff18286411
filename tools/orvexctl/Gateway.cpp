#include "Gateway.h"

#include "Bus.h"
#include "Failure.h"

namespace orvexd::ctl {
Gateway::Gateway(std::chrono::seconds limit) : wait_{limit}, bus_{connectToSystemBus(wait_)} {}

void Gateway::cancel(std::uint32_t connection, std::uint32_t request) {
    // Signals vanish without a trace when there is no daemon or no permission; a call tells.
    call("org.freedesktop.DBus.Peer", "Ping", nullptr);
    // Broadcast, as the daemon's own signals are: monitors see who cancelled what.
    (void)g_dbus_connection_emit_signal(bus_.get(), nullptr, kObjectPath, kInterface, "cancel",
                                        g_variant_new("(uu)", connection, request), nullptr);
    // The daemon asks the bus whose signal it is, and cannot learn it when the sender has left. It
    // answers a client's messages in order, so the signal has been dealt with when this is
    // answered.
    call("org.freedesktop.DBus.Properties", "Get",
         g_variant_new("(ss)", kInterface, "connectionStatus"));
}

void Gateway::quit(bool delayed) {
    call(kInterface, delayed ? "quitDelayed" : "quit", nullptr, Awaited::End);
}

void Gateway::call(const char* interface, const char* member, GVariant* arguments, Awaited what) {
    ErrorSlot error;
    g_dbus_connection_call(bus_.get(), kBusName, kObjectPath, interface, member, arguments, nullptr,
                           G_DBUS_CALL_FLAGS_NO_AUTO_START, G_MAXINT, wait_.cancellable(),
                           Wait::finished, &wait_);
    const VariantRef reply{g_dbus_connection_call_finish(bus_.get(), wait_.run(what), error.out())};
    if (error) {
        throw Failure::fromBus(*error);
    }
}

} // namespace orvexd::ctl
