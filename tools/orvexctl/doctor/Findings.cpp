#include "doctor/Findings.h"

#include "Output.h"
#include "Printable.h"

#include <string>

namespace orvexd::ctl {
namespace {

using findings::State;

constexpr std::size_t kStateColumn = 10;
constexpr std::size_t kCheckColumn = 12;

std::string padded(std::string text, std::size_t width) {
    text.resize(std::max(width, text.size() + 1), ' ');
    return text;
}

} // namespace

void Findings::add(const findings::Finding& finding) {
    ++counts_.at(static_cast<std::size_t>(finding.state));
    if (json_) {
        printLine(findings::toJson(finding));
        return;
    }
    printLine(padded(std::string{findings::wordOf(finding.state)}, kStateColumn) +
              padded(printable(finding.check), kCheckColumn) + printable(finding.why));
    if (!finding.advice.empty()) {
        printLine(std::string(kStateColumn + kCheckColumn, ' ') + "-> " +
                  printable(finding.advice));
    }
}

void Findings::conclude() const {
    if (!json_) {
        printLine(std::to_string(count(State::Broken)) + " broken, " +
                  std::to_string(count(State::Doubtful)) + " doubtful, " +
                  std::to_string(count(State::Fine)) + " fine, " +
                  std::to_string(count(State::Unknown)) + " not seen");
    }
}

ExitStatus Findings::status() const {
    const int status = count(State::Broken) > 0 ? 2 : count(State::Doubtful) > 0 ? 1 : 0;
    return static_cast<ExitStatus>(status);
}

} // namespace orvexd::ctl
