#pragma once

#include "ICommand.h"

#include <memory>
#include <string>
#include <vector>

namespace orvexd::ctl {

/// Finds the command that the words name and runs it.
class Application {
public:
    Application();

    /// @param words the command line without the program's name. Failures are told on standard
    /// error.
    ExitStatus run(const std::vector<std::string>& words);

private:
    ExitStatus dispatch(const std::vector<std::string>& words);
    [[nodiscard]] std::string commandList() const;

    std::vector<std::unique_ptr<ICommand>> commands_;
};

} // namespace orvexd::ctl
