#pragma once

#include "ICommand.h"

namespace orvexd::ctl {

/// Ends the daemon.
class QuitCommand : public ICommand {
public:
    [[nodiscard]] std::string_view name() const override { return "quit"; }
    [[nodiscard]] std::string_view summary() const override { return "Ends the daemon"; }
    ExitStatus run(const std::vector<std::string>& words) override;
};

} // namespace orvexd::ctl
