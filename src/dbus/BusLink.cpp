#include "dbus/BusLink.h"

#include "protocol/Codes.h"
#include "protocol/Names.h"

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
    BusMessage reply(
        dbus_message_new_error_printf(&call, bus::kErrorName, "(%d) %s", code, "unspecifiedError"));
    if (!reply) {
        throw std::string("error: no memory for an error reply -> EXIT");
    }
    sendOrThrow(std::move(reply));
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
