#pragma once

#include "Failure.h"

#include <chrono>

namespace orvexd::ctl {

/// What a command waits for.
enum class Awaited {
    Bus,
    Start,  ///< of the daemon, by the bus
    Daemon, ///< to answer a call
    End,    ///< of the daemon
    Network,
    OtherExchange, ///< along which an attached request travels
    Exchange,      ///< of the request itself, to reach the server
    Input,
    Upload, ///< the server takes no more
    Answer,
    RestOfAnswer,
};

/// Nothing has come for so long: says what was waited for, why it may be missing and what to do.
Failure overdue(Awaited what, std::chrono::seconds time);

} // namespace orvexd::ctl
