#include "ManyRequests.h"

#include <string>
#include <unordered_map>
#include <vector>

namespace orvexd::bench {

namespace {

/// Held calls at a time; a bus allows 128 for each connection.
constexpr std::size_t kWindow = 64;
constexpr std::chrono::seconds kPatience(120);

class Session {
public:
    Session(const Bus& bus, dbus_uint32_t connection, std::size_t count, std::size_t bytes)
        : bus_(bus), connection_(connection), count_(count), data_(bytes, 'u') {}

    Clock::duration run() {
        const auto begin = Clock::now();
        for (std::size_t i = 1; i < count_; ++i) {
            requests_.push_back(readNumber(bus_.call(makePrepare(connection_, "attach"))));
        }
        // Prepared requests travel first.
        const dbus_uint32_t prepared = bus_.send(makePrepare(connection_));
        const auto deadline = begin + kPatience;
        while (complete_ < count_) {
            const BusMessage message = bus_.receive(deadline);
            if (!message) {
                throw std::runtime_error("the exchange does not end");
            }
            onMessage(message, prepared);
        }
        return Clock::now() - begin;
    }

private:
    void onMessage(const BusMessage& message, dbus_uint32_t prepared) {
        if (dbus_message_get_type(message.get()) == DBUS_MESSAGE_TYPE_ERROR) {
            throwError(message);
        }
        if (isSignal(message, "errorSignal")) {
            throw std::runtime_error("the exchange failed");
        }
        const dbus_uint32_t serial = dbus_message_get_reply_serial(message.get());
        if (isSignal(message, "requestData")) {
            onAsked(message);
        } else if (serial == prepared) {
            requests_.insert(requests_.begin(), readNumber(message));
            fetchMore();
        } else if (fetching_.contains(serial)) {
            onChunk(serial, readChunk(message));
        }
    }

    void onAsked(const BusMessage& signal) {
        dbus_uint32_t connection = 0;
        dbus_uint32_t request = 0;
        read(signal, DBUS_TYPE_UINT32, &connection, DBUS_TYPE_UINT32, &request);
        bus_.send(makeSendData(connection_, request, data_, true));
    }

    void onChunk(dbus_uint32_t serial, const Chunk& chunk) {
        const dbus_uint32_t request = fetching_.at(serial);
        fetching_.erase(serial);
        if (chunk.code == kResponseComplete) {
            ++complete_;
            fetchMore();
        } else {
            fetch(request);
        }
    }

    void fetchMore() {
        while (fetching_.size() < kWindow && next_ < requests_.size()) {
            fetch(requests_[next_++]);
        }
    }

    void fetch(dbus_uint32_t request) {
        fetching_.emplace(bus_.send(makeGetData(connection_, request)), request);
    }

    const Bus& bus_;
    dbus_uint32_t connection_;
    std::size_t count_;
    std::string data_;
    std::vector<dbus_uint32_t> requests_; // in transfer order
    std::size_t next_ = 0;                // the first of them whose answer nobody has asked for
    std::unordered_map<dbus_uint32_t, dbus_uint32_t> fetching_; // request by serial of its getData
    std::size_t complete_ = 0;
};

} // namespace

Clock::duration runManyRequests(const Bus& bus, dbus_uint32_t connection, std::size_t count,
                                std::size_t bytes) {
    return Session(bus, connection, count, bytes).run();
}

} // namespace orvexd::bench
