#include "dbus/DbusService.h"

#include "config/ConfHandler.h"
#include "dbus/BusLink.h"
#include "dbus/BusNames.h"
#include "support/ThreadSanitizer.h"

#include <array>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <dbus/dbus-glib-lowlevel.h>
#include <utility>

namespace orvexd {

using trilba::core::ISystemLocationSettings;

namespace {

constexpr std::chrono::seconds kDefaultShutdownDelay(60);

/// File descriptors of messages that wait for their handler: no member takes one, all are closed.
constexpr long kMostReceivedDescriptors = 64;
/// File descriptors of one message; libdbus's own limit is 16, but a bus may pass more. The kernel
/// hands over no more at a time, and libdbus takes all of a message at once.
constexpr long kMostMessageDescriptors = 253;

/// The configured delay; anything but a number of at least 1 keeps the default.
std::chrono::seconds configuredShutdownDelay() {
    const std::string value = ConfHandler::get("daemon_shutdown_delay");
    errno = 0;
    const long seconds = std::strtol(value.c_str(), nullptr, 10);
    const bool usable = errno == 0 && seconds >= 1 && seconds <= INT_MAX;
    return usable ? std::chrono::seconds(seconds) : kDefaultShutdownDelay;
}

std::string describe(const BusError& error) {
    return std::string(error.name()) + " Message: " + error.message() + ")";
}

} // namespace

/// One row of the dispatch table.
struct DbusService::Member {
    int messageType;
    const char* interface;
    const char* name;
    DBusHandlerResult (DbusService::*handler)(DBusMessage& message);
    bool keepsDaemon; ///< when handled, even with an error, a delayed quit is called off
};

DbusService::DbusService(IMainLoop& mainLoop)
    : mainLoop_(mainLoop),
      core_(std::make_unique<OrvexMain>(*this)),
      shutdownDelay_(configuredShutdownDelay()) {
    locationSettings_.reset(ISystemLocationSettings::create());
}

DbusService::~DbusService() {
    // After a signal nobody has called quit: the worker must be gone before anything that it uses.
    core_->shutdown();
    locationSettings_.reset();
    leaveBus();
    core_.reset();
    pending_.clear();
}

// -- set-up and teardown -------------------------------------------------------------------------

bool DbusService::setUpBus() {
    const RecursiveLock guard(BusLink::mutex());
    return connectToBus() && requestName() && subscribe() && installFilter();
}

bool DbusService::connectToBus() {
    if (BusLink::connection() == nullptr) {
        BusError error;
        {
            const tsan::LibraryFrame frame(dbus_bus_get);
            BusLink::open(BusConnection(dbus_bus_get(DBUS_BUS_SYSTEM, error.get())));
        }
        if (error.isSet()) {
            diagnostic_ = "error: dbus_bus_get error ( Name: " + describe(error);
        }
        if (BusLink::connection() == nullptr) {
            quit(nullptr);
            return false;
        }
    }
    dbus_threads_init_default();
    // A message with more descriptors than its limit ends the connection to the bus. So does one
    // that exceeds the process's limit, as they would when received faster than handled.
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
    if (error.isSet()) {
        diagnostic_ = "error: dbus_bus_request_name failed ( Name: " + describe(error);
        return false;
    }
    return reply != DBUS_REQUEST_NAME_REPLY_EXISTS;
}

/// Broadcast signals on the interface are not addressed to the daemon: "cancel" needs a match.
bool DbusService::subscribe() {
    BusError error;
    dbus_bus_add_match(BusLink::connection(), bus::kMatchRule, error.get());
    if (error.isSet()) {
        diagnostic_ = std::string("error: dbus_bus_add_match_failed() str=") + bus::kMatchRule +
                      " name: " + describe(error);
        return false;
    }
    return true;
}

bool DbusService::installFilter() {
    if (!filterInstalled_) {
        filterInstalled_ =
            dbus_connection_add_filter(BusLink::connection(), filter, &mainLoop_, nullptr) != FALSE;
    }
    return filterInstalled_;
}

void DbusService::leaveBus() {
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

// -- dispatch ------------------------------------------------------------------------------------

DBusHandlerResult DbusService::filter(DBusConnection* /*connection*/, DBusMessage* message,
                                      void* mainLoop) noexcept {
    DbusService* service = static_cast<IMainLoop*>(mainLoop)->getService();
    return service != nullptr ? service->dispatch(*message) : DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
}

bool DbusService::matches(const Member& member, DBusMessage& message) {
    const auto test = member.messageType == DBUS_MESSAGE_TYPE_SIGNAL ? dbus_message_is_signal
                                                                     : dbus_message_is_method_call;
    return test(&message, member.interface, member.name) != FALSE;
}

DBusHandlerResult DbusService::dispatch(DBusMessage& message) {
    constexpr int kCall = DBUS_MESSAGE_TYPE_METHOD_CALL;
    constexpr int kSignal = DBUS_MESSAGE_TYPE_SIGNAL;
    static constexpr std::array<Member, 10> kMembers = {{
        {kCall, bus::kInterface, "quit", &DbusService::onQuit, false},
        {kCall, bus::kInterface, "quitDelayed", &DbusService::onQuitDelayed, false},
        {kSignal, bus::kInterface, "cancel", &DbusService::onCancel, false},
        {kCall, bus::kInterface, "connect", &DbusService::onConnect, true},
        {kCall, bus::kInterface, "disconnect", &DbusService::onDisconnect, false},
        {kCall, bus::kInterface, "attach", &DbusService::onAttach, true},
        {kCall, bus::kInterface, "prepare", &DbusService::onPrepare, true},
        {kCall, bus::kInterface, "sendData", &DbusService::onSendData, false},
        {kCall, bus::kInterface, "getData", &DbusService::onGetData, false},
        {kCall, bus::kPropertiesInterface, "Get", &DbusService::onGetProperty, false},
    }};
    for (const Member& member : kMembers) {
        if (!matches(member, message)) {
            continue;
        }
        const RecursiveLock guard(BusLink::mutex());
        const DBusHandlerResult result = (this->*member.handler)(message);
        if (member.keepsDaemon && result == DBUS_HANDLER_RESULT_HANDLED) {
            delayedQuit_.cancel();
        }
        return result;
    }
    return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
}

} // namespace orvexd
