#pragma once

#include "support/BusHandles.h"

#include <functional>
#include <string>
#include <vector>

namespace orvexd {

/// The process's one connection to the system bus, and how messages leave on it. Main loop's thread
/// only.
class BusLink {
public:
    BusLink() = delete;

    /// Null until the bus was reached, and again after `close`.
    [[nodiscard]] static DBusConnection* connection();
    /// Keeps the connection; a connection before is given back.
    static void open(BusConnection connection);
    /// Gives the reference back.
    static void close();

    /// Makes a signal of the daemon's interface, without arguments yet.
    /// @return 0, 2204 when there is no bus connection, 2001 when the message cannot be made.
    [[nodiscard]] static int createSignal(const char* member, BusMessage& message);

    /// Sends `message` and waits until it has been written. Nothing happens when it is null or when
    /// there is no connection.
    /// @throws std::string when libdbus refuses it. Nothing catches that: the process ends.
    static void sendOrThrow(BusMessage message);

    /// Answers `call` with the daemon's error "(code) unspecifiedError".
    /// @throws std::string when the reply cannot be made or sent.
    static void sendError(DBusMessage& call, int code);

    /// Answers `call` with another error. A signal gets no answer, and nothing is sent when there
    /// is no memory for one.
    static void refuse(DBusMessage& call, const char* errorName, const std::string& text);

    /// Answers `call` as libdbus answers calls that nobody handles.
    static void refuseUnhandled(DBusMessage& call);

private:
    static BusConnection& slot();
};

/// A question to the bus itself that does not wait for the answer. It is given up when this object
/// ends. Main loop's thread.
class BusQuestion {
public:
    /// @param reply a return or an error.
    using Answer = std::function<void(DBusMessage& reply)>;

    BusQuestion() noexcept = default;
    ~BusQuestion() = default;
    BusQuestion(const BusQuestion&) = delete;
    BusQuestion& operator=(const BusQuestion&) = delete;

    /// Asks; no question may be under way.
    /// @param member method of the bus. @param argument its only argument; null for none.
    /// @param answer is called once, from the main loop or within this call. It may end this
    /// object.
    /// @return false when nothing could be sent: there is no answer then.
    [[nodiscard]] bool ask(const char* member, const char* argument, Answer answer);
    [[nodiscard]] bool isPending() const noexcept { return pending_ != nullptr; }
    /// Gives the question up, if any.
    void cancel() noexcept {
        pending_.reset();
        answer_ = nullptr;
    }

private:
    static void onReply(DBusPendingCall* pending, void* question) noexcept;
    void take();

    BusPendingCall pending_;
    Answer answer_;
};

/// A match rule of the bus for as long as this lives; neither its begin nor its end waits.
class MatchRule {
public:
    explicit MatchRule(std::string rule);
    ~MatchRule();
    MatchRule(const MatchRule&) = delete;
    MatchRule& operator=(const MatchRule&) = delete;

private:
    const std::string rule_;
};

/// `text` as the bus takes it: libdbus ends the process on a string that is not valid UTF-8. The
/// text ends at its first NUL, and each byte that is no UTF-8 becomes U+FFFD; of the result the
/// characters that fit into 14 MiB are left. Valid texts up to that size stay as they are.
[[nodiscard]] std::string toBusText(const std::string& text);

/// Splits a blank-separated list into lists of at most 16 MiB, so that each fits into one message;
/// a shorter list, an empty one included, is the only element.
[[nodiscard]] std::vector<std::string> splitKeyList(const std::string& keys);

} // namespace orvexd
