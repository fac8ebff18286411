#include "StatusCommand.h"

#include "Client.h"
#include "ConnectionStatus.h"
#include "OptionParser.h"
#include "Output.h"
#include "StopSignals.h"

#include <optional>

namespace orvexd::ctl {
namespace {

void print(std::uint32_t status) {
    printLine(connectionStatusWords(status) + " (" + std::to_string(status) + ")");
}

/// Prints the status now and after each change, until a signal ends it.
void watch(Client& client) {
    const MainLoopRef loop{g_main_loop_new(nullptr, FALSE)};
    std::optional<Failure> failure;
    std::optional<std::uint32_t> last;
    const auto stop = [&](const Failure& why) {
        failure = why;
        g_main_loop_quit(loop.get());
    };
    // The daemon also announces the status when it has not changed.
    const auto show = [&](std::uint32_t status) {
        if (last == status) {
            return;
        }
        last = status;
        try {
            print(status);
        } catch (const Failure& why) {
            stop(why);
        }
    };
    client.onStatusChanged = show;
    client.onGone = [&] { stop(Failure::daemonGone()); };
    const StopSignals signals{[&](int /*signal*/) { g_main_loop_quit(loop.get()); }};
    show(client.connectionStatus());
    if (!failure) {
        g_main_loop_run(loop.get());
    }
    client.onStatusChanged = nullptr;
    client.onGone = nullptr;
    if (failure) {
        throw Failure{*failure};
    }
}

} // namespace

ExitStatus StatusCommand::run(const std::vector<std::string>& words) {
    bool watching = false;
    OptionParser parser{
        "status", "", "Prints the state of the device's network connection as the daemon sees it."};
    parser.setDescription("Values:\n"
                          "  0  not connected\n"
                          "  1  connected\n"
                          "  3  connected, kind 1\n"
                          "  5  connected, restricted\n");
    parser.addFlag("watch", 'w', "Go on with one line per change, until interrupted", watching);
    if (!parser.parse(words).empty()) {
        throw Failure::usage("status takes no arguments. See 'orvexctl status --help'.");
    }
    Client client;
    if (watching) {
        watch(client);
    } else {
        print(client.connectionStatus());
    }
    return ExitStatus::Success;
}

} // namespace orvexd::ctl
