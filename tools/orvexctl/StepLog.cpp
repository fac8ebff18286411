#include "StepLog.h"

#include <cstdio>
#include <string>

namespace orvexd::ctl {

void StepLog::tell(std::string_view step) const {
    if (!shown_) {
        return;
    }
    const std::chrono::duration<double, std::milli> time =
        std::chrono::steady_clock::now() - start_;
    std::fprintf(stderr, "orvexctl: %9.1f ms  %s\n", time.count(), std::string{step}.c_str());
}

} // namespace orvexd::ctl
