#include "Client.h"

#include "Bus.h"
#include "PendingCall.h"

#include <algorithm>
#include <limits>

namespace orvexd::ctl {
namespace {

/// The daemon ends its exchange before it answers, which may take one wait for data: 90 s.
constexpr int kQuitTimeoutMs = 150 * 1000;
constexpr int kNoTimeout = std::numeric_limits<int>::max();

/// A floating "ay"; every byte counts, also zero.
GVariant* byteArray(const std::string& text) {
    return g_variant_new_fixed_array(G_VARIANT_TYPE_BYTE, text.data(), text.size(), 1);
}

void throwIfSet(const ErrorSlot& error) {
    if (error) {
        throw Failure::fromBus(*error);
    }
}

} // namespace

Client::Client() : bus_{connectToSystemBus()} {
    // The daemon does not answer GetAll, which the proxy would call to load properties.
    constexpr auto kFlags =
        static_cast<GDBusProxyFlags>(G_DBUS_PROXY_FLAGS_DO_NOT_LOAD_PROPERTIES |
                                     G_DBUS_PROXY_FLAGS_DO_NOT_AUTO_START_AT_CONSTRUCTION);
    ErrorSlot error;
    gateway_.reset(orvexd_gateway_proxy_new_sync(bus_.get(), kFlags, kBusName, kObjectPath, nullptr,
                                                 error.out()));
    throwIfSet(error);
    g_signal_connect(gateway_.get(), "connection-status-changed", G_CALLBACK(statusChanged), this);
    g_signal_connect(gateway_.get(), "request-data", G_CALLBACK(requestData), this);
    g_signal_connect(gateway_.get(), "error-signal", G_CALLBACK(errorSignal), this);
    g_signal_connect(gateway_.get(), "notify::g-name-owner", G_CALLBACK(ownerChanged), this);
    g_signal_connect(bus_.get(), "closed", G_CALLBACK(busClosed), this);
    // The proxy passes on what the daemon sends; this signal comes from clients.
    cancelSubscription_ = g_dbus_connection_signal_subscribe(
        bus_.get(), nullptr, kInterface, "cancel", nullptr, nullptr, G_DBUS_SIGNAL_FLAGS_NONE,
        cancelled, this, nullptr);
    ownerChanged(nullptr, nullptr, this);
}

Client::~Client() {
    g_dbus_connection_signal_unsubscribe(bus_.get(), cancelSubscription_);
    g_signal_handlers_disconnect_by_data(gateway_.get(), this);
    g_signal_handlers_disconnect_by_data(bus_.get(), this);
}

void Client::setCallTimeout(std::chrono::seconds timeout) {
    constexpr std::chrono::seconds kLongest{kNoTimeout / 1000};
    timeoutMs_ = timeout.count() == 0
                     ? kNoTimeout
                     : static_cast<int>(std::min(timeout, kLongest).count() * 1000);
}

std::uint32_t Client::connectionStatus() {
    ErrorSlot error;
    const VariantRef reply{g_dbus_connection_call_sync(
        bus_.get(), kBusName, kObjectPath, "org.freedesktop.DBus.Properties", "Get",
        g_variant_new("(ss)", kInterface, "connectionStatus"), G_VARIANT_TYPE("(v)"),
        G_DBUS_CALL_FLAGS_NONE, timeoutMs_, nullptr, error.out())};
    throwIfSet(error);
    GVariant* boxed = nullptr;
    g_variant_get(reply.get(), "(v)", &boxed);
    const VariantRef status{boxed};
    if (g_variant_is_of_type(status.get(), G_VARIANT_TYPE_UINT32) == FALSE) {
        throw Failure::fromCode(2002);
    }
    return g_variant_get_uint32(status.get());
}

void Client::ping() {
    ErrorSlot error;
    const VariantRef reply{g_dbus_connection_call_sync(
        bus_.get(), kBusName, kObjectPath, "org.freedesktop.DBus.Peer", "Ping", nullptr, nullptr,
        G_DBUS_CALL_FLAGS_NO_AUTO_START, timeoutMs_, nullptr, error.out())};
    throwIfSet(error);
}

void Client::quit(bool delayed) {
    ErrorSlot error;
    const auto call =
        delayed ? orvexd_gateway_call_quit_delayed_sync : orvexd_gateway_call_quit_sync;
    call(gateway_.get(), G_DBUS_CALL_FLAGS_NO_AUTO_START, kQuitTimeoutMs, nullptr, error.out());
    throwIfSet(error);
}

void Client::openConnection(const ConnectionValues& values, Handler<std::uint32_t> handler) {
    const auto finish = [](GObject* gateway, GAsyncResult* result) -> Outcome<std::uint32_t> {
        ErrorSlot error;
        guint id = 0;
        if (orvexd_gateway_call_connect_finish(ORVEXD_GATEWAY(gateway), &id, result, error.out()) ==
            FALSE) {
            return Failure::fromBus(*error);
        }
        return id;
    };
    orvexd_gateway_call_connect(gateway_.get(), byteArray(values.elementName),
                                byteArray(values.type), byteArray(values.version),
                                byteArray(values.transferEncoding), byteArray(values.contentType),
                                values.chunkSize, G_DBUS_CALL_FLAGS_NONE, timeoutMs_, nullptr,
                                PendingCall<std::uint32_t>::finished,
                                PendingCall<std::uint32_t>::start(std::move(handler), finish));
}

void Client::createRequest(std::uint32_t connection, const RequestValues& values,
                           Handler<std::uint32_t> handler) {
    const auto call = values.attach ? orvexd_gateway_call_attach : orvexd_gateway_call_prepare;
    const auto read =
        values.attach ? orvexd_gateway_call_attach_finish : orvexd_gateway_call_prepare_finish;
    const auto finish = [read](GObject* gateway, GAsyncResult* result) -> Outcome<std::uint32_t> {
        ErrorSlot error;
        guint id = 0;
        if (read(ORVEXD_GATEWAY(gateway), &id, result, error.out()) == FALSE) {
            return Failure::fromBus(*error);
        }
        return id;
    };
    call(gateway_.get(), connection, values.policy, values.openDuration,
         G_DBUS_CALL_FLAGS_NO_AUTO_START, timeoutMs_, nullptr, PendingCall<std::uint32_t>::finished,
         PendingCall<std::uint32_t>::start(std::move(handler), finish));
}

void Client::sendPiece(std::uint32_t connection, std::uint32_t request, GBytes* bytes, bool last,
                       Handler<Done> handler) {
    const auto finish = [](GObject* gateway, GAsyncResult* result) -> Outcome<Done> {
        ErrorSlot error;
        gint code = 0;
        if (orvexd_gateway_call_send_data_finish(ORVEXD_GATEWAY(gateway), &code, result,
                                                 error.out()) == FALSE) {
            return Failure::fromBus(*error);
        }
        if (code != 0) {
            return Failure::fromCode(static_cast<std::uint32_t>(code));
        }
        return Done{};
    };
    orvexd_gateway_call_send_data(
        gateway_.get(), g_variant_new_from_bytes(G_VARIANT_TYPE("ay"), bytes, TRUE),
        last ? TRUE : FALSE, connection, request, G_DBUS_CALL_FLAGS_NO_AUTO_START, timeoutMs_,
        nullptr, PendingCall<Done>::finished, PendingCall<Done>::start(std::move(handler), finish));
}

void Client::fetchChunk(std::uint32_t connection, std::uint32_t request, GCancellable* cancellable,
                        Handler<Chunk> handler) {
    const auto finish = [](GObject* gateway, GAsyncResult* result) -> Outcome<Chunk> {
        ErrorSlot error;
        GVariant* bytes = nullptr;
        guint code = 0;
        if (orvexd_gateway_call_get_data_finish(ORVEXD_GATEWAY(gateway), &bytes, &code, result,
                                                error.out()) == FALSE) {
            return Failure::fromBus(*error);
        }
        return Chunk{VariantRef{bytes}, static_cast<Delivery>(code)};
    };
    orvexd_gateway_call_get_data(gateway_.get(), connection, request,
                                 G_DBUS_CALL_FLAGS_NO_AUTO_START, kNoTimeout, cancellable,
                                 PendingCall<Chunk>::finished,
                                 PendingCall<Chunk>::start(std::move(handler), finish));
}

void Client::closeConnection(std::uint32_t connection, Handler<Done> handler) {
    const auto finish = [](GObject* gateway, GAsyncResult* result) -> Outcome<Done> {
        ErrorSlot error;
        if (orvexd_gateway_call_disconnect_finish(ORVEXD_GATEWAY(gateway), result, error.out()) ==
            FALSE) {
            return Failure::fromBus(*error);
        }
        return Done{};
    };
    orvexd_gateway_call_disconnect(gateway_.get(), connection, G_DBUS_CALL_FLAGS_NO_AUTO_START,
                                   timeoutMs_, nullptr, PendingCall<Done>::finished,
                                   PendingCall<Done>::start(std::move(handler), finish));
}

void Client::cancel(std::uint32_t connection, std::uint32_t request) {
    // Broadcast, as the daemon's own signals are: monitors see who cancelled what. It can fail only
    // on a closed connection, which onGone tells.
    (void)g_dbus_connection_emit_signal(bus_.get(), nullptr, kObjectPath, kInterface, "cancel",
                                        g_variant_new("(uu)", connection, request), nullptr);
}

void Client::statusChanged(OrvexdGateway* /*gateway*/, guint status, gpointer self) noexcept {
    const auto& client = *static_cast<Client*>(self);
    if (client.onStatusChanged) {
        client.onStatusChanged(status);
    }
}

void Client::requestData(OrvexdGateway* /*gateway*/, guint connection, guint request,
                         gpointer self) noexcept {
    const auto& client = *static_cast<Client*>(self);
    if (client.onRequestData) {
        client.onRequestData(connection, request);
    }
}

void Client::errorSignal(OrvexdGateway* /*gateway*/, guint code, const char* message,
                         const char* keys, gpointer self) noexcept {
    const auto& client = *static_cast<Client*>(self);
    if (client.onError) {
        client.onError(Failure::fromCode(code, message), keys);
    }
}

void Client::cancelled(GDBusConnection* /*bus*/, const char* /*sender*/, const char* /*path*/,
                       const char* /*interface*/, const char* /*name*/, GVariant* arguments,
                       gpointer self) noexcept {
    const auto& client = *static_cast<Client*>(self);
    if (!client.onCancelled || g_variant_is_of_type(arguments, G_VARIANT_TYPE("(uu)")) == FALSE) {
        return;
    }
    guint connection = 0;
    guint request = 0;
    g_variant_get(arguments, "(uu)", &connection, &request);
    client.onCancelled(connection, request);
}

void Client::ownerChanged(GObject* /*gateway*/, GParamSpec* /*property*/, gpointer self) noexcept {
    auto& client = *static_cast<Client*>(self);
    const TextRef name{g_dbus_proxy_get_name_owner(G_DBUS_PROXY(client.gateway_.get()))};
    const std::string before = client.owner_;
    client.owner_ = name == nullptr ? "" : name.get();
    if (!before.empty() && client.owner_ != before) {
        client.gone();
    }
}

void Client::busClosed(GDBusConnection* /*bus*/, gboolean /*vanished*/, GError* /*error*/,
                       gpointer self) noexcept {
    static_cast<Client*>(self)->gone();
}

void Client::gone() const {
    if (onGone) {
        onGone();
    }
}

} // namespace orvexd::ctl
