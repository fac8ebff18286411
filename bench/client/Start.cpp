#include "Start.h"

#include <csignal>
#include <spawn.h>
#include <string_view>
#include <sys/wait.h>
#include <unistd.h>

namespace orvexd::bench {

namespace {

constexpr std::chrono::seconds kPatience(10);

bool isOwnerChange(const BusMessage& message, bool owned) {
    if (dbus_message_is_signal(message.get(), DBUS_INTERFACE_DBUS, "NameOwnerChanged") == FALSE) {
        return false;
    }
    const char* name = "";
    const char* before = "";
    const char* after = "";
    read(message, DBUS_TYPE_STRING, &name, DBUS_TYPE_STRING, &before, DBUS_TYPE_STRING, &after);
    return std::string_view(name) == kName && (*after != '\0') == owned;
}

void awaitOwner(const Bus& bus, bool owned) {
    const auto deadline = Clock::now() + kPatience;
    while (const BusMessage message = bus.receive(deadline)) {
        if (isOwnerChange(message, owned)) {
            return;
        }
    }
    throw std::runtime_error("the name does not change its owner");
}

} // namespace

Clock::duration timeStart(const Bus& bus, const std::vector<std::string>& command) {
    dbus_bus_add_match(bus.get(),
                       "type='signal',interface='org.freedesktop.DBus',member='NameOwnerChanged',"
                       "arg0='com.kelvra.orvexd'",
                       nullptr);
    std::vector<char*> words;
    for (const std::string& word : command) {
        words.push_back(const_cast<char*>(word.c_str())); // posix_spawn does not write to it
    }
    words.push_back(nullptr);
    const auto begin = Clock::now();
    pid_t child = 0;
    if (posix_spawn(&child, words.front(), nullptr, nullptr, words.data(), environ) != 0) {
        throw std::runtime_error("cannot start " + command.front());
    }
    awaitOwner(bus, true);
    const auto taken = Clock::now() - begin;
    kill(child, SIGTERM);
    awaitOwner(bus, false);
    waitpid(child, nullptr, 0);
    return taken;
}

} // namespace orvexd::bench
