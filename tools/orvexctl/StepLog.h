#pragma once

#include <chrono>
#include <string_view>

namespace orvexd::ctl {

/// Lines on standard error, each with the milliseconds since the start, that tell the steps of a
/// command. Prints nothing when it is switched off.
class StepLog {
public:
    explicit StepLog(bool shown) : shown_{shown} {}

    void tell(std::string_view step) const;

private:
    bool shown_;
    std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

} // namespace orvexd::ctl
