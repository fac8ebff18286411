#pragma once

#include "GioHandles.h"

#include <cstdint>
#include <string>

namespace orvexd::ctl {

/// A signal of the interface as somebody on the bus received it.
struct SignalEvent {
    std::string time;   ///< ISO 8601 with microseconds
    std::string sender; ///< unique bus name
    std::string name;   ///< member
    VariantRef arguments;
};

/// One line for people.
std::string signalAsText(const SignalEvent& event);

/// One JSON object on one line, with the members "time", "sender", "signal" and those of the
/// signal: "status" and "words"; "connection" and "request"; "code", "message" and "requests".
/// Unknown signals have "arguments", a text.
std::string signalAsJson(const SignalEvent& event);

} // namespace orvexd::ctl
