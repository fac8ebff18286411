#include "Bus.h"

#include "Failure.h"
#include "Wait.h"

namespace orvexd::ctl {

ObjectRef<GDBusConnection> connectToSystemBus(Wait& wait) {
    ErrorSlot error;
    g_bus_get(G_BUS_TYPE_SYSTEM, wait.cancellable(), Wait::finished, &wait);
    ObjectRef<GDBusConnection> bus{g_bus_get_finish(wait.run(Awaited::Bus), error.out())};
    if (bus == nullptr) {
        throw Failure::noBus(error->message);
    }
    g_dbus_connection_set_exit_on_close(bus.get(), FALSE);
    return bus;
}

ObjectRef<OrvexClient> makeClient(Wait& wait) {
    ErrorSlot error;
    ObjectRef<OrvexClient> client = newClient();
    GAsyncInitable* const initable = G_ASYNC_INITABLE(client.get());
    g_async_initable_init_async(initable, G_PRIORITY_DEFAULT, wait.cancellable(), Wait::finished,
                                &wait);
    GAsyncResult* const result = wait.run([&] { return awaitedBy(client.get()); });
    if (g_async_initable_init_finish(initable, result, error.out()) == FALSE) {
        throw Failure::fromLibrary(*error);
    }
    return client;
}

ObjectRef<OrvexClient> newClient() {
    return ObjectRef<OrvexClient>{ORVEX_CLIENT(g_object_new(ORVEX_TYPE_CLIENT, nullptr))};
}

Awaited awaitedBy(OrvexClient* client) {
    // It looks for the daemon first, and then asks it.
    return orvex_client_get_running(client) != FALSE ? Awaited::Daemon : Awaited::Bus;
}

} // namespace orvexd::ctl
