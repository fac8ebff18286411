#include "Awaited.h"

#include <string>
#include <string_view>

namespace orvexd::ctl {
namespace {

struct Words {
    std::string_view what;
    std::string_view advice;
};

Words wordsOf(Awaited what) {
    switch (what) {
    case Awaited::Bus:
        return {"the bus",
                "It accepts no connection, or hangs: look at 'systemctl status dbus', or "
                "at DBUS_SYSTEM_BUS_ADDRESS when a private bus is meant."};
    case Awaited::Start:
        return {"the start of the daemon",
                "Look at 'systemctl status orvexd'; 'orvexctl doctor' tells what keeps it from "
                "starting."};
    case Awaited::Daemon:
        return {"the daemon's answer to a call",
                "It hangs or was stopped: look at 'systemctl status orvexd'."};
    case Awaited::End:
        return {"the end of the daemon",
                "It was told to end, and does so when its exchange is over: it waits up to 60 "
                "seconds for the server, and up to 90 for a client's data."};
    case Awaited::Network:
        return {"a network connection that the request may use",
                "See 'orvexctl status'; bring up a network, or allow more with --policy."};
    case Awaited::OtherExchange:
        return {"the exchange of another request",
                "An attached request starts none of its own: leave --attach out, or allow more "
                "time with --timeout. 'orvexctl monitor' shows what others do."};
    case Awaited::Exchange:
        return {"the connection to the server",
                "The server, the proxy or the name server is silent, or other requests go first: "
                "'orvexctl doctor' goes the same road, 'orvexctl monitor' shows the others. The "
                "daemon itself gives up connecting after 30 seconds and says why; allow that with "
                "--timeout."};
    case Awaited::Input:
        return {"the next piece of the input", "What writes it is slow or hangs."};
    case Awaited::Upload:
        return {"the server to take more of the input",
                "The server or the network is slow or hangs. The daemon itself gives up after 60 "
                "seconds; allow that with --timeout."};
    case Awaited::Answer:
        return {"the server's answer",
                "The server is slow, or requests in the same exchange deliver their data late. The "
                "daemon itself gives up after 60 seconds; allow that with --timeout. 'orvexctl "
                "doctor --exchange' tells how long it takes."};
    case Awaited::RestOfAnswer:
        return {"the rest of the answer",
                "The server or the network broke down in the middle of it, or is slow. The daemon "
                "itself gives up after 60 seconds; allow that with --timeout."};
    }
    return {};
}

} // namespace

Failure overdue(Awaited what, std::chrono::seconds time) {
    const auto [name, advice] = wordsOf(what);
    std::string text = "No progress for " + std::to_string(time.count()) +
                       (time.count() == 1 ? " second" : " seconds") + ": waited for ";
    text.append(name).append(". ").append(advice);
    // A daemon that does not come up is none.
    return {what == Awaited::Start ? ExitStatus::NoDaemon : ExitStatus::TimedOut, std::move(text)};
}

} // namespace orvexd::ctl
