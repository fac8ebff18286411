#include "Gateway.h"

#include "Bus.h"
#include "Failure.h"

namespace orvexd::ctl {
namespace {

constexpr int kTimeoutMs = -1; // GDBus's own
/// The daemon ends its exchange before it answers, which may take one wait for data: 90 s.
constexpr int kQuitTimeoutMs = 150 * 1000;

} // namespace

Gateway::Gateway() : bus_{connectToSystemBus()} {}

void Gateway::cancel(std::uint32_t connection, std::uint32_t request) {
    // Signals vanish without a trace when there is no daemon or no permission; a call tells.
    call("org.freedesktop.DBus.Peer", "Ping", nullptr, kTimeoutMs);
    // Broadcast, as the daemon's own signals are: monitors see who cancelled what.
    (void)g_dbus_connection_emit_signal(bus_.get(), nullptr, kObjectPath, kInterface, "cancel",
                                        g_variant_new("(uu)", connection, request), nullptr);
    // The daemon asks the bus whose signal it is, and cannot learn it when the sender has left. It
    // answers a client's messages in order, so the signal has been dealt with when this is
    // answered.
    call("org.freedesktop.DBus.Properties", "Get",
         g_variant_new("(ss)", kInterface, "connectionStatus"), kTimeoutMs);
}

void Gateway::quit(bool delayed) {
    call(kInterface, delayed ? "quitDelayed" : "quit", nullptr, kQuitTimeoutMs);
}

void Gateway::call(const char* interface, const char* member, GVariant* arguments, int timeoutMs) {
    ErrorSlot error;
    const VariantRef reply{g_dbus_connection_call_sync(
        bus_.get(), kBusName, kObjectPath, interface, member, arguments, nullptr,
        G_DBUS_CALL_FLAGS_NO_AUTO_START, timeoutMs, nullptr, error.out())};
    if (error) {
        throw Failure::fromBus(*error);
    }
}

} // namespace orvexd::ctl
