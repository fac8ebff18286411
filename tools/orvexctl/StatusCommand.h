#pragma once

#include "ICommand.h"

namespace orvexd::ctl {

/// Prints the connection status.
class StatusCommand : public ICommand {
public:
    [[nodiscard]] std::string_view name() const override { return "status"; }
    [[nodiscard]] std::string_view summary() const override {
        return "Prints the connection status";
    }
    ExitStatus run(const std::vector<std::string>& words) override;
};

} // namespace orvexd::ctl
