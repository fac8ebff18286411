#include "probe/CheckStatus.h"

#include "network/OrvexNetworkManager.h"
#include "protocol/Codes.h"

#include <Description.h>
#include <algorithm>
#include <glib.h>
#include <memory>
#include <string>
#include <trilba/core/ISystemLocationSettings.h>
#include <trilba/core/SystemInfo.h>

namespace trilba {
// Of the open library. A device's own need not have it.
// NOLINTNEXTLINE(readability-redundant-declaration): this one alone is weak
[[gnu::weak]] Description describe(network::IConnectionManager& manager);
} // namespace trilba

namespace orvexd::probe {

namespace {

constexpr gint64 kFirstAnswer = 5'000'000; // microseconds, as trilba-platform waits
constexpr gint64 kUntoldAnswer = 400'000;  // where the library does not tell that it has answered
constexpr gulong kPause = 20'000;          // microseconds

/// Nobody is told: the state is asked for once.
class Nobody : public INetworkOwner {
public:
    void onConnectionStatus(std::uint32_t /*status*/, bool /*recheck*/) override {}
    void onNetworkAvailable() override {}
    void onConnectionLost() override {}
    void requestFreshConnect() override {}
};

std::string wordsOf(std::uint32_t status) {
    std::string words = (status & StatusConnected) != 0 ? "connected" : "not connected";
    words += (status & StatusKindOne) != 0 ? ", kind 1" : "";
    words += (status & StatusFlagged) != 0 ? ", restricted" : "";
    return words + " (" + std::to_string(status) + ")";
}

/// How the platform's library comes to its answers, as far as it tells: the open one does.
class PlatformSource {
public:
    PlatformSource()
        : manager_(&trilba::describe != nullptr
                       ? trilba::network::IConnectionManager::create(nullptr)
                       : nullptr) {}

    [[nodiscard]] bool isKnown() const { return manager_ != nullptr; }

    /// Whether it has answered and means what the daemon's own manager says.
    [[nodiscard]] bool agrees(std::uint32_t status) const {
        const trilba::Description now = trilba::describe(*manager_);
        const auto& connections = now.answers.connections;
        const bool isConnected = std::any_of(connections.begin(), connections.end(),
                                             [](const auto& each) { return each.active; });
        return now.hasAnswered && isConnected == (status != 0);
    }

    [[nodiscard]] std::string name() const {
        if (!isKnown()) {
            return {};
        }
        const bool isFile = trilba::describe(*manager_).source == trilba::SourceName::File;
        return isFile ? "file" : "networkmanager";
    }

private:
    std::unique_ptr<trilba::network::IConnectionManager> manager_;
};

/// A live source has its first answer on the way. @return whether it has come.
bool awaitAnswer(const OrvexNetworkManager& manager, const PlatformSource& source) {
    const gint64 patience =
        g_get_monotonic_time() + (source.isKnown() ? kFirstAnswer : kUntoldAnswer);
    const auto isThere = [&] {
        return source.isKnown() ? source.agrees(manager.currentStatus())
                                : manager.currentStatus() != 0;
    };
    while (!isThere()) {
        if (g_get_monotonic_time() >= patience) {
            return !source.isKnown();
        }
        if (g_main_context_iteration(nullptr, FALSE) == FALSE) {
            g_usleep(kPause);
        }
    }
    return true;
}

} // namespace

PlatformView viewOfPlatform() {
    Nobody nobody;
    OrvexNetworkManager manager(nobody);
    manager.start();
    PlatformSource source;
    const bool answered = awaitAnswer(manager, source);
    PlatformView view;
    view.answered = answered;
    view.source = source.name();
    view.status = manager.currentStatus();
    view.proxy = manager.proxyFor();
    const std::unique_ptr<trilba::core::ISystemLocationSettings> location(
        trilba::core::ISystemLocationSettings::create());
    view.permitted = location == nullptr || location->isNetworkPositioningPermitted();
    trilba::core::SystemInfo::getImei(view.imei);
    return view;
}

void checkStatus(const PlatformView& platform, std::optional<std::uint32_t> reported,
                 const findings::Checked& report) {
    const std::string words = wordsOf(platform.status);
    if (!platform.permitted) {
        report.broken("The platform does not permit network positioning: every request ends with "
                      "code 2205.",
                      "NetworkPositioning=true in [Location] of the platform file permits it.");
    }
    if (!platform.answered) {
        report.unknown("The platform has not said within 5 s whether the device is connected.",
                       "Ask again; trilba-platform shows what it waits for.");
    } else if (reported && *reported != platform.status) {
        report.broken("The daemon reports " + wordsOf(*reported) + ", but the platform says " +
                          words + ".",
                      "The daemon keeps to the last good state of a faulty platform file, and may "
                      "read another file; restart it if both are in order.");
    } else if (platform.status == 0) {
        report.broken("The platform says that the device is not connected.",
                      "Without an active connection every request ends with code 2204. Connect the "
                      "device, or mend what the platform says.");
    } else if ((platform.status & StatusFlagged) != 0) {
        report.doubtful("The platform says " + words + ": requests of policy 2 or less fail.",
                        "Such requests wait for another connection; policy 3 takes every one.");
    } else {
        report.fine("The platform says " + words + (reported ? ", and so does the daemon." : "."));
    }
}

} // namespace orvexd::probe
