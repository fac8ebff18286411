// The outgoing side of the service: signals and held replies, as the posts of the core ask for
// them.

#include "dbus/BusLink.h"
#include "dbus/DbusService.h"
#include "protocol/Codes.h"
#include "protocol/Names.h"
#include "request/Answer.h"

#include <utility>

namespace orvexd {

namespace {

/// Emits a signal; one that cannot be made or sent is skipped.
template <typename... Arguments> void emitSignal(const char* member, Arguments... arguments) {
    BusMessage message;
    if (BusLink::createSignal(member, message) != failure::kNone) {
        return;
    }
    if (dbus_message_append_args(message.get(), arguments..., DBUS_TYPE_INVALID) != FALSE) {
        (void)dbus_connection_send(BusLink::connection(), message.get(), nullptr);
    }
}

} // namespace

bool DbusService::isExchangePermitted() {
    // The platform may report while this service is being built and has no settings yet. Nobody
    // forbids an exchange then.
    return !locationSettings_ || locationSettings_->isNetworkPositioningEnabled();
}

void DbusService::emitConnectionStatusChanged(std::uint32_t status) {
    const dbus_uint32_t value = status;
    emitSignal(bus::kConnectionStatusChanged, DBUS_TYPE_UINT32, &value);
}

void DbusService::emitRequestData(std::uint32_t connectionId, std::uint32_t requestId) {
    const dbus_uint32_t connection = connectionId;
    const dbus_uint32_t request = requestId;
    emitSignal(bus::kRequestData, DBUS_TYPE_UINT32, &connection, DBUS_TYPE_UINT32, &request);
}

void DbusService::emitErrorSignal(std::uint32_t code, const std::string& message,
                                  const std::string& requests) {
    const dbus_uint32_t value = code;
    const std::string text = toBusText(message);
    const char* messageArgument = text.c_str();
    for (const std::string& keys : splitKeyList(requests)) {
        const char* requestsArgument = keys.c_str(); // digits, colons and blanks
        emitSignal(bus::kErrorSignal, DBUS_TYPE_UINT32, &value, DBUS_TYPE_STRING, &messageArgument,
                   DBUS_TYPE_STRING, &requestsArgument);
    }
}

void DbusService::deliverChunk(std::uint32_t connectionId, std::uint32_t requestId,
                               const std::string& bytes, DeliveryCode code) {
    BusMessage reply = pending_.take(connectionId, requestId);
    if (!reply) {
        return;
    }
    const char* data = bytes.data();
    const int length = static_cast<int>(bytes.size()); // bounded by Answer::kLargestChunk
    const auto deliveryCode = static_cast<dbus_uint32_t>(code);
    if (dbus_message_append_args(reply.get(), DBUS_TYPE_ARRAY, DBUS_TYPE_BYTE, &data, length,
                                 DBUS_TYPE_UINT32, &deliveryCode, DBUS_TYPE_INVALID) != FALSE) {
        BusLink::sendOrThrow(std::move(reply));
    }
}

void DbusService::resumeUpload(std::uint32_t connectionId, std::uint32_t requestId) {
    heldSends_.release(connectionId, requestId);
}

void DbusService::dropPending(std::uint32_t connectionId, std::uint32_t requestId) {
    pending_.drop(connectionId, requestId);
    heldSends_.release(connectionId, requestId);
}

} // namespace orvexd
