#include "CancelCommand.h"

#include "Failure.h"
#include "Gateway.h"
#include "OptionParser.h"

namespace orvexd::ctl {
namespace {

/// The request's own client asks the bus, too, whose signal it is. Nothing tells when it has done
/// so.
constexpr gulong kOthersMayAsk = 300'000; // us

constexpr std::uint32_t kCancelTimeout = 25; // seconds

} // namespace

ExitStatus CancelCommand::run(const std::vector<std::string>& words) {
    OptionParser parser{
        "cancel", "CONNECTION REQUEST",
        "Cancels a request by its two ids, which 'orvexctl monitor' and the progress line "
        "show."};
    parser.setDescription("It has to be a request of the same user, unless root cancels it.\n"
                          "The daemon does not tell whether there was such a request.\n");
    std::uint32_t timeout = kCancelTimeout;
    parser.addNumber("timeout", 'T', "Give up after so long, 0 is never (25)", "SECONDS", timeout);
    const auto rest = parser.parse(words);
    if (rest.size() != 2) {
        throw Failure::usage("cancel needs two ids. See 'orvexctl cancel --help'.");
    }
    const std::uint32_t connection = parseNumber(rest[0], "CONNECTION");
    const std::uint32_t request = parseNumber(rest[1], "REQUEST");

    Gateway gateway{std::chrono::seconds{timeout}};
    gateway.cancel(connection, request);
    g_usleep(kOthersMayAsk); // on the bus
    return ExitStatus::Success;
}

} // namespace orvexd::ctl
