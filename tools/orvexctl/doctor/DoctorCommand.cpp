#include "doctor/DoctorCommand.h"

#include "ConnectionStatus.h"
#include "Failure.h"
#include "OptionParser.h"
#include "doctor/CheckBus.h"
#include "doctor/CheckVersions.h"
#include "doctor/Facts.h"
#include "doctor/Findings.h"
#include "doctor/PlatformTool.h"
#include "doctor/Probe.h"
#include "findings/Files.h"
#include "findings/PlatformCheck.h"
#include "findings/Privileges.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <unistd.h>

namespace orvexd::ctl {
namespace {

using findings::Checked;
using findings::Report;

constexpr const char* kPlatformVariable = "TRILBA_PLATFORM_CONF";
constexpr const char* kPlatformFile = "/etc/trilba/platform.conf";
constexpr const char* kBusVariable = "DBUS_SYSTEM_BUS_ADDRESS";
constexpr const char* kKeyLogVariable = "SSLKEYLOGFILE";
constexpr const char* kSearchPath = "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin";
constexpr std::uint32_t kLongestWait = 600; // seconds
constexpr std::chrono::seconds kBusPatience{5};
constexpr std::chrono::seconds kToolPatience{10}; // it waits for 5 s itself
constexpr std::chrono::seconds kLocalPatience{30};
/// What the probe may take besides its waits for the connection and for an answer.
constexpr std::chrono::seconds kNetworkSlack{30};
constexpr std::chrono::seconds kDaemonsPatience{90}; // connection and answer

struct DoctorOptions {
    bool json = false;
    bool exchange = false;
    bool local = false;
    std::string preinstDirectory;
    std::string identityFile = ORVEXCTL_IDENTITY;
    std::uint32_t timeout = 0; // seconds; 0 for the daemon's own
};

DoctorOptions parse(const std::vector<std::string>& words) {
    DoctorOptions options;
    OptionParser parser{"doctor", "",
                        "Walks down the road of a request, from the device's identity to the "
                        "server, and says\nfor each thing whether it is fine, doubtful or broken, "
                        "why, and what to do. It changes\nnothing."};
    parser.setDescription("Only root sees everything. The exit status is 0, 1 when something is "
                          "doubtful, or 2 when\nsomething is broken.\n");
    parser.addFlag("exchange", 'x', "Send one real request, an empty fingerprint",
                   options.exchange);
    parser.addFlag("local", 'l', "Look at this device only, and call nobody", options.local);
    parser.addFlag("json", 'j', "Print one JSON object per line", options.json);
    parser.addNumber("timeout", 'T', "Longest wait for the connection and for the answer (30, 60)",
                     "SECONDS", options.timeout, 1, kLongestWait);
    parser.addText("preinst-dir", 0, "Where the daemon's certificates and its configuration are",
                   "DIR", options.preinstDirectory);
    parser.addText("identity", 0, "The file of the five variables", "FILE", options.identityFile);
    if (!parser.parse(words).empty()) {
        throw Failure::usage("doctor takes no arguments. See 'orvexctl doctor --help'.");
    }
    if (options.local && options.exchange) {
        throw Failure::usage("--local and --exchange exclude each other.");
    }
    return options;
}

class Doctor {
public:
    Doctor(const DoctorOptions& options, const Report& report)
        : options_{options},
          report_{report},
          facts_{gatherFacts(atMost(kBusPatience))},
          environment_{environment()},
          probe_{Probe::find(), environment_},
          preinstDirectory_{directory()} {}

