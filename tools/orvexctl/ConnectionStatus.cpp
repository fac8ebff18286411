#include "ConnectionStatus.h"

#include "JsonLine.h"

namespace orvexd::ctl {
namespace {

constexpr std::uint32_t kConnected = 1;
constexpr std::uint32_t kKindOne = 2;
constexpr std::uint32_t kRestricted = 4;

} // namespace

std::string connectionStatusWords(std::uint32_t status) {
    std::string words = (status & kConnected) != 0 ? "connected" : "not connected";
    if ((status & kKindOne) != 0) {
        words += ", kind 1";
    }
    if ((status & kRestricted) != 0) {
        words += ", restricted";
    }
    if ((status & ~(kConnected | kKindOne | kRestricted)) != 0) {
        words += ", unknown bits";
    }
    return words;
}

std::string connectionStatusLine(std::optional<std::uint32_t> status, bool json) {
    if (!json) {
        return status ? connectionStatusWords(*status) + " (" + std::to_string(*status) + ")"
                      : "the daemon does not run";
    }
    JsonLine line;
    line.addText("time", timeStamp());
    line.addTruth("running", status.has_value());
    if (status) {
        line.addNumber("status", *status);
        line.addText("words", connectionStatusWords(*status));
        line.addTruth("connected", (*status & kConnected) != 0);
        line.addTruth("kindOne", (*status & kKindOne) != 0);
        line.addTruth("restricted", (*status & kRestricted) != 0);
    }
    return line.text();
}

} // namespace orvexd::ctl
