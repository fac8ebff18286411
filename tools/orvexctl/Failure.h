#pragma once

#include "ExitStatus.h"

#include <cstdint>
#include <exception>
#include <gio/gio.h>
#include <string>
#include <string_view>
#include <variant>

namespace orvexd::ctl {

/// Why a command could not do its work: a sentence that says what to do next, and the exit status.
/// Thrown by synchronous operations, handed over in an Outcome by asynchronous ones.
class Failure : public std::exception {
public:
    Failure(ExitStatus status, std::string text);

    /// A code of the daemon, from an error reply, an errorSignal or the result of sendData.
    /// @param detail the daemon's own message, which may stem from the server; may be empty.
    static Failure fromCode(std::uint32_t code, std::string_view detail = {});

    /// An error of the client library.
    static Failure fromLibrary(const GError& error);

    /// A failed D-Bus call: an error reply of the daemon or of the bus, or a failure on this side.
    static Failure fromBus(const GError& error);

    /// A failed operation on a file or stream; `doing` completes "Cannot ...".
    static Failure fromFile(std::string_view doing, const GError& error);

    static Failure usage(std::string text);

    /// The daemon left the bus while it was needed.
    static Failure daemonGone();

    /// The bus, or the service manager behind it, could not start the daemon.
    static Failure startFailed(std::string_view detail);

    /// There is no bus. @param detail what the bus library says
    static Failure noBus(std::string_view detail);

    [[nodiscard]] ExitStatus status() const noexcept { return status_; }
    [[nodiscard]] const std::string& text() const noexcept { return text_; }
    [[nodiscard]] const char* what() const noexcept override { return text_.c_str(); }

private:
    ExitStatus status_;
    std::string text_;
};

/// The end of an asynchronous operation.
template <typename Result> using Outcome = std::variant<Result, Failure>;

/// For operations that yield nothing.
struct Done {};

} // namespace orvexd::ctl
