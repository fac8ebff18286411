// The outgoing side of the service: signals and held replies, as the posts of the core ask for
// them; and clients that leave the bus.

#include "dbus/BusLink.h"
#include "dbus/DbusService.h"
#include "protocol/Codes.h"
#include "protocol/Names.h"
#include "request/Answer.h"
#include "support/Probes.h"

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
    probe::requestsFailed(code, message.data(), message.size(), requests.c_str());
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
        probe::chunkDelivered(connectionId, requestId, deliveryCode, bytes.size());
    }
}

void DbusService::resumeUpload(std::uint32_t connectionId, std::uint32_t requestId) {
    heldSends_.release(connectionId, requestId);
}

void DbusService::dropPending(std::uint32_t connectionId, std::uint32_t requestId) {
    pending_.drop(connectionId, requestId);
    heldSends_.release(connectionId, requestId);
}

// -- clients that leave the bus ------------------------------------------------------------------

DbusService::Watch::Watch(const std::string& client)
    : name(client),
      rule("type='signal',sender='" DBUS_SERVICE_DBUS "',interface='" DBUS_INTERFACE_DBUS
           "',member='NameOwnerChanged',arg0='" +
           client + "'") {}

void DbusService::watchClient(const std::string& name) {
    watch_.reset();
    if (name.empty()) {
        return;
    }
    watch_ = std::make_unique<Watch>(name);
    // Behind the rule: whoever leaves from now on is told, and this tells who has left before.
    const bool isAsked =
        watch_->question.ask("NameHasOwner", name.c_str(), [this](DBusMessage& reply) {
            dbus_bool_t hasOwner = TRUE;
            if (dbus_message_get_args(&reply, nullptr, DBUS_TYPE_BOOLEAN, &hasOwner,
                                      DBUS_TYPE_INVALID) != FALSE &&
                hasOwner == FALSE) {
                onWatchedClientLeft();
            }
        });
    (void)isAsked; // whoever cannot be asked for is taken to be there
}

void DbusService::onNameOwnerChanged(DBusMessage& signal) {
    const char* name = nullptr;
    const char* before = nullptr;
    const char* now = nullptr;
    // Anybody may send a signal of this name. The bus says who sent it.
    if (dbus_message_is_signal(&signal, DBUS_INTERFACE_DBUS, "NameOwnerChanged") != FALSE &&
        dbus_message_has_sender(&signal, DBUS_SERVICE_DBUS) != FALSE &&
        dbus_message_get_args(&signal, nullptr, DBUS_TYPE_STRING, &name, DBUS_TYPE_STRING, &before,
                              DBUS_TYPE_STRING, &now, DBUS_TYPE_INVALID) != FALSE &&
        watch_->name == name && *now == '\0') {
        onWatchedClientLeft();
    }
}

/// A unique name that has left never comes back: the watch is over.
void DbusService::onWatchedClientLeft() {
    watch_.reset();
    core_->onWatchedClientLeft();
}

void DbusService::onMemoryShort() {
    clients_.requestMemory();
}

void DbusService::beginGivingBack(const ClientCalls::Names& onBus) {
    departed_ =
        core_->findDeparted([&onBus](const std::string& name) { return onBus.contains(name); });
}

void DbusService::giveBackMemory() {
    core_->giveBackMemory(departed_);
}

bool DbusService::giveBack(const LimitExceeded& refusal) {
    return core_->giveBack(departed_, refusal);
}

void DbusService::endGivingBack() {
    departed_ = {};
}

} // namespace orvexd