    void run() {
        const bool root = geteuid() == 0;
        if (root) {
            probe_.run(localArguments(), kLocalPatience, report_);
        } else {
            lookFromOutside();
        }
        lookAtThePlatform();
        checkBus(facts_, Checked{"bus", report_});
        checkVersions(facts_, Probe::find(), Checked{"versions", report_});
        if (root && !options_.local) {
            probe_.run(networkArguments(), networkPatience(), report_);
        } else if (!options_.local) {
            skipTheNetwork();
        }
    }

private:
    /// The daemon's, or what it would be given; this program's own for those who cannot see it.
    /// What the shell has in its environment would lead another way than the daemon's.
    [[nodiscard]] Child::Environment environment() const {
        if (facts_.daemon && facts_.daemon->environment) {
            Child::Environment variables = *facts_.daemon->environment;
            variables.erase(kKeyLogVariable); // nothing is written
            return variables;
        }
        Child::Environment variables{{"PATH", kSearchPath}};
        const std::vector<const char*> own = geteuid() == 0
                                                 ? std::vector{kBusVariable}
                                                 : std::vector{kBusVariable, kPlatformVariable};
        for (const char* name : own) {
            if (const char* value = std::getenv(name); value != nullptr) {
                variables[name] = value;
            }
        }
        if (geteuid() == 0) {
            addVariablesOfService(variables);
        }
        return variables;
    }

    void addVariablesOfService(Child::Environment& variables) const {
        std::vector<std::string> files;
        if (facts_.isService()) {
            for (const auto& [name, value] : facts_.unit->environment) {
                variables[name] = value;
            }
            files = facts_.unit->environmentFiles;
        }
        if (files.empty()) {
            files.push_back(options_.identityFile);
        }
        for (const std::string& file : files) {
            for (const auto& [name, value] :
                 findings::readEnvironment(findings::textOf(file).value_or("")).variables) {
                variables[name] = value;
            }
        }
    }

    [[nodiscard]] std::string platformFile() const {
        const auto found = environment_.find(kPlatformVariable);
        return found != environment_.end() && !found->second.empty() ? found->second
                                                                     : kPlatformFile;
    }

    void lookAtThePlatform() const {
        const Checked platform{"platform", report_};
        const bool explained =
            tellPlatform(environment_, facts_.isService(), atMost(kToolPatience), platform) ||
            isElsewhere(platform);
        if (!explained && geteuid() != 0 && findings::factsOf(platformFile()).error == ENOENT) {
            platform.unknown("There is no " + platformFile() +
                                 "; the platform's answers may come from somewhere else.",
                             "Ask again as root, or install the package trilba-platform.");
            return;
        }
        const findings::WithoutCapabilities asTheService{facts_.isService()};
        findings::checkPlatformFile(platformFile(), facts_.isService(), explained, platform);
    }

    /// Whether the platform's answers come from somewhere else than its file, which is said then.
    [[nodiscard]] bool isElsewhere(const Checked& platform) const {
        if (probe_.source().empty() || probe_.source() == "file") {
            return false;
        }
        platform.unknown("The platform's answers come from " + probe_.source() + ".",
                         "trilba-platform shows them; it is in the package trilba-platform.");
        return true;
    }

    /// Where the daemon is, or would be, told to look; the last of its options counts.
    [[nodiscard]] std::string directory() const {
        if (!options_.preinstDirectory.empty()) {
            return options_.preinstDirectory;
        }
        std::vector<std::string> words;
        if (facts_.daemon) {
            words = facts_.daemon->arguments;
        } else if (facts_.isService()) {
            words = facts_.unit->arguments;
        }
        std::string found;
        for (std::size_t i = 0; i + 1 < words.size(); ++i) {
            if (words[i] == "--preinst-dir") {
                found = words[++i];
            }
        }
        return found;
    }

    [[nodiscard]] std::chrono::seconds atMost(std::chrono::seconds patience) const {
        const std::chrono::seconds asked{options_.timeout};
        return options_.timeout == 0 ? patience : std::min(asked, patience);
    }

    [[nodiscard]] std::chrono::seconds networkPatience() const {
        const std::chrono::seconds asked{2L * options_.timeout};
        return kNetworkSlack + (options_.timeout == 0 ? kDaemonsPatience : asked);
    }

    [[nodiscard]] std::vector<std::string> commonArguments(const char* task) const {
        std::vector<std::string> words{task};
        if (!preinstDirectory_.empty()) {
            words.insert(words.end(), {"--preinst-dir", preinstDirectory_});
        }
        if (facts_.isService()) {
            words.emplace_back("--sandboxed");
        }
        return words;
    }

