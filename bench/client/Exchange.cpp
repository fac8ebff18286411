#include "Exchange.h"

#include <algorithm>
#include <thread>

namespace orvexd::bench {

namespace {

constexpr std::size_t kMarks = 16;
constexpr std::chrono::seconds kPatience(120);

/// Appends the time to `marks` once for each sixteenth of `whole` that `done` has reached.
void mark(std::vector<std::int64_t>& marks, std::size_t done, std::size_t whole,
          Clock::duration now) {
    while (marks.size() < kMarks && done * kMarks >= whole * (marks.size() + 1) && whole > 0) {
        marks.push_back(nanoseconds(now));
    }
}

/// The state machine of a client with one request.
class Session {
public:
    Session(const Bus& bus, dbus_uint32_t connection, const ExchangePlan& plan,
            std::size_t answerSize)
        : bus_(bus),
          connection_(connection),
          plan_(plan),
          answerSize_(answerSize),
          piece_(plan.piece, 'u') {}

    ExchangeTimes run() {
        begin_ = Clock::now();
        const dbus_uint32_t prepare = bus_.send(makePrepare(connection_));
        const auto deadline = begin_ + kPatience;
        while (!complete_) {
            const BusMessage message = bus_.receive(deadline);
            if (!message) {
                throw std::runtime_error("the exchange does not end");
            }
            if (dbus_message_get_type(message.get()) == DBUS_MESSAGE_TYPE_ERROR ||
                isSignal(message, "errorSignal")) {
                throwFailure(message);
            }
            const dbus_uint32_t serial = dbus_message_get_reply_serial(message.get());
            if (serial == 0) {
                onSignal(message);
            } else if (serial == fetching_) {
                onChunk(readChunk(message));
            } else if (serial == sending_) {
                onAccepted(message);
            } else if (serial == prepare) {
                request_ = readNumber(message);
                if (!plan_.fetchLate) {
                    fetch();
                }
            }
        }
        return times_;
    }

private:
    [[noreturn]] static void throwFailure(const BusMessage& message) {
        if (dbus_message_get_type(message.get()) == DBUS_MESSAGE_TYPE_ERROR) {
            throwError(message);
        }
        dbus_uint32_t code = 0;
        const char* text = "";
        read(message, DBUS_TYPE_UINT32, &code, DBUS_TYPE_STRING, &text);
        throw std::runtime_error("error signal " + std::to_string(code) + ": " + text);
    }

    Clock::duration elapsed() const { return Clock::now() - begin_; }

    void onSignal(const BusMessage& message) {
        if (!isSignal(message, "requestData")) {
            return;
        }
        times_.asked = elapsed();
        sendNext();
    }

    void onAccepted(const BusMessage& message) {
        dbus_int32_t result = 0;
        read(message, DBUS_TYPE_INT32, &result);
        if (result != 0) {
            throw std::runtime_error("sendData answered " + std::to_string(result));
        }
        mark(times_.uploadMarks, sent_, plan_.upload, elapsed());
        if (sent_ < plan_.upload) {
            sendNext();
        } else {
            times_.uploaded = elapsed();
            if (plan_.fetchLate) {
                fetch();
            }
        }
    }

    void onChunk(const Chunk& chunk) {
        times_.received += chunk.bytes;
        ++times_.chunks;
        complete_ = chunk.code == kResponseComplete;
        if (!complete_) {
            fetch();
        }
        mark(times_.answerMarks, times_.received, answerSize_, elapsed());
        if (complete_) {
            times_.done = elapsed();
        }
    }

    void sendNext() {
        if (plan_.perSecond > 0) {
            const double due = static_cast<double>(sent_) / static_cast<double>(plan_.perSecond);
            std::this_thread::sleep_until(begin_ + times_.asked +
                                          std::chrono::duration<double>(due));
        }
        const std::size_t size = std::min(piece_.size(), plan_.upload - sent_);
        sent_ += size;
        sending_ = bus_.send(
            makeSendData(connection_, request_, {piece_.data(), size}, sent_ == plan_.upload));
    }

    void fetch() { fetching_ = bus_.send(makeGetData(connection_, request_)); }

    const Bus& bus_;
    dbus_uint32_t connection_;
    ExchangePlan plan_;
    std::size_t answerSize_;
    std::string piece_;
    Clock::time_point begin_;
    dbus_uint32_t request_ = 0;
    dbus_uint32_t sending_ = 0; // serials of the calls under way
    dbus_uint32_t fetching_ = 0;
    std::size_t sent_ = 0;
    bool complete_ = false;
    ExchangeTimes times_;
};

} // namespace

ExchangeTimes runExchange(const Bus& bus, dbus_uint32_t connection, const ExchangePlan& plan,
                          std::size_t answerSize) {
    return Session(bus, connection, plan, answerSize).run();
}

} // namespace orvexd::bench
