#pragma once

#include "ICommand.h"

namespace orvexd::ctl {

/// Prints every signal of the interface.
class MonitorCommand : public ICommand {
public:
    [[nodiscard]] std::string_view name() const override { return "monitor"; }
    [[nodiscard]] std::string_view summary() const override {
        return "Prints every signal of the interface";
    }
    ExitStatus run(const std::vector<std::string>& words) override;
};

} // namespace orvexd::ctl
