#pragma once

#include "ExitStatus.h"
#include "findings/Finding.h"

#include <array>
#include <cstddef>

namespace orvexd::ctl {

/// Prints each finding as it comes, and counts.
class Findings {
public:
    /// @param json one JSON object per line instead of sentences.
    explicit Findings(bool json) : json_{json} {}

    /// @throws Failure when nobody can read it.
    void add(const findings::Finding& finding);

    /// A last line for people.
    void conclude() const;

    /// 0 when all is fine, 1 for a doubt, 2 for something broken; what could not be seen does not
    /// count.
    [[nodiscard]] ExitStatus status() const;

private:
    [[nodiscard]] std::size_t count(findings::State state) const {
        return counts_.at(static_cast<std::size_t>(state));
    }

    bool json_;
    std::array<std::size_t, 4> counts_{};
};

} // namespace orvexd::ctl
