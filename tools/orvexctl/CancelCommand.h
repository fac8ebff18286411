#pragma once

#include "ICommand.h"

namespace orvexd::ctl {

/// Cancels a request of the same user; root's cancels anybody's.
class CancelCommand : public ICommand {
public:
    [[nodiscard]] std::string_view name() const override { return "cancel"; }
    [[nodiscard]] std::string_view summary() const override {
        return "Cancels a request of the same user";
    }
    ExitStatus run(const std::vector<std::string>& words) override;
};

} // namespace orvexd::ctl
