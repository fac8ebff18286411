#include "Calls.h"

#include <thread>

namespace orvexd::bench {

namespace {

/// Such a request waits for a connection of the platform's kind 1.
constexpr dbus_uint32_t kPolicyKindOne = 1;
constexpr std::chrono::seconds kPatience(10);
/// Far longer than the answer of a server on the loopback interface takes.
constexpr std::chrono::milliseconds kAnswerTime(20);

std::int64_t timeCall(const Bus& bus, const BusMessage& call, BusMessage& answer) {
    const auto begin = Clock::now();
    answer = bus.call(call);
    return nanoseconds(Clock::now() - begin);
}

/// The request that the daemon asks the data of.
void awaitAsked(const Bus& bus) {
    const auto deadline = Clock::now() + kPatience;
    while (const BusMessage message = bus.receive(deadline)) {
        if (isSignal(message, "requestData")) {
            return;
        }
    }
    throw std::runtime_error("nobody asks for data");
}

} // namespace

void openLoad(const Bus& bus, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) {
        const dbus_uint32_t connection = openConnection(bus, 1024);
        bus.call(makePrepare(connection, "attach", kPolicyKindOne));
    }
}

std::vector<std::int64_t> timeConnects(const Bus& bus, std::size_t count) {
    std::vector<std::int64_t> times;
    for (std::size_t i = 0; i < count; ++i) {
        const auto begin = Clock::now();
        const dbus_uint32_t connection = openConnection(bus, 1024);
        times.push_back(nanoseconds(Clock::now() - begin));
        closeConnection(bus, connection);
    }
    return times;
}

CallTimes timeCalls(const Bus& bus, dbus_uint32_t connection, std::size_t count) {
    CallTimes times;
    BusMessage answer;
    times.prepare = timeCall(bus, makePrepare(connection), answer);
    const dbus_uint32_t request = readNumber(answer);
    awaitAsked(bus);
    const std::string data(64, 'u');
    for (std::size_t i = 1; i <= count; ++i) {
        times.sendData.push_back(
            timeCall(bus, makeSendData(connection, request, data, i == count), answer));
    }
    std::this_thread::sleep_for(kAnswerTime);
    Chunk chunk;
    while (chunk.code != kResponseComplete) {
        times.getData.push_back(timeCall(bus, makeGetData(connection, request), answer));
        chunk = readChunk(answer);
    }
    return times;
}

} // namespace orvexd::bench
