#include "dbus/BusLink.h"

#include "protocol/Codes.h"
#include "protocol/Names.h"
#include "support/Probes.h"

#include <algorithm>
#include <glib.h>
#include <memory>
#include <string_view>
#include <utility>

namespace orvexd {

namespace {

// Text and list fit into one message together: a bus disconnects the sender of more than 32 MiB.
constexpr std::size_t kLongestText = std::size_t{14} * 1024 * 1024;
constexpr std::size_t kLongestList = std::size_t{16} * 1024 * 1024;

struct GFree {
    void operator()(gchar* text) const noexcept { g_free(text); }
};

/// The characters of valid UTF-8 that fit into the limit.
std::string limited(std::string_view text) {
    std::size_t end = std::min(text.size(), kLongestText);
    const auto isInsideCharacter = [&] {
        return end < text.size() && (static_cast<unsigned char>(text[end]) & 0xC0U) == 0x80U;
    };
    while (isInsideCharacter()) {
        --end;
    }
    return std::string(text.substr(0, end));
}

} // namespace

BusConnection& BusLink::slot() {
    static BusConnection connection;
    return connection;
}

DBusConnection* BusLink::connection() {
    return slot().get();
}

void BusLink::open(BusConnection connection) {
    slot() = std::move(connection);
}

void BusLink::close() {
    slot().reset();
}

int BusLink::createSignal(const char* member, BusMessage& message) {
    if (connection() == nullptr) {
        return failure::kNoConnection;
    }
    message.reset(dbus_message_new_signal(bus::kPath, bus::kInterface, member));
    return message ? failure::kNone : failure::kExchangeFailed;
}

void BusLink::sendOrThrow(BusMessage message) {
    if (!message || connection() == nullptr) {
        return;
    }
    if (dbus_connection_send(connection(), message.get(), nullptr) == FALSE) {
        throw std::string("error: dbus_connection_send() failed -> EXIT");
    }
    dbus_connection_flush(connection());
}

void BusLink::sendError(DBusMessage& call, int code) {
    if (dbus_message_get_serial(&call) == 0) {
        return; // libdbus ends the process when asked to answer a message that was never sent
    }
    probe::callRefused(code, dbus_message_get_member(&call));
    BusMessage reply(
        dbus_message_new_error_printf(&call, bus::kErrorName, "(%d) %s", code, "unspecifiedError"));
    if (!reply) {
        throw std::string("error: no memory for an error reply -> EXIT");
    }
    sendOrThrow(std::move(reply));
}

void BusLink::refuse(DBusMessage& call, const char* errorName, const std::string& text) {
    if (dbus_message_get_type(&call) == DBUS_MESSAGE_TYPE_METHOD_CALL) {
        sendOrThrow(BusMessage(dbus_message_new_error(&call, errorName, text.c_str())));
    }
}

void BusLink::refuseUnhandled(DBusMessage& call) {
    const auto orEmpty = [](const char* text) { return std::string(text != nullptr ? text : ""); };
    refuse(call, DBUS_ERROR_UNKNOWN_METHOD,
           "Method \"" + orEmpty(dbus_message_get_member(&call)) + "\" with signature \"" +
               orEmpty(dbus_message_get_signature(&call)) + "\" on interface \"" +
               orEmpty(dbus_message_get_interface(&call)) + "\" doesn't exist\n");
}

// -- questions to the bus ------------------------------------------------------------------------

bool BusQuestion::ask(const char* member, const char* argument, Answer answer) {
    const BusMessage call(dbus_message_new_method_call(DBUS_SERVICE_DBUS, DBUS_PATH_DBUS,
                                                       DBUS_INTERFACE_DBUS, member));
    if (!call || BusLink::connection() == nullptr) {
        return false;
    }
    DBusMessageIter arguments;
    dbus_message_iter_init_append(call.get(), &arguments);
    if (argument != nullptr &&
        dbus_message_iter_append_basic(&arguments, DBUS_TYPE_STRING, &argument) == FALSE) {
        return false;
    }
    // A bus answers, or the connection to it ends. Either is told, so no time-out is needed.
    DBusPendingCall* pending = nullptr;
    if (dbus_connection_send_with_reply(BusLink::connection(), call.get(), &pending,
                                        DBUS_TIMEOUT_INFINITE) == FALSE ||
        pending == nullptr) { // null without a failure: the connection has ended
        return false;
    }
    pending_.reset(pending);
    if (dbus_pending_call_set_notify(pending, onReply, this, nullptr) == FALSE) {
        pending_.reset();
        return false;
    }
    answer_ = std::move(answer);
    if (dbus_pending_call_get_completed(pending) != FALSE) { // nobody is notified then
        take();
    }
    return true;
}

/// libdbus has the answer. Main loop's thread.
void BusQuestion::onReply(DBusPendingCall* /*pending*/, void* question) noexcept {
    static_cast<BusQuestion*>(question)->take();
}

void BusQuestion::take() {
    const BusPendingCall pending = std::move(pending_);
    const Answer answer = std::exchange(answer_, nullptr);
    const BusMessage reply(dbus_pending_call_steal_reply(pending.get()));
    answer(*reply); // this object may be gone afterwards
}

MatchRule::MatchRule(std::string rule) : rule_(std::move(rule)) {
    if (BusLink::connection() != nullptr) {
        dbus_bus_add_match(BusLink::connection(), rule_.c_str(), nullptr); // no error slot: no wait
    }
}

MatchRule::~MatchRule() {
    if (BusLink::connection() != nullptr) {
        dbus_bus_remove_match(BusLink::connection(), rule_.c_str(), nullptr);
    }
}

// -- texts ---------------------------------------------------------------------------------------

std::string toBusText(const std::string& text) {
    // The repair makes no text shorter. So only the rest of one character behind the limit can
    // matter.
    constexpr std::size_t kRestOfCharacter = 3;
    const std::size_t end =
        std::min(text.find('\0'), std::min(text.size(), kLongestText + kRestOfCharacter));
    const std::unique_ptr<gchar, GFree> valid(
        g_utf8_make_valid(text.data(), static_cast<gssize>(end)));
    const std::string result = limited(valid.get());
    // libdbus has the last word on what it accepts.
    return dbus_validate_utf8(result.c_str(), nullptr) != FALSE ? result : std::string();
}

std::vector<std::string> splitKeyList(const std::string& keys) {
    std::vector<std::string> lists;
    std::size_t begin = 0;
    while (keys.size() - begin > kLongestList) {
        const std::size_t blank = keys.rfind(' ', begin + kLongestList);
        if (blank == std::string::npos || blank <= begin) {
            break; // a key longer than a list does not exist
        }
        lists.push_back(keys.substr(begin, blank - begin));
        begin = blank + 1;
    }
    lists.push_back(keys.substr(begin));
    return lists;
}

} // namespace orvexd
