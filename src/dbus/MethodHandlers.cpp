// The dispatch, and what each incoming message does.

#include "core/OrvexMain.h"
#include "dbus/BusLink.h"
#include "dbus/DbusService.h"
#include "protocol/Codes.h"
#include "protocol/Names.h"

#include <array>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>

namespace orvexd {

namespace {

/// A byte-array argument, read in place; valid as long as its message.
using Bytes = std::string_view;

/// Reads one argument if it is of the wanted type.
template <int Type, typename Value> bool readBasic(DBusMessageIter& arguments, Value& value) {
    if (dbus_message_iter_get_arg_type(&arguments) != Type) {
        return false;
    }
    dbus_message_iter_get_basic(&arguments, &value);
    (void)dbus_message_iter_next(&arguments); // false at the end, which the next read sees itself
    return true;
}

bool readArgument(DBusMessageIter& arguments, dbus_uint32_t& value) {
    return readBasic<DBUS_TYPE_UINT32>(arguments, value);
}

bool readArgument(DBusMessageIter& arguments, const char*& text) {
    return readBasic<DBUS_TYPE_STRING>(arguments, text);
}

bool readArgument(DBusMessageIter& arguments, bool& value) {
    dbus_bool_t wide = FALSE; // four bytes on the wire, unlike bool
    const bool isRead = readBasic<DBUS_TYPE_BOOLEAN>(arguments, wide);
    value = wide != FALSE;
    return isRead;
}

bool readArgument(DBusMessageIter& arguments, Bytes& bytes) {
    if (dbus_message_iter_get_arg_type(&arguments) != DBUS_TYPE_ARRAY ||
        dbus_message_iter_get_element_type(&arguments) != DBUS_TYPE_BYTE) {
        return false;
    }
    DBusMessageIter elements;
    dbus_message_iter_recurse(&arguments, &elements);
    const char* data = nullptr; // stays null for an empty array
    int length = 0;
    dbus_message_iter_get_fixed_array(&elements, &data, &length);
    bytes = data == nullptr ? Bytes() : Bytes(data, static_cast<std::size_t>(length));
    (void)dbus_message_iter_next(&arguments);
    return true;
}

/// Reads the first arguments of a message, as dbus_message_get_args does; further ones are
/// accepted.
/// @throws int `code` when they are not of these types.
template <typename... Types> std::tuple<Types...> readArguments(DBusMessage& message, int code) {
    DBusMessageIter iterator;
    (void)dbus_message_iter_init(&message, &iterator); // false without arguments, as the reads see
    std::tuple<Types...> values;
    const bool areRead =
        std::apply([&](auto&... value) { return (readArgument(iterator, value) && ...); }, values);
    if (!areRead) {
        throw code;
    }
    return values;
}

BusMessage makeReturn(DBusMessage& call) {
    return BusMessage(dbus_message_new_method_return(&call));
}

template <int Type, typename Value> bool append(DBusMessage& reply, Value value) {
    return dbus_message_append_args(&reply, Type, &value, DBUS_TYPE_INVALID) != FALSE;
}

/// Sends the reply with one value in it. Nothing is sent when there is no memory for the value.
template <int Type, typename Value> DBusHandlerResult answer(BusMessage reply, Value value) {
    if (append<Type>(*reply, value)) {
        BusLink::sendOrThrow(std::move(reply));
    }
    return kHandled;
}

bool appendStatusVariant(DBusMessage& reply, dbus_uint32_t status) {
    DBusMessageIter arguments;
    DBusMessageIter variant;
    dbus_message_iter_init_append(&reply, &arguments);
    if (dbus_message_iter_open_container(&arguments, DBUS_TYPE_VARIANT, DBUS_TYPE_UINT32_AS_STRING,
                                         &variant) == FALSE) {
        return false;
    }
    if (dbus_message_iter_append_basic(&variant, DBUS_TYPE_UINT32, &status) == FALSE) {
        dbus_message_iter_abandon_container(&arguments, &variant);
        return false;
    }
    return dbus_message_iter_close_container(&arguments, &variant) != FALSE;
}

DBusHandlerResult replyPropertyError(DBusMessage& call, const char* text) {
    // The bare word is the name that this error has always had. It is not a valid error name, and
    // libdbus ends the process when it is asked for such a reply. So libdbus answers the caller.
    constexpr const char* kName = "error";
    if (dbus_validate_error_name(kName, nullptr) == FALSE) {
        return kNotHandled;
    }
    BusMessage reply(dbus_message_new_error(&call, kName, text));
    if (!reply) {
        return kNotHandled;
    }
    BusLink::sendOrThrow(std::move(reply));
    return kHandled;
}

} // namespace

// -- dispatch ------------------------------------------------------------------------------------

/// One row of the dispatch table.
struct DbusService::Member {
    int messageType;
    const char* interface;
    const char* name;
    Handler handler;
    const char* arguments; ///< signature of the arguments that the handler reads
    bool needsUser;        ///< what it does depends on whose it is
    bool keepsDaemon;      ///< when handled, even with an error, a delayed quit is called off
};

DBusHandlerResult DbusService::filter(DBusConnection* /*connection*/, DBusMessage* message,
                                      void* mainLoop) noexcept {
    DbusService* service = static_cast<IMainLoop*>(mainLoop)->getService();
    return service != nullptr ? service->dispatch(*message) : kNotHandled;
}

const DbusService::Member* DbusService::memberOf(DBusMessage& message) {
    constexpr int kCall = DBUS_MESSAGE_TYPE_METHOD_CALL;
    constexpr int kSignal = DBUS_MESSAGE_TYPE_SIGNAL;
    static constexpr auto kMembers = std::to_array<Member>({
        {kCall, bus::kInterface, bus::kQuit, &DbusService::onQuit, "", false, false},
        {kCall, bus::kInterface, bus::kQuitDelayed, &DbusService::onQuitDelayed, "", false, false},
        {kSignal, bus::kInterface, bus::kCancel, &DbusService::onCancel, "uu", true, false},
        {kCall, bus::kInterface, bus::kConnect, &DbusService::onConnect, "ayayayayayu", true, true},
        {kCall, bus::kInterface, bus::kDisconnect, &DbusService::onDisconnect, "u", true, false},
        {kCall, bus::kInterface, bus::kAttach, &DbusService::onAttach, "uuu", true, true},
        {kCall, bus::kInterface, bus::kPrepare, &DbusService::onPrepare, "uuu", true, true},
        {kCall, bus::kInterface, bus::kSendData, &DbusService::onSendData, "aybuu", true, false},
        {kCall, bus::kInterface, bus::kGetData, &DbusService::onGetData, "uu", true, false},
        {kCall, bus::kPropertiesInterface, "Get", &DbusService::onGetProperty, "ss", false, false},
    });
    for (const Member& member : kMembers) {
        const auto matches =
            member.messageType == kSignal ? dbus_message_is_signal : dbus_message_is_method_call;
        if (matches(&message, member.interface, member.name) != FALSE) {
            return &member;
        }
    }
    return nullptr;
}

DBusHandlerResult DbusService::dispatch(DBusMessage& message) {
    if (watch_ != nullptr) {
        onNameOwnerChanged(message);
    }
    const Member* const member = memberOf(message);
    return member != nullptr ? clients_.receive(message, member->arguments, member->needsUser)
                             : kNotHandled;
}

DBusHandlerResult DbusService::onMessage(DBusMessage& message, const Client& client) {
    const Member& member = *memberOf(message);
    const auto keepDaemon = [&] {
        if (member.keepsDaemon) {
            delayedQuit_.cancel();
        }
    };
    try {
        const DBusHandlerResult result = handle(member.handler, message, client);
        if (result == kHandled) {
            keepDaemon();
        }
        return result;
    } catch (const LimitExceeded&) {
        keepDaemon(); // an error is an answer, too
        throw;
    }
}

/// The one place where a failure becomes an error reply. A limit's refusal goes on to the caller,
/// since giving back what clients have left behind may help first.
DBusHandlerResult DbusService::handle(Handler handler, DBusMessage& message, const Client& client) {
    try {
        return (this->*handler)(message, client);
    } catch (int code) {
        BusLink::sendError(message, code);
        return kHandled;
    }
}

// -- handlers ------------------------------------------------------------------------------------

DBusHandlerResult DbusService::onConnect(DBusMessage& call, const Client& client) {
    BusMessage reply = makeReturn(call);
    if (!reply) {
        return kHandled;
    }
    const auto [elementName, type, version, transferEncoding, contentType, chunkSize] =
        readArguments<Bytes, Bytes, Bytes, Bytes, Bytes, dbus_uint32_t>(call,
                                                                        failure::kBadArguments);
    const dbus_uint32_t connectionId = core_->openConnection(
        elementName, type, version, transferEncoding, contentType, chunkSize, client);
    return answer<DBUS_TYPE_UINT32>(std::move(reply), connectionId);
}

DBusHandlerResult DbusService::onDisconnect(DBusMessage& call, const Client& client) {
    // The error carries 0, the result of the failed reading, instead of a code.
    const auto [connectionId] = readArguments<dbus_uint32_t>(call, failure::kNone);
    core_->closeConnection(connectionId, client);
    BusMessage reply = makeReturn(call);
    if (!reply) {
        return kNotHandled;
    }
    BusLink::sendOrThrow(std::move(reply));
    return kHandled;
}

DBusHandlerResult DbusService::onAttach(DBusMessage& call, const Client& client) {
    return createRequest(call, client, &OrvexMain::attachRequest);
}

DBusHandlerResult DbusService::onPrepare(DBusMessage& call, const Client& client) {
    return createRequest(call, client, &OrvexMain::prepareRequest);
}

DBusHandlerResult DbusService::createRequest(DBusMessage& call, const Client& client,
                                             CreateRequest create) {
    if (locationSettings_ && !locationSettings_->isNetworkPositioningPermitted()) {
        throw failure::kNotPermitted;
    }
    const auto [connectionId, connectionPolicy, openDuration] =
        readArguments<dbus_uint32_t, dbus_uint32_t, dbus_uint32_t>(call, failure::kBadArguments);
    BusMessage reply = makeReturn(call);
    if (!reply) {
        return kNotHandled;
    }
    return answer<DBUS_TYPE_UINT32>(
        std::move(reply),
        dbus_uint32_t{(*core_.*create)(connectionId, connectionPolicy, openDuration, client)});
}

DBusHandlerResult DbusService::onSendData(DBusMessage& call, const Client& client) {
    BusMessage reply = makeReturn(call);
    if (!reply) {
        return kHandled;
    }
    const auto [data, last, connectionId, requestId] =
        readArguments<Bytes, bool, dbus_uint32_t, dbus_uint32_t>(call, failure::kBadArguments);
    const dbus_int32_t result = core_->sendData(data, last, connectionId, requestId, client);
    if (!append<DBUS_TYPE_INT32>(*reply, result)) {
        return kHandled;
    }
    if (result == failure::kNone && core_->isUploadCrowded(connectionId, requestId)) {
        heldSends_.hold(connectionId, requestId, std::move(reply));
    } else {
        BusLink::sendOrThrow(std::move(reply));
    }
    return kHandled;
}

DBusHandlerResult DbusService::onGetData(DBusMessage& call, const Client& client) {
    const auto [connectionId, requestId] =
        readArguments<dbus_uint32_t, dbus_uint32_t>(call, failure::kBadArguments);
    core_->getData(connectionId, requestId,
                   client); // the chunk comes with a post, never within this call
    pending_.hold(connectionId, requestId, call);
    return kHandled;
}

DBusHandlerResult DbusService::onCancel(DBusMessage& signal, const Client& client) {
    // As for disconnect; the error goes to the signal's sender.
    const auto [connectionId, requestId] =
        readArguments<dbus_uint32_t, dbus_uint32_t>(signal, failure::kNone);
    core_->cancelRequest(connectionId, requestId, client);
    return kHandled;
}

DBusHandlerResult DbusService::onQuit(DBusMessage& call, const Client& /*client*/) {
    return quit(&call);
}

DBusHandlerResult DbusService::quit(DBusMessage* call) {
    core_->shutdown();
    pending_.clear();
    heldSends_.releaseAll();
    clients_.clear();
    if (call != nullptr) {
        BusLink::sendOrThrow(makeReturn(*call));
    }
    mainLoop_.quit();
    return kHandled;
}

DBusHandlerResult DbusService::onQuitDelayed(DBusMessage& call, const Client& /*client*/) {
    if (!delayedQuit_.isPending()) {
        delayedQuit_.start(shutdownDelay_, [this] { quit(nullptr); });
    }
    BusLink::sendOrThrow(makeReturn(call));
    return kHandled;
}

DBusHandlerResult DbusService::onGetProperty(DBusMessage& call, const Client& /*client*/) {
    const char* interface = nullptr;
    const char* property = nullptr;
    try {
        std::tie(interface, property) =
            readArguments<const char*, const char*>(call, failure::kBadArguments);
    } catch (int) {
        return replyPropertyError(call, "invalid args to Get"); // in words, without a code
    }
    if (std::string_view(interface) != bus::kInterface ||
        std::string_view(property) != bus::kConnectionStatus) {
        return replyPropertyError(call, "non-existing property requested");
    }
    BusMessage reply = makeReturn(call);
    if (!reply) {
        return kNotHandled;
    }
    if (appendStatusVariant(*reply, core_->connectionStatus())) {
        BusLink::sendOrThrow(std::move(reply));
    }
    return kHandled;
}

} // namespace orvexd
