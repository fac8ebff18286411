#include "QuitCommand.h"

#include "Failure.h"
#include "Gateway.h"
#include "OptionParser.h"

namespace orvexd::ctl {
namespace {

/// The daemon ends its exchange before it answers, which may take one wait for data: 90 s.
constexpr std::uint32_t kQuitTimeout = 150; // seconds

} // namespace

ExitStatus QuitCommand::run(const std::vector<std::string>& words) {
    bool delayed = false;
    std::uint32_t timeout = kQuitTimeout;
    OptionParser parser{"quit", "", "Ends the daemon. Root only, by the bus policy."};
    parser.setDescription(
        "The daemon finishes a wait for data first, which may take up to 90 seconds.\n");
    parser.addFlag("delayed", 'd',
                   "Only after 60 seconds, and not if a client begins new work before", delayed);
    parser.addNumber("timeout", 'T', "Wait so long for its end, 0 is for ever (150)", "SECONDS",
                     timeout);
    if (!parser.parse(words).empty()) {
        throw Failure::usage("quit takes no arguments. See 'orvexctl quit --help'.");
    }
    Gateway{std::chrono::seconds{timeout}}.quit(delayed);
    return ExitStatus::Success;
}

} // namespace orvexd::ctl
