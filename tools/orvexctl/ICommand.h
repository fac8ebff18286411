#pragma once

#include "ExitStatus.h"

#include <string>
#include <string_view>
#include <vector>

namespace orvexd::ctl {

/// One word of orvexctl's command line.
class ICommand {
public:
    virtual ~ICommand() = default;

    [[nodiscard]] virtual std::string_view name() const = 0;

    /// One line for the list of commands.
    [[nodiscard]] virtual std::string_view summary() const = 0;

    /// @param words what follows the command's name. @throws Failure
    virtual ExitStatus run(const std::vector<std::string>& words) = 0;

protected:
    ICommand() = default;
    ICommand(const ICommand&) = default;
    ICommand& operator=(const ICommand&) = default;
    ICommand(ICommand&&) = default;
    ICommand& operator=(ICommand&&) = default;
};

} // namespace orvexd::ctl
