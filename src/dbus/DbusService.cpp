#include "dbus/DbusService.h"

#include "config/ConfHandler.h"
#include "config/MapWrapper.h"
#include "core/OrvexMain.h"
#include "dbus/BusLink.h"
#include "protocol/Names.h"
#include "support/Threads.h"

#include <climits>
#include <dbus/dbus-glib-lowlevel.h>
#include <utility>

namespace orvexd {

using trilba::core::ISystemLocationSettings;

namespace {

constexpr std::chrono::seconds kDefaultShutdownDelay(60);

/// Bytes of messages that wait for their handler, beyond which libdbus reads no more. The last one
/// may be as large as the bus lets pass. libdbus's own limit is 63 MiB, and small messages take
/// several times their size.
constexpr long kMostReceivedBytes = 256L * 1024;
/// Most file descriptors of messages that wait for their handler. No member takes a descriptor: all
/// are closed with their message.
constexpr long kMostReceivedDescriptors = 64;
/// Most file descriptors of one message. libdbus's own limit is 16, but a bus may pass more. The
/// kernel hands over at most 253 at a time (SCM_MAX_FD), and libdbus reads those of a message at
/// once.
constexpr long kMostMessageDescriptors = 253;

/// The configured delay. The default holds unless the setting is a number of at least 1.
std::chrono::seconds configuredShutdownDelay() {
    const Number seconds = readNumber(ConfHandler::get("daemon_shutdown_delay"));
    const bool usable = seconds.fits && seconds.value >= 1 && seconds.value <= INT_MAX;
    return usable ? std::chrono::seconds(seconds.value) : kDefaultShutdownDelay;
}

} // namespace

DbusService::DbusService(IMainLoop& mainLoop, UserLimits limits)
    : mainLoop_(mainLoop),
      core_(std::make_unique<OrvexMain>(*this, limits)),
      shutdownDelay_(configuredShutdownDelay()) {
    locationSettings_.reset(ISystemLocationSettings::create());
}

DbusService::~DbusService() {
    // When a signal ends the main loop, nobody has called quit. The worker must end before the
    // objects that it uses.
    core_->shutdown();
    locationSettings_.reset();
    leaveBus();
    core_.reset();
    pending_.clear();
}

// -- set-up and teardown -------------------------------------------------------------------------

bool DbusService::setUpBus() {
    return connectToBus() && requestName() && subscribe() && installFilter();
}

bool DbusService::connectToBus() {
    if (BusLink::connection() == nullptr) {
        BusError error;
        {
            const tsan::LibraryFrame frame(dbus_bus_get);
            BusLink::open(BusConnection(dbus_bus_get(DBUS_BUS_SYSTEM, error.get())));
        }
        if (BusLink::connection() == nullptr) {
            quit(nullptr);
            return false;
        }
    }
    dbus_threads_init_default();
    dbus_connection_set_max_received_size(BusLink::connection(), kMostReceivedBytes);
    // libdbus ends the connection when a message has more descriptors than its limit, or when the
    // process has no descriptor left because messages come faster than they are handled.
    dbus_connection_set_max_received_unix_fds(BusLink::connection(), kMostReceivedDescriptors);
    dbus_connection_set_max_message_unix_fds(BusLink::connection(), kMostMessageDescriptors);
    dbus_connection_setup_with_g_main(BusLink::connection(), nullptr);
    return true;
}

bool DbusService::requestName() {
    BusError error;
    const int reply = dbus_bus_request_name(
        BusLink::connection(), bus::kName,
        DBUS_NAME_FLAG_REPLACE_EXISTING | DBUS_NAME_FLAG_DO_NOT_QUEUE, error.get());
    return !error.isSet() && reply != DBUS_REQUEST_NAME_REPLY_EXISTS;
}

/// Clients broadcast the signal "cancel": without a match the bus would not pass it on.
bool DbusService::subscribe() {
    BusError error;
    dbus_bus_add_match(BusLink::connection(), bus::kMatchRule, error.get());
    return !error.isSet();
}

bool DbusService::installFilter() {
    if (!filterInstalled_) {
        filterInstalled_ =
            dbus_connection_add_filter(BusLink::connection(), filter, &mainLoop_, nullptr) != FALSE;
    }
    return filterInstalled_;
}

void DbusService::leaveBus() {
    clients_.clear();
    watch_.reset();
    DBusConnection* connection = BusLink::connection();
    if (connection == nullptr) {
        return;
    }
    dbus_connection_set_exit_on_disconnect(connection, FALSE);
    dbus_bus_remove_match(connection, bus::kMatchRule, nullptr); // no error slot: does not block
    if (filterInstalled_) {
        dbus_connection_remove_filter(connection, filter, &mainLoop_);
    }
    BusLink::close();
}

} // namespace orvexd
