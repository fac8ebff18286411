// Looks for what keeps the daemon from its work, with the daemon's own files, key and road. It is
// root's: what it knows is as secret as what the daemon knows.

#include "findings/Files.h"
#include "findings/Finding.h"
#include "findings/Identity.h"
#include "findings/Privileges.h"
#include "http/TransferOptions.h"
#include "orvexctl/Printable.h"
#include "probe/CheckExchange.h"
#include "probe/CheckFiles.h"
#include "probe/CheckRoad.h"
#include "probe/CheckSchema.h"
#include "probe/CheckStatus.h"
#include "probe/Options.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <curl/curl.h>
#include <optional>
#include <string_view>
#include <trilba/Debug.h>
#include <trilba/core/Directory.h>
#include <trilba/core/SystemInfo.h>
#include <unistd.h>

namespace {

using namespace orvexd;        // NOLINT(google-build-using-namespace): this is the program
using namespace orvexd::probe; // NOLINT(google-build-using-namespace)
using findings::Checked;
using findings::Finding;
using findings::State;
using findings::Variables;

void printJson(const Finding& finding) {
    std::puts(findings::toJson(finding).c_str());
    std::fflush(stdout);
}

/// NAME=value, one behind the other with NUL between them.
Variables variablesOf(std::string_view block) {
    Variables variables;
    while (!block.empty()) {
        const std::string_view entry = block.substr(0, block.find('\0'));
        if (const std::size_t equals = entry.find('='); equals != std::string_view::npos) {
            variables.emplace(entry.substr(0, equals), entry.substr(equals + 1));
        }
        block.remove_prefix(std::min(entry.size() + 1, block.size()));
    }
    return variables;
}

std::optional<Variables> variablesOfDaemon(const Options& options) {
    if (!options.daemon) {
        return std::nullopt;
    }
    const auto block = findings::textOf("/proc/" + std::to_string(*options.daemon) + "/environ");
    return block ? std::optional(variablesOf(*block)) : std::nullopt;
}

Variables ownVariables() {
    Variables variables;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        variables.merge(variablesOf(*entry));
    }
    return variables;
}

void checkImei(const PlatformView& platform, const Checked& report) {
    if (platform.imei == findings::kExampleImei) {
        report.broken("The platform names the example's IMEI, which is no device's.",
                      "Write the device's own into the platform file. The identity that the "
                      "server sees comes from there, not from the five variables.");
    }
}

/// On one line, whatever is in the files.
void complain(const char* who, const Finding& finding) {
    std::fprintf(stderr, "%s: %s %s\n", who, ctl::printable(finding.why).c_str(),
                 ctl::printable(finding.advice).c_str());
}

/// What the service manager asks before it starts the daemon.
int check(const std::string& files) {
    int status = 0;
    const findings::Report print = [&](const Finding& finding) {
        if (finding.state == State::Broken) {
            complain("orvexd cannot work", finding);
            status = 1;
        } else if (finding.state == State::Doubtful) {
            complain("orvexd", finding);
        }
    };
    findings::checkVariables(ownVariables(), "the environment", Checked("identity", print));
    // The sandbox that hides a file is around this program, too.
    (void)checkFiles(files, false, Checked("files", print));
    checkSchema(files, Checked("schema", print));
    PlatformView platform;
    trilba::core::SystemInfo::getImei(platform.imei);
    checkImei(platform, Checked("platform", print));
    return status;
}

void lookAtLocalThings(const std::string& files, const Options& options) {
    const findings::Report print = &printJson;
    findings::checkIdentityFile(options.identityFile, variablesOfDaemon(options),
                                Checked("identity", print));
    // The service manager reads that file with all of its privileges, the daemon the others.
    const findings::WithoutCapabilities asTheService(options.sandboxed);
    const Identity identity = checkFiles(files, options.sandboxed, Checked("files", print));
    checkDates(identity, files, Checked("dates", print));
    checkSchema(files, Checked("schema", print));
    const PlatformView platform = viewOfPlatform();
    if (!platform.source.empty()) {
        std::puts(findings::sourceToJson(platform.source).c_str());
    }
    checkStatus(platform, options.reportedStatus, Checked("status", print));
}

/// libcurl would wait for a FIFO in a file's place for ever.
bool areFiles(const std::string& files, const findings::Report& report) {
    constexpr std::array kNames = {TransferOptions::kCertificate, TransferOptions::kKey,
                                   TransferOptions::kAuthority};
    const auto* const odd = std::find_if(kNames.begin(), kNames.end(), [&](const char* name) {
        const findings::FileFacts facts = findings::factsOf(files + name);
        return facts.exists() && !facts.isRegular();
    });
    if (odd == kNames.end()) {
        return true;
    }
    Checked("tls", report)
        .broken("Not tried: " + files + *odd + " is no regular file.",
                "See the findings about files.");
    return false;
}

void lookAtTheNetwork(const std::string& files, const Options& options) {
    const findings::Report print = &printJson;
    const findings::WithoutCapabilities asTheService(options.sandboxed);
    if (!areFiles(files, print)) {
        return;
    }
    const Destination destination{files, viewOfPlatform().proxy, options.patience};
    const bool open = checkRoad(destination, print);
    const Checked exchange("exchange", print);
    if (options.exchange && open) {
        checkExchange(destination, exchange, Checked("dates", print));
    } else if (options.exchange) {
        exchange.unknown("Not sent: the way to the server is not open.");
    }
}

int run(const Options& options) {
    if (!options.preinstDirectory.empty()) {
        trilba::core::Directory::setPreinstalledFilesPath(options.preinstDirectory);
    }
    const std::string files = trilba::core::Directory::getPreinstalledFilesPath();
    switch (options.task) {
    case Options::Task::Check:
        return check(files);
    case Options::Task::Local:
        lookAtLocalThings(files, options);
        break;
    case Options::Task::Network:
        lookAtTheNetwork(files, options);
        break;
    }
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    const Options options = readOptions(argc, argv);
    if (geteuid() != 0) {
        std::fputs("orvexd-probe: this is for root only\n", stderr);
        return 1;
    }
    trilba::Debug::init();
    curl_global_init(CURL_GLOBAL_SSL);
    const int status = run(options);
    if (options.task != Options::Task::Check) {
        std::printf("%s\n", std::string(findings::kDone).c_str());
    }
    curl_global_cleanup();
    trilba::Debug::release();
    return status;
}
