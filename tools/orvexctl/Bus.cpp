#include "Bus.h"

#include "Failure.h"

namespace orvexd::ctl {

ObjectRef<GDBusConnection> connectToSystemBus() {
    ErrorSlot error;
    ObjectRef<GDBusConnection> bus{g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, error.out())};
    if (bus == nullptr) {
        throw Failure{ExitStatus::NoDaemon,
                      "The system bus cannot be reached. Check that it runs, or "
                      "DBUS_SYSTEM_BUS_ADDRESS when a private bus is meant. (" +
                          std::string{error->message} + ")"};
    }
    g_dbus_connection_set_exit_on_close(bus.get(), FALSE);
    return bus;
}

} // namespace orvexd::ctl
