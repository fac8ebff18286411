#pragma once

#include "ICommand.h"

namespace orvexd::ctl {

/// Walks down the road of a request and says for each thing on it how it is.
class DoctorCommand : public ICommand {
public:
    [[nodiscard]] std::string_view name() const override { return "doctor"; }
    [[nodiscard]] std::string_view summary() const override {
        return "Looks for what keeps requests from being answered";
    }
    ExitStatus run(const std::vector<std::string>& words) override;
};

} // namespace orvexd::ctl
