#include "doctor/CheckBus.h"

#include "findings/Files.h"

#include <algorithm>
#include <cstdlib>
#include <grp.h>
#include <string>
#include <unistd.h>
#include <vector>

namespace orvexd::ctl {
namespace {

using findings::Checked;

constexpr const char* kGroup = "positioning";
constexpr const char* kPolicy = "/dbus-1/system.d/com.kelvra.orvexd.conf";

constexpr const char* kUnreadFolder = "/usr/local/share"; // an installation's own, and no bus's

/// Where every system bus reads policies.
std::string policyFile() {
    for (const char* folder : {"/etc", "/usr/share"}) {
        if (std::string path = std::string{folder} + kPolicy; findings::factsOf(path).exists()) {
            return path;
        }
    }
    return {};
}

bool isPrivateBus() {
    const char* address = std::getenv("DBUS_SYSTEM_BUS_ADDRESS");
    return address != nullptr && *address != '\0';
}

bool isMember(gid_t group) {
    std::vector<gid_t> groups(static_cast<std::size_t>(std::max(getgroups(0, nullptr), 0)));
    const int count = getgroups(static_cast<int>(groups.size()), groups.data());
    groups.resize(static_cast<std::size_t>(std::max(count, 0)));
    groups.push_back(getegid());
    return std::find(groups.begin(), groups.end(), group) != groups.end();
}

void checkInstalledFiles(const Facts& facts, const Checked& report) {
    if (isPrivateBus()) {
        report.unknown("DBUS_SYSTEM_BUS_ADDRESS names a bus of its own: what it reads is not "
                       "known.");
        return;
    }
    const std::string unread = std::string{kUnreadFolder} + kPolicy;
    if (const std::string policy = policyFile(); !policy.empty()) {
        report.fine("The bus policy is " + policy + ".");
    } else if (findings::factsOf(unread).exists()) {
        report.broken("The bus policy is " + unread +
                          ", where no system bus reads it: the daemon gets no name and nobody may "
                          "call it.",
                      "ln -s " + unread + " /etc/dbus-1/system.d/ && systemctl reload dbus");
    } else {
        report.broken("No policy for com.kelvra.orvexd is installed where the system bus reads it: "
                      "the daemon gets no name and nobody may call it.",
                      "Install com.kelvra.orvexd.conf in /usr/share/dbus-1/system.d.");
    }
    if (!facts.activatable) {
        report.doubtful("The bus does not know how to start the daemon: clients' calls do not.",
                        "Install com.kelvra.orvexd.service in "
                        "/usr/share/dbus-1/system-services, and reload the bus.");
    }
}

void checkGroup(const Checked& report) {
    const group* found = getgrnam(kGroup);
    if (found == nullptr && !isPrivateBus()) {
        report.broken("There is no group positioning: none but root may call the daemon.",
                      "systemd-sysusers orvexd.conf, or: addgroup --system positioning");
    } else if (found != nullptr && getuid() != 0 && !isMember(found->gr_gid)) {
        report.doubtful("This user is not in the group positioning.",
                        "adduser USER positioning; it counts from the next login on.");
    }
}

void checkUnit(const UnitFacts& unit, const Checked& report) {
    const std::string state = "The unit is " + unit.activeState + " (" + unit.subState + ")";
    const std::string restarts =
        unit.restarts == 0 ? "" : " after " + std::to_string(unit.restarts) + " restarts";
    if (unit.loadState == "masked") {
        report.broken("The unit is masked: nobody can start it.",
                      "systemctl unmask orvexd, and then: systemctl start orvexd");
    } else if (!unit.isLoaded()) {
        report.doubtful("There is no orvexd.service, or it cannot be read: " + unit.loadState + ".",
                        "Install the unit, and then: systemctl daemon-reload");
    } else if (unit.activeState == "failed" || unit.subState == "auto-restart") {
        report.broken(state + restarts + ": " + endInWords(unit) + ".",
                      "Mend what is broken, and then: systemctl reset-failed orvexd; systemctl "
                      "start orvexd. 'journalctl -u orvexd' has what was said before its start.");
    } else if (unit.restarts != 0) {
        report.doubtful(state + restarts + ".", "'coredumpctl' may know why it ended.");
    } else {
        report.fine(state + ".");
    }
}

/// The probe goes to the server without these.
void checkNetworkLimits(const UnitFacts& unit, const Checked& report) {
    for (const std::string& setting : unit.networkLimits) {
        report.doubtful("The unit has " + setting +
                            ", which may keep the daemon from the network. What is said below of "
                            "the way to the server is without it.",
                        "Look at it with 'systemctl cat orvexd', and try a request.");
    }
}

void checkOwner(const Facts& facts, const Checked& report) {
    if (facts.daemon) {
        const DaemonFacts& daemon = *facts.daemon;
        const std::string who = "Process " + std::to_string(daemon.pid) + " owns the name" +
                                (daemon.program.empty() ? "" : ", " + daemon.program);
        if (daemon.uid == 0) {
            report.fine(who + ".");
        } else {
            report.broken(who + ", as user " + std::to_string(daemon.uid) + ": it is no orvexd.",
                          "End it; the policy should let root alone have the name.");
        }
    } else if (facts.activatable) {
        report.doubtful("Nobody owns the name: the daemon does not run. A call starts it.",
                        "If it does not start: systemctl status orvexd");
    } else {
        report.broken("Nobody owns the name: the daemon does not run.",
                      "systemctl status orvexd, or start it with its five variables as root.");
    }
}

void checkCall(const Facts& facts, const Checked& report) {
    if (facts.callDenied) {
        report.broken("The bus does not let this user call the daemon: " + facts.callFault + ".",
                      "Only root and the members of group positioning may; a policy that was "
                      "installed a moment ago has to be reloaded: systemctl reload dbus");
    } else if (!facts.callFault.empty()) {
        report.broken("The daemon does not answer: " + facts.callFault + ".",
                      "Look at 'systemctl status orvexd'.");
    } else if (facts.daemon) {
        report.fine("This user may call the daemon, and it answers.");
    }
}

} // namespace

void checkBus(const Facts& facts, const Checked& report) {
    if (!facts.bus) {
        report.broken("The system bus cannot be reached: " + facts.busFault + ".",
                      "Start it: systemctl start dbus. DBUS_SYSTEM_BUS_ADDRESS names another.");
        return;
    }
    checkInstalledFiles(facts, report);
    checkGroup(report);
    if (facts.unit) {
        checkUnit(*facts.unit, report);
        checkNetworkLimits(*facts.unit, report);
    } else {
        report.unknown("No service manager answers on this bus.");
    }
    checkOwner(facts, report);
    checkCall(facts, report);
}

} // namespace orvexd::ctl