    [[nodiscard]] std::vector<std::string> localArguments() const {
        std::vector<std::string> words = commonArguments("--local");
        words.insert(words.end(), {"--identity", options_.identityFile});
        if (facts_.daemon && facts_.daemon->uid == 0) {
            words.insert(words.end(), {"--daemon", std::to_string(facts_.daemon->pid)});
        }
        if (facts_.status) {
            words.insert(words.end(), {"--status", std::to_string(*facts_.status)});
        }
        return words;
    }

    [[nodiscard]] std::vector<std::string> networkArguments() const {
        std::vector<std::string> words = commonArguments("--network");
        if (options_.exchange) {
            words.emplace_back("--exchange");
        }
        if (options_.timeout != 0) {
            words.insert(words.end(), {"--timeout", std::to_string(options_.timeout)});
        }
        return words;
    }

    /// What an ordinary user can see of the things that are root's.
    void lookFromOutside() const {
        findings::checkIdentityFile(options_.identityFile, std::nullopt,
                                    Checked{"identity", report_});
        const Checked files{"files", report_};
        const std::string folder =
            preinstDirectory_.empty() ? ORVEXCTL_PREINST_DIR : preinstDirectory_;
        for (const char* name : {"/SlpClient.pem", "/SlpClient-key.pem", "/Positioning_CA.pem"}) {
            const findings::FileFacts facts = findings::factsOf(folder + name);
            if (facts.error == EACCES) {
                files.unknown(folder + name + " cannot be seen by this user.",
                              "Ask again as root.");
            } else if (!facts.exists()) {
                files.broken(folder + name + " cannot be found: " + facts.reason() + ".",
                             "Install the device's own file there, owned by root, with mode 0600.");
            } else if (facts.owner != 0) {
                files.doubtful(folder + name + " does not belong to root.",
                               "chown root:root " + folder + name);
            }
        }
        for (const char* check : {"files", "dates", "schema"}) {
            Checked{check, report_}.unknown("Only root sees what is in the daemon's files.",
                                            "Ask again as root.");
        }
        tellStatus();
    }

    void tellStatus() const {
        const Checked status{"status", report_};
        if (!facts_.status) {
            status.unknown("The daemon does not tell its connection status.");
        } else if (*facts_.status == 0) {
            status.broken("The daemon reports: " + connectionStatusWords(*facts_.status) + ".",
                          "Without an active connection every request ends with code 2204.");
        } else {
            status.fine("The daemon reports: " + connectionStatusWords(*facts_.status) + ".");
        }
    }

    void skipTheNetwork() const {
        for (const char* check : {"names", "connection", "tls"}) {
            Checked{check, report_}.unknown("Only root may go the daemon's way to the server.",
                                            "Ask again as root.");
        }
        if (options_.exchange) {
            Checked{"exchange", report_}.unknown("Only root may send a request with the daemon's "
                                                 "identity.",
                                                 "Ask again as root.");
        }
    }

    const DoctorOptions& options_;
    const Report& report_;
    Facts facts_;
    Child::Environment environment_;
    Probe probe_;
    std::string preinstDirectory_;
};

ExitStatus runAsTold(const DoctorOptions& options) {
    Findings found{options.json};
    const Report report = [&](const findings::Finding& finding) { found.add(finding); };
    Doctor{options, report}.run();
    found.conclude();
    return found.status();
}

/// 1 and 2 are verdicts here, so its own failures need other numbers.
ExitStatus statusOf(const Failure& failure) {
    switch (failure.status()) {
    case ExitStatus::Local:
        return ExitStatus::DoctorNotHeard;
    case ExitStatus::Usage:
        return ExitStatus::DoctorMisused;
    default:
        return failure.status();
    }
}

} // namespace

ExitStatus DoctorCommand::run(const std::vector<std::string>& words) {
    try {
        return runAsTold(parse(words));
    } catch (const Failure& failure) {
        throw Failure{statusOf(failure), failure.text()};
    }
}

} // namespace orvexd::ctl
