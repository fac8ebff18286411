#include "Failure.h"

#include "Advice.h"
#include "GioHandles.h"
#include "Printable.h"

#include <array>
#include <charconv>
#include <optional>
#include <orvexclient.h>
#include <string>

namespace orvexd::ctl {
namespace {

struct CodeText {
    std::uint32_t code;
    ExitStatus status;
    std::string_view text;
};

constexpr std::array kCodeTexts{
    CodeText{
        41, ExitStatus::UnknownRequest,
        "The daemon does not know this request: it was answered, cancelled or dropped, or it never "
        "existed. Send it again; 'orvexctl monitor' shows what happens to it."},
    CodeText{
        57, ExitStatus::NotAccepting,
        "The daemon does not accept data for this request now: the input came too slowly, or the "
        "request is already closed. The daemon waits 5 seconds for the next bytes, 90 seconds with "
        "--type fingerprint; send the input from a file."},
    CodeText{
        1001, ExitStatus::UnknownConnection,
        "The daemon does not know this connection: it was closed, or the daemon was started anew. "
        "Send the request again."},
    CodeText{
        2001, ExitStatus::ExchangeFailed,
        "The exchange with the server failed. The server was reached but did not give a usable "
        "answer: check the input and its options, then try again."},
    CodeText{2002, ExitStatus::BadArguments,
             "The daemon did not understand the call. Use the orvexctl that was built with this "
             "daemon."},
    CodeText{2204, ExitStatus::NoNetwork,
             "No network connection that may be used, or the server cannot be reached over it. See "
             "'orvexctl status', bring up a network, or allow more with --policy."},
    CodeText{
        2205, ExitStatus::NotPermitted,
        "The device's settings do not permit network positioning. Switch it on in the location "
        "settings, then try again."},
};

constexpr std::string_view kFailedStart =
    "The bus could not start the daemon. Check 'systemctl status orvexd', and that all five "
    "KELVRA_ variables in /etc/default/orvexd have a value; 'orvexctl doctor' checks these and "
    "more.";

std::string describe(std::string_view text, std::string_view detail) {
    std::string sentence{text};
    if (const std::string said = firstLine(detail); !said.empty()) {
        sentence.append(" The daemon says: \"").append(said).append("\".");
    }
    return sentence;
}

/// The number in "(41) unspecifiedError".
std::optional<std::uint32_t> codeOf(std::string_view message) {
    const auto end = message.find(')');
    if (!message.starts_with('(') || end == std::string_view::npos) {
        return std::nullopt;
    }
    const std::string_view digits = message.substr(1, end - 1);
    std::uint32_t code = 0;
    const auto [stop, error] = std::from_chars(digits.begin(), digits.end(), code);
    if (error != std::errc{} || stop != digits.end()) {
        return std::nullopt;
    }
    return code;
}

/// @return the daemon's code in an error reply of its own.
std::optional<std::uint32_t> codeOf(const GError& error) {
    const TextRef name{g_dbus_error_get_remote_error(&error)};
    if (name == nullptr || std::string_view{name.get()} != "com.kelvra.orvexd.Error") {
        return std::nullopt;
    }
    // GIO puts "GDBus.Error:NAME: " in front of the text.
    const std::string prefix = "GDBus.Error:" + std::string{name.get()} + ": ";
    std::string_view message{error.message};
    if (message.starts_with(prefix)) {
        message.remove_prefix(prefix.size());
    }
    return codeOf(message);
}

/// Whether the bus tried to start the daemon in vain. The service manager's reasons come by its
/// names.
bool isFailedStart(const GError& error) {
    const TextRef name{g_dbus_error_get_remote_error(&error)};
    if (name != nullptr && std::string_view{name.get()}.starts_with("org.freedesktop.systemd1.")) {
        return true;
    }
    if (error.domain != G_DBUS_ERROR) {
        return false;
    }
    switch (error.code) {
    case G_DBUS_ERROR_TIMED_OUT: // the bus says so only when a service does not come up
    case G_DBUS_ERROR_SPAWN_EXEC_FAILED:
    case G_DBUS_ERROR_SPAWN_FORK_FAILED:
    case G_DBUS_ERROR_SPAWN_CHILD_EXITED:
    case G_DBUS_ERROR_SPAWN_CHILD_SIGNALED:
    case G_DBUS_ERROR_SPAWN_FAILED:
    case G_DBUS_ERROR_SPAWN_SERVICE_INVALID:
    case G_DBUS_ERROR_SPAWN_SERVICE_NOT_FOUND:
        return true;
    default:
        return false;
    }
}

ExitStatus statusOf(const GError& error) {
    if (error.domain == G_IO_ERROR) {
        switch (error.code) {
        case G_IO_ERROR_TIMED_OUT:
            return ExitStatus::TimedOut;
        case G_IO_ERROR_PERMISSION_DENIED:
            return ExitStatus::NoPermission;
        case G_IO_ERROR_CLOSED:
        case G_IO_ERROR_CONNECTION_REFUSED:
        case G_IO_ERROR_NOT_FOUND:
            return ExitStatus::NoDaemon;
        default:
            return ExitStatus::Bus;
        }
    }
    if (error.domain == G_DBUS_ERROR) {
        switch (error.code) {
        case G_DBUS_ERROR_SERVICE_UNKNOWN:
        case G_DBUS_ERROR_NAME_HAS_NO_OWNER:
        case G_DBUS_ERROR_NO_REPLY: // the bus says so when the callee leaves it
        case G_DBUS_ERROR_DISCONNECTED:
            return ExitStatus::NoDaemon;
        case G_DBUS_ERROR_ACCESS_DENIED:
        case G_DBUS_ERROR_AUTH_FAILED:
        case G_DBUS_ERROR_SPAWN_PERMISSIONS_INVALID:
            return ExitStatus::NoPermission;
        case G_DBUS_ERROR_TIMEOUT:
            return ExitStatus::TimedOut;
        default:
            return ExitStatus::Bus;
        }
    }
    return ExitStatus::Bus;
}

std::string_view adviceOn(ExitStatus status) {
    switch (status) {
    case ExitStatus::NoDaemon:
        return "The daemon or the system bus is not running. Check 'systemctl status orvexd', or "
               "DBUS_SYSTEM_BUS_ADDRESS when a private bus is meant.";
    case ExitStatus::NoPermission:
        return "The bus does not let this user talk to the daemon. Call orvexctl as root or as a "
               "member of group positioning, which counts from the next login on; ending the "
               "daemon is for root only.";
    case ExitStatus::TimedOut:
        return "The daemon did not answer in time. It may be waiting for another client; try "
               "again, or "
               "look at 'systemctl status orvexd'.";
    default:
        return "The call to the daemon failed. Use the orvexctl that was built with this daemon.";
    }
}

ExitStatus statusOfLibrary(int error) {
    switch (error) {
    case ORVEX_ERROR_NOT_INSTALLED:
    case ORVEX_ERROR_START_FAILED:
        return ExitStatus::NoDaemon;
    case ORVEX_ERROR_ACCESS_DENIED:
        return ExitStatus::NoPermission;
    case ORVEX_ERROR_TIMED_OUT:
        return ExitStatus::TimedOut;
    default:
        return ExitStatus::Bus;
    }
}

} // namespace

Failure::Failure(ExitStatus status, std::string text) : status_{status}, text_{std::move(text)} {}

Failure Failure::fromCode(std::uint32_t code, std::string_view detail) {
    ExitStatus status = ExitStatus::OtherCode;
    std::string_view text = "The daemon reports a code that this orvexctl does not know. Use the "
                            "orvexctl that was built with this daemon.";
    for (const CodeText& entry : kCodeTexts) {
        if (entry.code == code) {
            status = entry.status;
            text = entry.text;
        }
    }
    if (const std::string_view advice = adviceFor(code, detail); !advice.empty()) {
        text = advice;
    }
    return {status, describe(text, detail) + " (code " + std::to_string(code) + ")"};
}

Failure Failure::fromLibrary(const GError& error) {
    const char* const words = orvex_error_get_detail(&error);
    const std::string_view detail{words == nullptr ? "" : words};
    // These are the library's own findings. The others follow the daemon's code, if there is one.
    switch (error.code) {
    case ORVEX_ERROR_TRUNCATED:
        return {ExitStatus::Truncated,
                describe("The transfer broke off within the answer: what was written is its "
                         "beginning. Send the request again.",
                         detail)};
    case ORVEX_ERROR_CANCELLED:
        return {ExitStatus::Cancelled,
                "Another client cancelled the request. 'orvexctl monitor' shows who does so; send "
                "it again."};
    case ORVEX_ERROR_DAEMON_GONE:
        return daemonGone();
    case ORVEX_ERROR_NO_BUS:
        return noBus(detail);
    default:
        break;
    }
    if (const guint code = orvex_error_get_code(&error); code != 0) {
        return fromCode(code, detail);
    }
    if (error.code == ORVEX_ERROR_START_FAILED) {
        return startFailed(detail);
    }
    const ExitStatus status = statusOfLibrary(error.code);
    std::string text{adviceOn(status)};
    text.append(" (").append(printable(detail)).append(")");
    return {status, std::move(text)};
}

Failure Failure::fromBus(const GError& error) {
    if (const auto code = codeOf(error)) {
        return fromCode(*code);
    }
    if (isFailedStart(error)) {
        return startFailed(error.message);
    }
    const ExitStatus status = statusOf(error);
    std::string text{adviceOn(status)};
    text.append(" (").append(printable(error.message)).append(")");
    return {status, std::move(text)};
}

Failure Failure::fromFile(std::string_view doing, const GError& error) {
    std::string text{"Cannot "};
    text.append(doing).append(": ").append(printable(error.message)).append(".");
    return {ExitStatus::Local, std::move(text)};
}

Failure Failure::usage(std::string text) {
    return {ExitStatus::Usage, std::move(text)};
}

Failure Failure::daemonGone() {
    return {ExitStatus::NoDaemon, "The daemon left the bus in the middle of its work. Look at "
                                  "'systemctl status orvexd', then "
                                  "try again."};
}

Failure Failure::startFailed(std::string_view detail) {
    std::string text{kFailedStart};
    text.append(" (").append(printable(detail)).append(")");
    return {ExitStatus::NoDaemon, std::move(text)};
}

Failure Failure::noBus(std::string_view detail) {
    std::string text{"The system bus cannot be reached. Check that it runs, or "
                     "DBUS_SYSTEM_BUS_ADDRESS when a private bus is meant. ("};
    text.append(printable(detail)).append(")");
    return {ExitStatus::NoDaemon, std::move(text)};
}

} // namespace orvexd::ctl
