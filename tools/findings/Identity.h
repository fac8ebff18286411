#pragma once

#include "findings/Finding.h"

#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace orvexd::findings {

/// Names and values of variables.
using Variables = std::map<std::string, std::string>;

/// IMEI of the example platform file, which is no device's.
inline constexpr std::string_view kExampleImei = "490154203237518";

/// The five variables without which the daemon does not start.
/// @param place where they were looked for, for the sentences.
void checkVariables(const Variables& variables, const std::string& place, const Checked& report);

/// What a service manager reads from a file of variables, and what a shell would read differently.
struct EnvironmentFile {
    Variables variables;
    std::string fault;   ///< why the service manager refuses the whole file; empty for nothing
    std::string oddLine; ///< the first line that the two read differently; empty for none
};

/// Lines of the form NAME=value, with quotes where blanks are in the value. Comments are skipped.
[[nodiscard]] EnvironmentFile readEnvironment(std::string_view text);

/// The file of the five variables: there, for root alone, complete, and not the packaged example.
/// @param daemon the variables of the running daemon, if they are known.
void checkIdentityFile(const std::string& path, const std::optional<Variables>& daemon,
                       const Checked& report);

} // namespace orvexd::findings
