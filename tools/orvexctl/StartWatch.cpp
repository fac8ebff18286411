#include "StartWatch.h"

#include "doctor/UnitFacts.h"

#include <algorithm>
#include <array>
#include <string_view>

namespace orvexd::ctl {
namespace {

constexpr const char* kManager = "org.freedesktop.systemd1";
constexpr const char* kManagerPath = "/org/freedesktop/systemd1";
constexpr const char* kManagerInterface = "org.freedesktop.systemd1.Manager";
constexpr std::string_view kUnit = "orvexd.service";
constexpr int kSubscribing = 2000; // milliseconds

/// What may come of a job that starts nothing.
constexpr std::array<std::string_view, 4> kFailures{"failed", "timeout", "dependency", "canceled"};

bool isFailure(std::string_view result) {
    return std::ranges::find(kFailures, result) != kFailures.end();
}

std::string reasonOf(const UnitFacts& unit) {
    if (unit.loadState == "masked") {
        return "the unit is masked. 'systemctl unmask orvexd' allows it to start again.";
    }
    if (!unit.isLoaded()) {
        return "the unit cannot be read: " + unit.loadState +
               ". 'systemctl status orvexd' tells more.";
    }
    return endInWords(unit) +
           ". 'journalctl -u orvexd' has what was said before its start, 'orvexctl doctor' checks "
           "the same and more; mend that, and then: systemctl reset-failed orvexd.";
}

} // namespace

StartWatch::StartWatch(GDBusConnection* bus, Handler failed)
    : bus_{G_DBUS_CONNECTION(g_object_ref(bus))}, failed_{std::move(failed)} {
    subscribe();
}

StartWatch::~StartWatch() {
    if (subscription_ != 0) {
        g_dbus_connection_signal_unsubscribe(bus_.get(), subscription_);
    }
}

/// The manager tells what becomes of its jobs only when it was asked to.
void StartWatch::subscribe() {
    const VariantRef answer{g_dbus_connection_call_sync(
        bus_.get(), kManager, kManagerPath, kManagerInterface, "Subscribe", nullptr, nullptr,
        G_DBUS_CALL_FLAGS_NO_AUTO_START, kSubscribing, nullptr, nullptr)};
    if (answer != nullptr) {
        subscription_ = g_dbus_connection_signal_subscribe(
            bus_.get(), kManager, kManagerInterface, "JobRemoved", kManagerPath, nullptr,
            G_DBUS_SIGNAL_FLAGS_NONE, jobRemoved, this, nullptr);
    }
}

void StartWatch::jobRemoved(GDBusConnection* /*bus*/, const char* /*sender*/, const char* /*path*/,
                            const char* /*interface*/, const char* /*name*/, GVariant* arguments,
                            gpointer self) noexcept {
    if (g_variant_is_of_type(arguments, G_VARIANT_TYPE("(uoss)")) == FALSE) {
        return;
    }
    const char* unit = nullptr;
    const char* result = nullptr;
    g_variant_get(arguments, "(uo&s&s)", nullptr, nullptr, &unit, &result);
    if (unit != kUnit || !isFailure(result)) {
        return;
    }
    const auto& watch = *static_cast<StartWatch*>(self);
    watch.failed_(watch.failure(Failure::startFailed(result)));
}

Failure StartWatch::failure(const Failure& otherwise) const {
    const std::optional<UnitFacts> unit =
        subscription_ != 0 ? gatherUnit(bus_.get()) : std::nullopt;
    if (!unit || (unit->isLoaded() && unit->result == "success")) {
        return otherwise;
    }
    return {ExitStatus::NoDaemon, "The daemon does not start: " + reasonOf(*unit)};
}

} // namespace orvexd::ctl
