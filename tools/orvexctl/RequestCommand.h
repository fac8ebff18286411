#pragma once

#include "ICommand.h"

namespace orvexd::ctl {

/// Sends one request and writes the answer.
class RequestCommand : public ICommand {
public:
    [[nodiscard]] std::string_view name() const override { return "request"; }
    [[nodiscard]] std::string_view summary() const override {
        return "Sends one request and writes the answer";
    }
    ExitStatus run(const std::vector<std::string>& words) override;
};

} // namespace orvexd::ctl
