#pragma once

#include "findings/Finding.h"

#include <string>
#include <vector>

namespace orvexd::ctl {

/// orvexd-probe, which has the daemon's key and road. Only root may run it.
class Probe {
public:
    /// @param platformFile of the daemon's environment; empty for the usual one.
    Probe(std::string program, std::string platformFile)
        : program_{std::move(program)}, platformFile_{std::move(platformFile)} {}

    /// Runs it and hands on each line as it comes.
    /// @return false when it could not be run to its end.
    [[nodiscard]] bool run(const std::vector<std::string>& arguments,
                           const findings::Report& report) const;

    /// Where it is: beside this program in a build tree, otherwise where it is installed.
    [[nodiscard]] static std::string find();

private:
    std::string program_;
    std::string platformFile_;
};

} // namespace orvexd::ctl
