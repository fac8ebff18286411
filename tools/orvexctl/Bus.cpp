#include "Bus.h"

#include "Failure.h"

namespace orvexd::ctl {

ObjectRef<GDBusConnection> connectToSystemBus() {
    ErrorSlot error;
    ObjectRef<GDBusConnection> bus{g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, error.out())};
    if (bus == nullptr) {
        throw Failure::noBus(error->message);
    }
    g_dbus_connection_set_exit_on_close(bus.get(), FALSE);
    return bus;
}

ObjectRef<OrvexClient> makeClient() {
    ErrorSlot error;
    ObjectRef<OrvexClient> client{orvex_client_new(nullptr, error.out())};
    if (client == nullptr) {
        throw Failure::fromLibrary(*error);
    }
    return client;
}

} // namespace orvexd::ctl
