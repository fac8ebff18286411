#include "Bus.h"

namespace orvexd::bench {

namespace {

constexpr std::chrono::seconds kPatience(60);

BusMessage checked(DBusMessage* message) {
    if (message == nullptr) {
        throw std::runtime_error("no memory for a message");
    }
    return BusMessage(message);
}

} // namespace

Bus::Bus() {
    BusError error;
    connection_.reset(dbus_bus_get(DBUS_BUS_SYSTEM, error.get()));
    if (!connection_) {
        throw std::runtime_error(std::string("no system bus: ") + error.message());
    }
    dbus_connection_set_exit_on_disconnect(connection_.get(), FALSE);
    for (const char* member : {"requestData", "errorSignal"}) {
        const std::string rule =
            std::string("type='signal',interface='") + kName + "',member='" + member + "'";
        dbus_bus_add_match(connection_.get(), rule.c_str(), error.get());
    }
}

dbus_uint32_t Bus::send(const BusMessage& message) const {
    dbus_uint32_t serial = 0;
    if (dbus_connection_send(connection_.get(), message.get(), &serial) == FALSE) {
        throw std::runtime_error("no memory to send a message");
    }
    dbus_connection_flush(connection_.get());
    return serial;
}

BusMessage Bus::receive(Clock::time_point deadline) const {
    while (true) {
        if (DBusMessage* message = dbus_connection_pop_message(connection_.get())) {
            return BusMessage(message);
        }
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        if (left.count() < 0) {
            return nullptr;
        }
        if (dbus_connection_read_write(connection_.get(), static_cast<int>(left.count()) + 1) ==
            FALSE) {
            throw std::runtime_error("the bus has closed the connection");
        }
    }
}

BusMessage Bus::call(const BusMessage& message) const {
    const dbus_uint32_t serial = send(message);
    const auto deadline = Clock::now() + kPatience;
    while (BusMessage answer = receive(deadline)) {
        if (dbus_message_get_reply_serial(answer.get()) != serial) {
            continue;
        }
        if (dbus_message_get_type(answer.get()) == DBUS_MESSAGE_TYPE_ERROR) {
            throwError(answer);
        }
        return answer;
    }
    throw std::runtime_error("no answer");
}

BusMessage makeCall(const char* member, const char* interface) {
    return checked(dbus_message_new_method_call(kName, kPath, interface, member));
}

dbus_uint32_t readNumber(const BusMessage& message) {
    dbus_uint32_t number = 0;
    read(message, DBUS_TYPE_UINT32, &number);
    return number;
}

void throwError(const BusMessage& message) {
    const char* text = "";
    dbus_message_get_args(message.get(), nullptr, DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID);
    throw std::runtime_error(std::string(dbus_message_get_error_name(message.get())) + ": " + text);
}

bool isSignal(const BusMessage& message, const char* member) {
    return dbus_message_is_signal(message.get(), kName, member) != FALSE;
}

dbus_uint32_t openConnection(const Bus& bus, std::uint32_t chunkSize, std::string_view encoding) {
    const BusMessage call = makeCall("connect");
    for (const std::string_view value :
         {std::string_view("fingerprintRequest"), std::string_view("fingerprint"),
          std::string_view("1.0"), encoding, std::string_view("application/octet-stream")}) {
        const char* bytes = value.data();
        append(call, DBUS_TYPE_ARRAY, DBUS_TYPE_BYTE, &bytes, static_cast<int>(value.size()));
    }
    const dbus_uint32_t size = chunkSize;
    append(call, DBUS_TYPE_UINT32, &size);
    return readNumber(bus.call(call));
}

void closeConnection(const Bus& bus, dbus_uint32_t connection) {
    const BusMessage call = makeCall("disconnect");
    append(call, DBUS_TYPE_UINT32, &connection);
    bus.call(call);
}

BusMessage makePrepare(dbus_uint32_t connection, const char* member, dbus_uint32_t policy) {
    BusMessage call = makeCall(member);
    const dbus_uint32_t duration = 0;
    append(call, DBUS_TYPE_UINT32, &connection, DBUS_TYPE_UINT32, &policy, DBUS_TYPE_UINT32,
           &duration);
    return call;
}

BusMessage makeSendData(dbus_uint32_t connection, dbus_uint32_t request, std::string_view data,
                        bool last) {
    BusMessage call = makeCall("sendData");
    const char* bytes = data.data();
    const dbus_bool_t flag = last ? TRUE : FALSE;
    append(call, DBUS_TYPE_ARRAY, DBUS_TYPE_BYTE, &bytes, static_cast<int>(data.size()),
           DBUS_TYPE_BOOLEAN, &flag, DBUS_TYPE_UINT32, &connection, DBUS_TYPE_UINT32, &request);
    return call;
}

BusMessage makeGetData(dbus_uint32_t connection, dbus_uint32_t request) {
    BusMessage call = makeCall("getData");
    append(call, DBUS_TYPE_UINT32, &connection, DBUS_TYPE_UINT32, &request);
    return call;
}

BusMessage makeGetStatus() {
    BusMessage call = makeCall("Get", "org.freedesktop.DBus.Properties");
    const char* interface = kName;
    const char* property = "connectionStatus";
    append(call, DBUS_TYPE_STRING, &interface, DBUS_TYPE_STRING, &property);
    return call;
}

Chunk readChunk(const BusMessage& reply) {
    const char* bytes = nullptr;
    int length = 0;
    Chunk chunk;
    read(reply, DBUS_TYPE_ARRAY, DBUS_TYPE_BYTE, &bytes, &length, DBUS_TYPE_UINT32, &chunk.code);
    chunk.bytes = static_cast<std::size_t>(length);
    return chunk;
}

} // namespace orvexd::bench
