#include "doctor/CheckVersions.h"

#include "doctor/Child.h"
#include "findings/Files.h"

#include <algorithm>
#include <chrono>
#include <initializer_list>
#include <set>
#include <sstream>
#include <unistd.h>
#include <vector>

namespace orvexd::ctl {
namespace {

using findings::Checked;

constexpr std::string_view kDeleted = " (deleted)";
constexpr std::string_view kLibrary = "/libtrilbacore.so";

constexpr std::chrono::seconds kVersionPatience{5};

/// What a program prints when it is asked for its version; empty when it cannot be run.
std::string outputOf(const std::string& program) {
    Child child{{program, "--version"}, {}};
    child.silence();
    return child.output(kVersionPatience);
}

/// The first word that looks like a version.
std::string versionIn(const std::string& text) {
    std::istringstream words{text};
    for (std::string word; words >> word;) {
        if (g_ascii_isdigit(word.front()) != FALSE && word.find('.') != std::string::npos) {
            return word;
        }
    }
    return {};
}

/// Files that the process has in its memory; empty when this user cannot see them.
std::set<std::string> mappedFiles(std::uint32_t pid) {
    std::set<std::string> files;
    std::istringstream lines{
        findings::textOf("/proc/" + std::to_string(pid) + "/maps").value_or("")};
    for (std::string line; std::getline(lines, line);) {
        if (const std::size_t slash = line.find('/'); slash != std::string::npos) {
            files.insert(line.substr(slash));
        }
    }
    return files;
}

void checkMappedFiles(const DaemonFacts& daemon, const Checked& report) {
    const std::set<std::string> files = mappedFiles(daemon.pid);
    if (files.empty()) {
        report.unknown("The running daemon's files cannot be seen by this user.",
                       "Ask again as root.");
        return;
    }
    for (const std::string& file : files) {
        // Shared memory and the like has no name any more, on purpose.
        const bool isCode = file.find(".so") != std::string::npos || file == daemon.program;
        if (file.ends_with(kDeleted) && isCode) {
            report.doubtful("The running daemon uses a file that was replaced or removed: " +
                                file.substr(0, file.size() - kDeleted.size()) + ".",
                            "Restart it: systemctl restart orvexd");
            return;
        }
    }
    const auto library = std::find_if(files.begin(), files.end(), [](const std::string& file) {
        return file.find(kLibrary) != std::string::npos;
    });
    report.fine(
        "The running daemon uses " +
        (library == files.end() ? std::string{"a platform library of another name"} : *library) +
        ", and no file that was replaced.");
}

void compare(const std::string& what, const std::string& version, const Checked& report) {
    if (version.empty()) {
        report.unknown(what + " does not tell its version.");
    } else if (version != ORVEXCTL_VERSION) {
        report.doubtful(what + " is of version " + version + ", orvexctl of " ORVEXCTL_VERSION ".",
                        "Install all packages of one version.");
    } else {
        report.fine(what + " and orvexctl are of version " ORVEXCTL_VERSION ".");
    }
}

void checkUnit(const UnitFacts& unit, const std::string& running, const Checked& report) {
    if (unit.needsReload) {
        report.doubtful("The unit's file has changed since the service manager read it.",
                        "systemctl daemon-reload, and restart the daemon.");
    }
    if (!running.empty() && !unit.program().empty() && running != unit.program() &&
        findings::factsOf(unit.program()).exists()) {
        report.doubtful("The running daemon is " + running + ", the unit starts " + unit.program() +
                            ".",
                        "Two installations are in each other's way; remove one.");
    }
}

std::string withoutMark(std::string path) {
    if (path.ends_with(kDeleted)) {
        path.resize(path.size() - kDeleted.size());
    }
    return path;
}

/// The first path that leads to a file; empty for none.
std::string firstFile(std::initializer_list<std::string> paths) {
    for (const std::string& path : paths) {
        if (!path.empty() && findings::factsOf(path).exists()) {
            return path;
        }
    }
    return {};
}

} // namespace

void checkVersions(const Facts& facts, const std::string& probe, const Checked& report) {
    const bool isOurs = facts.daemon && facts.daemon->uid == 0; // a stranger's is not run
    const std::string running = isOurs ? withoutMark(facts.daemon->program) : "";
    const std::string ofUnit = facts.isService() ? facts.unit->program() : "";
    if (facts.isService()) {
        checkUnit(*facts.unit, running, report);
    }
    if (const std::string program = firstFile({running, ofUnit, ORVEXCTL_DAEMON});
        !program.empty()) {
        compare(program, versionIn(outputOf(program)), report);
    } else if (!facts.daemon) {
        report.broken(std::string{"There is no "} + ORVEXCTL_DAEMON + ".",
                      "Install the package orvexd.");
    }
    if (geteuid() == 0 && findings::factsOf(probe).exists()) {
        compare(probe, versionIn(outputOf(probe)), report);
    }
    if (facts.daemon) {
        checkMappedFiles(*facts.daemon, report);
    }
}

} // namespace orvexd::ctl
