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

#include <array>
#include <cstdlib>
#include <unistd.h>

namespace orvexd::ctl {
namespace {

using findings::Checked;
using findings::Report;

constexpr const char* kPlatformVariable = "TRILBA_PLATFORM_CONF";
constexpr const char* kPlatformFile = "/etc/trilba/platform.conf";
constexpr std::uint32_t kLongestWait = 600; // seconds

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
          facts_{gatherFacts()},
          probeFile_{Probe::find()},
          preinstDirectory_{directory()},
          platformFile_{platformFile()} {}

    void run() const {
        const bool root = geteuid() == 0;
        if (root) {
            runProbe(localArguments());
        } else {
            lookFromOutside();
        }
        const Checked platform{"platform", report_};
        const bool explained = tellPlatform(platformVariable(), platform);
        findings::checkPlatformFile(platformFile_, facts_.isService(), explained, platform);
        checkBus(facts_, Checked{"bus", report_});
        checkVersions(facts_, probeFile_, Checked{"versions", report_});
        if (root && !options_.local) {
            runProbe(networkArguments());
        } else if (!options_.local) {
            skipTheNetwork();
        }
    }

private:
    /// Of the running daemon; empty for none.
    [[nodiscard]] std::string variable(const char* name) const {
        if (!facts_.daemon || !facts_.daemon->environment) {
            return {};
        }
        const auto found = facts_.daemon->environment->find(name);
        return found == facts_.daemon->environment->end() ? "" : found->second;
    }

    [[nodiscard]] std::string platformFile() const {
        if (std::string path = variable(kPlatformVariable); !path.empty()) {
            return path;
        }
        const char* own = std::getenv(kPlatformVariable);
        return own != nullptr && *own != '\0' ? own : kPlatformFile;
    }

    /// What the variable has to be for a program to see the daemon's platform; empty for unset.
    [[nodiscard]] std::string platformVariable() const {
        return platformFile_ == kPlatformFile ? "" : platformFile_;
    }

    /// Where the running daemon was told to look; the last of its options counts.
    [[nodiscard]] std::string directory() const {
        std::string found = options_.preinstDirectory;
        if (found.empty() && facts_.daemon) {
            const std::vector<std::string>& words = facts_.daemon->arguments;
            for (std::size_t i = 0; i + 1 < words.size(); ++i) {
                if (words[i] == "--preinst-dir") {
                    found = words[++i];
                }
            }
        }
        return found;
    }

    [[nodiscard]] std::vector<std::string> commonArguments(const char* task) const {
        std::vector<std::string> words{task};
        if (!preinstDirectory_.empty()) {
            words.insert(words.end(), {"--preinst-dir", preinstDirectory_});
        }
        return words;
    }

    [[nodiscard]] std::vector<std::string> localArguments() const {
        std::vector<std::string> words = commonArguments("--local");
        words.insert(words.end(), {"--identity", options_.identityFile});
        if (facts_.daemon) {
            words.insert(words.end(), {"--daemon", std::to_string(facts_.daemon->pid)});
        }
        if (facts_.status) {
            words.insert(words.end(), {"--status", std::to_string(*facts_.status)});
        }
        if (facts_.isService()) {
            words.emplace_back("--sandboxed");
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

    void runProbe(const std::vector<std::string>& arguments) const {
        const Probe probe{probeFile_, platformVariable()};
        if (!probe.run(arguments, report_)) {
            Checked{"probe", report_}.broken(probeFile_ + " could not be run to its end.",
                                             "Install the package orvexd of this version.");
        }
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
            if (!facts.exists()) {
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
    std::string probeFile_;
    std::string preinstDirectory_;
    std::string platformFile_;
};

} // namespace

ExitStatus DoctorCommand::run(const std::vector<std::string>& words) {
    const DoctorOptions options = parse(words);
    Findings found{options.json};
    const Report report = [&](const findings::Finding& finding) { found.add(finding); };
    Doctor{options, report}.run();
    found.conclude();
    return found.status();
}

} // namespace orvexd::ctl
