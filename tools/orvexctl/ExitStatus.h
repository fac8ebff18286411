#pragma once

namespace orvexd::ctl {

/// What the process tells its parent. Documented in orvexctl(1): scripts rely on the numbers.
enum class ExitStatus : int {
    Success = 0,
    /// A file or stream on this side could not be read or written.
    Local = 1,
    Usage = 2,
    /// No bus, no daemon, or the daemon went away.
    NoDaemon = 3,
    NoPermission = 4,
    TimedOut = 5,
    /// The bus or the daemon failed in a way that has no status of its own.
    Bus = 6,
    /// Somebody else cancelled the request.
    Cancelled = 7,
    /// The transfer broke off within the answer: what was written is its beginning.
    Truncated = 8,

    // One for each code of the daemon that reaches clients. Numbers that are missing stood for
    // codes that it keeps to itself.
    UnknownRequest = 20,    // 41
    NotAccepting = 25,      // 57
    UnknownConnection = 26, // 1001
    ExchangeFailed = 28,    // 2001
    BadArguments = 29,      // 2002
    NoNetwork = 30,         // 2204
    NotPermitted = 31,      // 2205
    OtherCode = 32,

    // Of doctor, for which 1 and 2 are verdicts. The numbers are those of sysexits.h.
    DoctorMisused = 64,
    DoctorNotHeard = 74,

    // 128 + signal number, as shells report a process that a signal ended.
    HungUp = 129,
    Interrupted = 130,
    Terminated = 143,
};

} // namespace orvexd::ctl
