#include "probe/CheckStatus.h"

#include "network/OrvexNetworkManager.h"
#include "protocol/Codes.h"

#include <glib.h>
#include <memory>
#include <trilba/core/ISystemLocationSettings.h>
#include <trilba/core/SystemInfo.h>

namespace orvexd::probe {

namespace {

constexpr gint64 kFirstAnswer = 400'000; // microseconds
constexpr gulong kPause = 20'000;        // microseconds

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

} // namespace

PlatformView viewOfPlatform() {
    Nobody nobody;
    OrvexNetworkManager manager(nobody);
    manager.start();
    // A live source of the platform's state may have its first answer on the way.
    const gint64 patience = g_get_monotonic_time() + kFirstAnswer;
    while (manager.currentStatus() == 0 && g_get_monotonic_time() < patience) {
        if (g_main_context_iteration(nullptr, FALSE) == FALSE) {
            g_usleep(kPause);
        }
    }
    PlatformView view;
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
    if (reported && *reported != platform.status) {
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
