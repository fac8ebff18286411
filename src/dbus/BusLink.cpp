#include "dbus/BusLink.h"

#include "protocol/Codes.h"
#include "protocol/Names.h"

#include <algorithm>
#include <glib.h>
#include <memory>
#include <utility>

namespace orvexd {

namespace {

// U+FFFD takes three bytes for one: together below the 32 MiB at which a bus disconnects the
// sender.
constexpr std::size_t kLongestText = std::size_t{4} * 1024 * 1024;
constexpr std::size_t kLongestList = std::size_t{16} * 1024 * 1024;

struct GFree {
    void operator()(gchar* text) const noexcept { g_free(text); }
};

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
    BusMessage reply(
        dbus_message_new_error_printf(&call, bus::kErrorName, "(%d) %s", code, "unspecifiedError"));
    if (!reply) {
        throw std::string("error: no memory for an error reply -> EXIT");
    }
    sendOrThrow(std::move(reply));
}

// -- texts ---------------------------------------------------------------------------------------

std::string toBusText(const std::string& text) {
    const std::size_t end = std::min(text.find('\0'), std::min(text.size(), kLongestText));
    const std::unique_ptr<gchar, GFree> valid(
        g_utf8_make_valid(text.data(), static_cast<gssize>(end)));
    // libdbus has the last word on what it accepts.
    return dbus_validate_utf8(valid.get(), nullptr) != FALSE ? std::string(valid.get())
                                                             : std::string();
}

std::vector<std::string> splitKeyList(const std::string& keys) {
    std::vector<std::string> lists;
    std::size_t begin = 0;
    while (keys.size() - begin > kLongestList) {
        const std::size_t blank = keys.rfind(' ', begin + kLongestList);
        if (blank == std::string::npos || blank <= begin) {
            break; // one key longer than a list: there is none
        }
        lists.push_back(keys.substr(begin, blank - begin));
        begin = blank + 1;
    }
    lists.push_back(keys.substr(begin));
    return lists;
}

} // namespace orvexd
