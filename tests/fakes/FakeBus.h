#pragma once

#include "support/BusHandles.h"

#include <functional>
#include <list>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace fake_bus {

/// While it exists, what the program asks of libdbus's connection ends here: there is a bus that
/// remembers what it was asked for, and one function may fail. Without it the calls reach libdbus.
/// One at a time; messages are real all the time.
class FakeBus {
public:
    FakeBus();
    ~FakeBus();
    FakeBus(const FakeBus&) = delete;
    FakeBus& operator=(const FakeBus&) = delete;

    /// Functions of the connection in the order of their calls, with the arguments that matter.
    std::vector<std::string> calls;
    /// The messages sent and not yet taken.
    std::vector<orvexd::BusMessage> sent;
    /// The function that reports the error "test.Failed" with the text "no luck", has no memory or
    /// refuses; empty: none.
    std::string failing;
    /// What dbus_bus_request_name answers.
    int nameReply = DBUS_REQUEST_NAME_REPLY_PRIMARY_OWNER;

    /// Runs with every call that is noted.
    std::function<void()> onCall;

    // -- what the bus says when it is asked -----------------------------------------------------

    /// User ids of names; others belong to root.
    std::map<std::string, dbus_uint32_t> users;
    /// Names that have left the bus. All others are there.
    std::set<std::string> left;
    /// Answers every question at once. Otherwise a question waits for `answerQuestion`.
    bool answersAtOnce = true;
    /// Questions that nobody has answered or given up yet: member and argument, oldest first.
    std::vector<std::string> questions() const;
    /// Answers the oldest question, with `reply` if there is one.
    void answerQuestion(orvexd::BusMessage reply = nullptr);

    /// Passes a message to the installed filter.
    DBusHandlerResult receive(DBusMessage& message) const;

    /// The only message sent since the last call; null when it is none or several.
    orvexd::BusMessage takeSent();

    /// The connection that dbus_bus_get gives.
    static DBusConnection* connection();

    // -- for the stand-ins ---------------------------------------------------------------------

    static FakeBus* current();
    /// Notes the call. @return false when `function` is the one that fails.
    bool note(const std::string& function, const std::string& arguments);
    bool fails(const std::string& function) const { return failing == function; }
    /// As `note`, and fills `error` on failure.
    bool noteOrReport(const std::string& function, const std::string& arguments, DBusError* error);

    DBusHandleMessageFunction filter = nullptr;
    void* filterData = nullptr;

    /// A question under way, in the place of libdbus's own.
    struct Question {
        orvexd::BusMessage call;
        orvexd::BusMessage reply;
        DBusPendingCallNotifyFunction notify = nullptr;
        void* notified = nullptr;
    };
    orvexd::BusMessage replyTo(DBusMessage& call) const;
    std::list<Question> asked;
};

/// A message as it comes from a client; append its arguments.
orvexd::BusMessage call(const char* member, const char* interface = "com.kelvra.orvexd",
                        const char* sender = ":1.5");
orvexd::BusMessage signal(const char* member, const char* sender = ":1.5");

} // namespace fake_bus
