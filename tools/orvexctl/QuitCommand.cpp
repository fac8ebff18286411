#include "QuitCommand.h"

#include "Failure.h"
#include "Gateway.h"
#include "OptionParser.h"

namespace orvexd::ctl {

ExitStatus QuitCommand::run(const std::vector<std::string>& words) {
    bool delayed = false;
    OptionParser parser{"quit", "", "Ends the daemon. Root only, by the bus policy."};
    parser.setDescription(
        "The daemon finishes a wait for data first, which may take up to 90 seconds.\n");
    parser.addFlag("delayed", 'd',
                   "Only after 60 seconds, and not if a client begins new work before", delayed);
    if (!parser.parse(words).empty()) {
        throw Failure::usage("quit takes no arguments. See 'orvexctl quit --help'.");
    }
    Gateway{}.quit(delayed);
    return ExitStatus::Success;
}

} // namespace orvexd::ctl
