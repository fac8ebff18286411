#include "Application.h"

#include "CancelCommand.h"
#include "Failure.h"
#include "MonitorCommand.h"
#include "OptionParser.h"
#include "Output.h"
#include "QuitCommand.h"
#include "RequestCommand.h"
#include "StatusCommand.h"
#include "doctor/DoctorCommand.h"

#include <algorithm>
#include <cstdio>

namespace orvexd::ctl {

Application::Application() {
    commands_.push_back(std::make_unique<StatusCommand>());
    commands_.push_back(std::make_unique<RequestCommand>());
    commands_.push_back(std::make_unique<MonitorCommand>());
    commands_.push_back(std::make_unique<CancelCommand>());
    commands_.push_back(std::make_unique<QuitCommand>());
    commands_.push_back(std::make_unique<DoctorCommand>());
}

ExitStatus Application::run(const std::vector<std::string>& words) {
    try {
        return dispatch(words);
    } catch (const Failure& failure) {
        std::fprintf(stderr, "orvexctl: %s\n", failure.what());
        return failure.status();
    }
}

ExitStatus Application::dispatch(const std::vector<std::string>& words) {
    bool version = false;
    OptionParser parser{"", "COMMAND [OPTION…]",
                        "Talks to orvexd, the positioning gateway, over the system bus."};
    parser.setDescription(commandList());
    parser.stopAtFirstWord();
    parser.addFlag("version", 0, "Print the version and exit", version);
    const auto rest = parser.parse(words);
    if (version) {
        printLine("orvexctl " ORVEXCTL_VERSION);
        return ExitStatus::Success;
    }
    if (rest.empty()) {
        throw Failure::usage("which command? See 'orvexctl --help'.");
    }
    const auto command =
        std::find_if(commands_.begin(), commands_.end(),
                     [&](const auto& candidate) { return candidate->name() == rest.front(); });
    if (command == commands_.end()) {
        throw Failure::usage("there is no command '" + rest.front() + "'. See 'orvexctl --help'.");
    }
    return (*command)->run({rest.begin() + 1, rest.end()});
}

std::string Application::commandList() const {
    constexpr std::size_t kColumn = 10;
    std::string text = "Commands:\n";
    for (const auto& command : commands_) {
        std::string name{command->name()};
        name.resize(kColumn, ' ');
        text.append("  ").append(name).append(command->summary()).append("\n");
    }
    return text +
           "\n'orvexctl COMMAND --help' explains each. The bus is the one that\n"
           "DBUS_SYSTEM_BUS_ADDRESS names, if set. Exit statuses are listed in orvexctl(1).\n";
}

} // namespace orvexd::ctl
