#include "ConnectionStatus.h"

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

} // namespace orvexd::ctl
