#include "networkmanager/SystemBus.h"

#include <algorithm>

namespace trilba::live {

namespace {

constexpr std::chrono::seconds kLongestPause{30};

} // namespace

SystemBus::SystemBus(std::function<void()> onChange)
    : onChange_(std::move(onChange)), again_([this] { connect(); }) {
    connect();
}

void SystemBus::connect() {
    GError* error = nullptr;
    // Looks at the environment only.
    const Text address(g_dbus_address_get_for_bus_sync(G_BUS_TYPE_SYSTEM, nullptr, &error));
    if (const Error fault(error); fault) {
        fault_ = fault->message;
        tryAgain();
        return;
    }
    g_dbus_connection_new_for_address(
        address.get(),
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, pending_.cancellable(), &PendingAnswers::arrive,
        pending_.expect([this](GObject*, GAsyncResult* result) { onConnected(result); }));
}

void SystemBus::onConnected(GAsyncResult* result) {
    GError* error = nullptr;
    connection_.reset(g_dbus_connection_new_for_address_finish(result, &error));
    if (const Error fault(error); fault) {
        fault_ = fault->message;
        tryAgain();
        return;
    }
    fault_.clear();
    pause_ = std::chrono::seconds(1);
    const auto onClosed = +[](GDBusConnection*, gboolean, GError*, gpointer self) noexcept {
        static_cast<SystemBus*>(self)->onClosed();
    };
    closed_.emplace(connection_.get(), "closed", G_CALLBACK(onClosed), this);
    if (g_dbus_connection_is_closed(connection_.get())) { // before anybody listened
        this->onClosed();
        return;
    }
    onChange_();
}

void SystemBus::onClosed() {
    closed_.reset();
    connection_.reset();
    fault_ = "the connection to the system bus was lost";
    tryAgain();
    onChange_();
}

void SystemBus::tryAgain() {
    again_.runAt(g_get_monotonic_time() + std::chrono::microseconds(pause_).count());
    pause_ = std::min(2 * pause_, kLongestPause);
}

} // namespace trilba::live
