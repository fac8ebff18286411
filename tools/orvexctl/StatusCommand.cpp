#include "StatusCommand.h"

#include "Bus.h"
#include "ConnectionStatus.h"
#include "OptionParser.h"
#include "Output.h"
#include "StartWatch.h"
#include "StatusWatch.h"
#include "Wait.h"

#include <optional>
#include <orvexclient.h>

namespace orvexd::ctl {
namespace {

constexpr std::uint32_t kStatusTimeout = 25; // seconds

constexpr const char* kValues =
    "Values:\n"
    "  0  not connected\n"
    "  1  connected\n"
    "  3  connected, kind 1\n"
    "  5  connected, restricted\n"
    "\n"
    "JSON objects have the members time, running, and while the daemon runs\n"
    "status (the value), words, connected, kindOne, restricted.\n";

struct Options {
    bool watch = false;
    bool json = false;
    std::chrono::seconds timeout{kStatusTimeout};
};

Options parse(const std::vector<std::string>& words) {
    Options options;
    std::uint32_t timeout = kStatusTimeout;
    OptionParser parser{
        "status", "", "Prints the state of the device's network connection as the daemon sees it."};
    parser.setDescription(kValues);
    parser.addFlag("watch", 'w', "Go on with one line per change, until interrupted",
                   options.watch);
    parser.addFlag("json", 'j', "Print one JSON object per line", options.json);
    parser.addNumber("timeout", 'T', "Give up when the first answer takes so long, 0 is never (25)",
                     "SECONDS", timeout);
    if (!parser.parse(words).empty()) {
        throw Failure::usage("status takes no arguments. See 'orvexctl status --help'.");
    }
    options.timeout = std::chrono::seconds{timeout};
    return options;
}

/// Asks the daemon, which is started if need be.
std::uint32_t query(OrvexClient* client, Wait& wait) {
    std::optional<StartWatch> start;
    if (orvex_client_get_running(client) == FALSE) {
        start.emplace(orvex_client_get_connection(client),
                      [&](const Failure& why) { wait.giveUp(why); });
    }
    for (;;) {
        ErrorSlot error;
        OrvexStatus status{};
        const Awaited what =
            orvex_client_get_running(client) != FALSE ? Awaited::Daemon : Awaited::Start;
        orvex_client_query_status_async(client, wait.cancellable(), Wait::finished, &wait);
        if (orvex_client_query_status_finish(client, wait.run(what), &status, error.out()) !=
            FALSE) {
            return status;
        }
        if (error->code == ORVEX_ERROR_START_FAILED && start) {
            throw Failure{start->failure(Failure::fromLibrary(*error))};
        }
        // The library has a limit of its own, which a longer one goes beyond.
        if (!g_error_matches(&*error, ORVEX_ERROR, ORVEX_ERROR_TIMED_OUT)) {
            throw Failure::fromLibrary(*error);
        }
    }
}

} // namespace

ExitStatus StatusCommand::run(const std::vector<std::string>& words) {
    const Options options = parse(words);
    const auto show = [&](std::optional<std::uint32_t> status) {
        printLine(connectionStatusLine(status, options.json));
    };
    Wait wait{options.timeout};
    const ObjectRef<OrvexClient> client = makeClient(wait);
    const std::uint32_t status = query(client.get(), wait);
    if (options.watch) {
        StatusWatch{client.get(), show}.run(status);
    } else {
        show(status);
    }
    return ExitStatus::Success;
}

} // namespace orvexd::ctl
