// What each incoming message does. The dispatcher holds the bus mutex around every handler.

#include "core/RequestKey.h"
#include "dbus/BusLink.h"
#include "dbus/BusNames.h"
#include "dbus/DbusService.h"
#include "support/FailureCode.h"

#include <string>
#include <string_view>
#include <utility>

namespace orvexd {

namespace {

/// A byte-array argument, read in place; valid as long as its message.
struct ByteArray {
    const char* bytes = nullptr; // libdbus gives null for an empty array
    int length = 0;

    std::string_view view() const noexcept {
        return bytes == nullptr ? std::string_view()
                                : std::string_view(bytes, static_cast<std::size_t>(length));
    }
    std::string text() const { return std::string(view()); }
};

/// Reads arguments as dbus_message_get_args does: further ones behind them are accepted.
template <typename... Arguments> bool readArguments(DBusMessage& message, Arguments... arguments) {
    BusError error;
    return dbus_message_get_args(&message, error.get(), arguments..., DBUS_TYPE_INVALID) != FALSE;
}

template <typename... Arguments> bool append(const BusMessage& reply, Arguments... arguments) {
    return dbus_message_append_args(reply.get(), arguments..., DBUS_TYPE_INVALID) != FALSE;
}

BusMessage makeReturn(DBusMessage& call) {
    return BusMessage(dbus_message_new_method_return(&call));
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

} // namespace

DBusHandlerResult DbusService::onConnect(DBusMessage& call) {
    BusMessage reply = makeReturn(call);
    if (!reply) {
        return DBUS_HANDLER_RESULT_HANDLED;
    }
    ByteArray elementName;
    ByteArray type;
    ByteArray version;
    ByteArray transferEncoding;
    ByteArray contentType;
    dbus_uint32_t chunkSize = 0;
    if (!readArguments(call, DBUS_TYPE_ARRAY, DBUS_TYPE_BYTE, &elementName.bytes,
                       &elementName.length, DBUS_TYPE_ARRAY, DBUS_TYPE_BYTE, &type.bytes,
                       &type.length, DBUS_TYPE_ARRAY, DBUS_TYPE_BYTE, &version.bytes,
                       &version.length, DBUS_TYPE_ARRAY, DBUS_TYPE_BYTE, &transferEncoding.bytes,
                       &transferEncoding.length, DBUS_TYPE_ARRAY, DBUS_TYPE_BYTE,
                       &contentType.bytes, &contentType.length, DBUS_TYPE_UINT32, &chunkSize)) {
        BusLink::sendError(call, failure::kBadArguments);
        return DBUS_HANDLER_RESULT_HANDLED;
    }
    const dbus_uint32_t connectionId =
        core_->openConnection(elementName.text(), type.text(), version.text(),
                              transferEncoding.text(), contentType.text(), chunkSize);
    if (append(reply, DBUS_TYPE_UINT32, &connectionId)) {
        BusLink::sendOrThrow(std::move(reply));
    }
    return DBUS_HANDLER_RESULT_HANDLED;
}

DBusHandlerResult DbusService::onDisconnect(DBusMessage& call) {
    dbus_uint32_t connectionId = 0;
    if (!readArguments(call, DBUS_TYPE_UINT32, &connectionId)) {
        BusLink::sendError(call, failure::kNone); // the failed reading's result stands for a code
        return DBUS_HANDLER_RESULT_HANDLED;
    }
    core_->closeConnection(connectionId);
    BusMessage reply = makeReturn(call);
    if (!reply) {
        return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
    }
    BusLink::sendOrThrow(std::move(reply));
    return DBUS_HANDLER_RESULT_HANDLED;
}

DBusHandlerResult DbusService::onAttach(DBusMessage& call) {
    return createRequest(call, &OrvexMain::attachRequest);
}

DBusHandlerResult DbusService::onPrepare(DBusMessage& call) {
    return createRequest(call, &OrvexMain::prepareRequest);
}

DBusHandlerResult DbusService::createRequest(DBusMessage& call, CreateRequest create) {
    if (locationSettings_ && !locationSettings_->isNetworkPositioningPermitted()) {
        BusLink::sendError(call, failure::kNotPermitted);
        return DBUS_HANDLER_RESULT_HANDLED;
    }
    dbus_uint32_t connectionId = 0;
    dbus_uint32_t connectionPolicy = 0;
    dbus_uint32_t openDuration = 0;
    if (!readArguments(call, DBUS_TYPE_UINT32, &connectionId, DBUS_TYPE_UINT32, &connectionPolicy,
                       DBUS_TYPE_UINT32, &openDuration)) {
        BusLink::sendError(call, failure::kBadArguments);
        return DBUS_HANDLER_RESULT_HANDLED;
    }
    BusMessage reply = makeReturn(call);
    if (!reply) {
        return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
    }
    try {
        const dbus_uint32_t requestId =
            (*core_.*create)(connectionId, connectionPolicy, openDuration);
        if (append(reply, DBUS_TYPE_UINT32, &requestId)) {
            BusLink::sendOrThrow(std::move(reply));
        }
    } catch (int code) {
        BusLink::sendError(call, code);
    }
    return DBUS_HANDLER_RESULT_HANDLED;
}

DBusHandlerResult DbusService::onSendData(DBusMessage& call) {
    BusMessage reply = makeReturn(call);
    if (!reply) {
        return DBUS_HANDLER_RESULT_HANDLED;
    }
    ByteArray data;
    dbus_bool_t lastPart = FALSE; // four bytes on the wire, unlike bool
    dbus_uint32_t connectionId = 0;
    dbus_uint32_t requestId = 0;
    if (!readArguments(call, DBUS_TYPE_ARRAY, DBUS_TYPE_BYTE, &data.bytes, &data.length,
                       DBUS_TYPE_BOOLEAN, &lastPart, DBUS_TYPE_UINT32, &connectionId,
                       DBUS_TYPE_UINT32, &requestId)) {
        BusLink::sendError(call, failure::kBadArguments);
        return DBUS_HANDLER_RESULT_HANDLED;
    }
    const dbus_int32_t result =
        core_->sendData(data.view(), lastPart != FALSE, connectionId, requestId);
    if (append(reply, DBUS_TYPE_INT32, &result)) {
        BusLink::sendOrThrow(std::move(reply));
    }
    return DBUS_HANDLER_RESULT_HANDLED;
}

DBusHandlerResult DbusService::onGetData(DBusMessage& call) {
    dbus_uint32_t connectionId = 0;
    dbus_uint32_t requestId = 0;
    if (!readArguments(call, DBUS_TYPE_UINT32, &connectionId, DBUS_TYPE_UINT32, &requestId)) {
        BusLink::sendError(call, failure::kBadArguments);
        return DBUS_HANDLER_RESULT_HANDLED;
    }
    const std::string key = requestKey(connectionId, requestId);
    pending_.hold(key, call);
    try {
        core_->getData(connectionId, requestId);
    } catch (int code) {
        BusLink::sendError(call, code);
        // The call is answered. Held on, it would never leave again, and anybody on the bus could
        // fill the memory with calls for requests that do not exist.
        pending_.drop(key);
    }
    return DBUS_HANDLER_RESULT_HANDLED;
}

DBusHandlerResult DbusService::onCancel(DBusMessage& signal) {
    dbus_uint32_t connectionId = 0;
    dbus_uint32_t requestId = 0;
    if (readArguments(signal, DBUS_TYPE_UINT32, &connectionId, DBUS_TYPE_UINT32, &requestId)) {
        core_->cancelRequest(connectionId, requestId);
    } else {
        BusLink::sendError(signal, failure::kNone); // as for disconnect
    }
    return DBUS_HANDLER_RESULT_HANDLED;
}

DBusHandlerResult DbusService::onQuit(DBusMessage& call) {
    return quit(&call);
}

DBusHandlerResult DbusService::quit(DBusMessage* call) {
    const RecursiveLock guard(BusLink::mutex());
    core_->shutdown();
    pending_.clear();
    if (call != nullptr) {
        BusLink::sendOrThrow(makeReturn(*call));
    }
    mainLoop_.quit();
    return DBUS_HANDLER_RESULT_HANDLED;
}

DBusHandlerResult DbusService::onQuitDelayed(DBusMessage& call) {
    if (!delayedQuit_.isPending()) {
        delayedQuit_.start(shutdownDelay_, [this] { quit(nullptr); });
    }
    BusLink::sendOrThrow(makeReturn(call));
    return DBUS_HANDLER_RESULT_HANDLED;
}

DBusHandlerResult DbusService::onGetProperty(DBusMessage& call) {
    const char* interface = nullptr;
    const char* property = nullptr;
    if (!readArguments(call, DBUS_TYPE_STRING, &interface, DBUS_TYPE_STRING, &property)) {
        return replyPropertyError(call, "invalid args to Get");
    }
    if (std::string_view(interface) != bus::kInterface ||
        std::string_view(property) != "connectionStatus") {
        return replyPropertyError(call, "non-existing property requested");
    }
    return replyConnectionStatus(call);
}

DBusHandlerResult DbusService::replyConnectionStatus(DBusMessage& call) {
    BusMessage reply = makeReturn(call);
    if (!reply) {
        return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
    }
    if (appendStatusVariant(*reply, core_->connectionStatus())) {
        BusLink::sendOrThrow(std::move(reply));
    }
    return DBUS_HANDLER_RESULT_HANDLED;
}

DBusHandlerResult DbusService::replyPropertyError(DBusMessage& call, const char* text) {
    // The bare word is the name that this error has always had. It is no valid error name, and
    // libdbus ends the process when asked for such a reply: the caller is left to libdbus instead.
    constexpr const char* kName = "error";
    if (dbus_validate_error_name(kName, nullptr) == FALSE) {
        return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
    }
    BusMessage reply(dbus_message_new_error(&call, kName, text));
    if (!reply) {
        return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
    }
    BusLink::sendOrThrow(std::move(reply));
    return DBUS_HANDLER_RESULT_HANDLED;
}

} // namespace orvexd
