#pragma once

#include "doctor/Child.h"
#include "findings/Finding.h"

#include <chrono>
#include <string>
#include <vector>

namespace orvexd::ctl {

/// orvexd-probe, which has the daemon's key and road. Only root may run it.
class Probe {
public:
    /// @param environment the daemon's.
    Probe(std::string program, Child::Environment environment)
        : program_{std::move(program)}, environment_{std::move(environment)} {}

    /// Runs it and hands on each finding as it comes, also that it has not come to its end.
    void run(const std::vector<std::string>& arguments, std::chrono::seconds patience,
             const findings::Report& report);

    /// Where the platform's answers come from; empty while it has not said so.
    [[nodiscard]] const std::string& source() const { return source_; }

    /// Where it is: beside this program, if only root could put it there, otherwise where it is
    /// installed.
    [[nodiscard]] static std::string find();

private:
    std::string program_;
    Child::Environment environment_;
    std::string source_;
};

} // namespace orvexd::ctl
