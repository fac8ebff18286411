// The request record as a state machine.
//
// Input: the chunk size, then a sequence of commands, see `step`.
//
// Property: after every step the record agrees with a plain one: bytes out are bytes in, codes and
// states follow the table.

#include "core/RequestData.h"
#include "support/Check.h"
#include "support/ExactCopy.h"
#include "support/Input.h"
#include "support/Target.h"

#include <algorithm>
#include <array>
#include <deque>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace orvexd::fuzz {
namespace {

struct Delivery {
    std::uint32_t code;
    std::string bytes;

    bool operator==(const Delivery& other) const = default;
};

const ConnectionParameters& parametersOf(std::uint32_t chunkSize) {
    static ConnectionParameters parameters{"Element", "type", "1.0", "8bit", "text/plain", 0};
    parameters.chunkSize = chunkSize;
    return parameters;
}

/// The record written down plainly: every container is searched, erased from and copied as a whole.
/// The numbers of states and codes are those on the bus and in the tables.
class PlainRecord {
public:
    explicit PlainRecord(std::size_t chunkSize) : chunkSize_(chunkSize) {}

    void writePartHeader(const std::string& boundary) {
        partHeader_ += "\r\n--" + boundary +
                       "\r\nContent-Type: text/plain\r\nContent-Transfer-Encoding: 8bit\r\n"
                       "Content-Id: " +
                       contentId + "\r\n";
    }

    void appendRequestData(std::string_view bytes, bool last) {
        if (!partHeaderEmitted_) {
            outgoing_ += partHeader_ + "\r\n";
            partHeaderEmitted_ = true;
        }
        outgoing_ += bytes;
        lastDataGiven_ = last;
    }

    bool takeRequestData(std::string& out, std::size_t most) {
        dataTransferStarted = true;
        const bool all = outgoing_.size() <= most;
        out = outgoing_.substr(0, most);
        outgoing_.erase(0, out.size());
        if (all && lastDataGiven_) {
            acceptingData = false; // in the same step, so that no data is accepted and lost
        }
        return all && lastDataGiven_;
    }

    void setExpectedPartIds(const std::vector<std::string>& ids) { expected_ = outstanding_ = ids; }

    void addExpectedPartId(const std::string& id) {
        expected_.push_back(id);
        outstanding_.push_back(id);
    }

    bool acceptPartId(const std::string& id) {
        if (std::find(expected_.begin(), expected_.end(), id) == expected_.end()) {
            return false;
        }
        const auto found = std::find(outstanding_.begin(), outstanding_.end(), id);
        if (found != outstanding_.end()) {
            outstanding_.erase(found);
        }
        return true;
    }

    bool hasExpectedPartIds() const { return !expected_.empty(); }
    bool hasOutstandingPartIds() const { return !outstanding_.empty(); }

    void addResponseData(std::string_view bytes, bool partComplete) {
        if (!cancelled) {
            if (buffers_.empty()) {
                return; // all has been delivered: there is nothing left to add to
            }
            buffers_.back() += bytes;
            if (partComplete) {
                codes_.back() = 2302;
                if (buffers_.back().ends_with("\r\n")) {
                    buffers_.back().erase(buffers_.back().size() - 2);
                }
            }
        }
        if (!partComplete) {
            state = 4;
        } else if (++completed_ == expected_.size()) {
            state = 6;
        } else {
            state = 5;
            buffers_.emplace_back();
            codes_.push_back(2301);
        }
        (void)deliverNext();
    }

    bool deliverNext() {
        if (cancelled) {
            state = state == 6 ? 7 : state;
            return true;
        }
        if (waitingForGetData || buffers_.empty()) {
            return false;
        }
        std::string& buffer = buffers_.front();
        std::uint32_t code = codes_.front();
        if (buffer.size() > chunkSize_ || code == 2301) {
            code = 2301;
        } else if (state == 6 && buffers_.size() == 1) {
            code = 2303;
        }
        const std::string chunk = buffer.substr(0, chunkSize_);
        deliveries.push_back({code, chunk});
        waitingForGetData = true;
        buffer.erase(0, chunk.size());
        if (code != 2301) {
            buffers_.pop_front();
            codes_.pop_front();
        }
        if (state == 6 && buffers_.empty()) {
            state = 7;
        }
        return true;
    }

    void requestNextChunk() {
        waitingForGetData = false;
        if (buffers_.empty() || (buffers_.front().empty() && codes_.front() == 2301)) {
            return;
        }
        (void)deliverNext();
    }

    std::uint32_t state = 0;
    bool cancelled = false;
    bool waitingForGetData = true;
    bool acceptingData = false;
    bool dataTransferStarted = false;
    std::string contentId;
    std::vector<Delivery> deliveries;

private:
    std::size_t chunkSize_;
    std::string partHeader_;
    bool partHeaderEmitted_ = false;
    std::string outgoing_;
    bool lastDataGiven_ = false;
    std::vector<std::string> expected_;
    std::vector<std::string> outstanding_;
    std::deque<std::string> buffers_ = {""};
    std::deque<std::uint32_t> codes_ = {2301};
    std::size_t completed_ = 0;
};

class Recorder : public IChunkReceiver {
public:
    void postChunk(std::uint32_t connectionId, std::uint32_t requestId, DeliveryCode code,
                   std::string bytes) override {
        check(connectionId == 3 && requestId == 17, "a chunk names its request");
        deliveries.push_back({static_cast<std::uint32_t>(code), std::move(bytes)});
    }

    std::vector<Delivery> deliveries;
};

class Pair {
public:
    explicit Pair(std::uint32_t chunkSize)
        : plain_(chunkSize),
          record_(3, 17, true,
                  std::make_shared<const ConnectionParameters>(parametersOf(chunkSize))) {
        record_.setOwner(&recorder_);
    }

    void step(Input& input);

    void compare() {
        check(static_cast<std::uint32_t>(record_.state()) == plain_.state, "the state");
        check(record_.isCancelled() == plain_.cancelled, "the cancelled flag");
        check(record_.isWaitingForGetData() == plain_.waitingForGetData, "the waiting flag");
        check(record_.isAcceptingData() == plain_.acceptingData, "the accepting flag");
        check(record_.dataTransferStarted() == plain_.dataTransferStarted, "the started flag");
        check(record_.hasExpectedPartIds() == plain_.hasExpectedPartIds(), "the announced parts");
        check(record_.hasOutstandingPartIds() == plain_.hasOutstandingPartIds(),
              "the outstanding parts");
        check(recorder_.deliveries.size() == plain_.deliveries.size(), "the number of deliveries");
        for (; compared_ < plain_.deliveries.size(); ++compared_) {
            check(recorder_.deliveries[compared_] == plain_.deliveries[compared_], "a delivery");
        }
    }

    /// What is still inside comes out, as far as that does not take for ever.
    void drain() {
        constexpr int kMaxCalls = 300;
        take(128UL * 1024);
        for (int calls = 0; calls < kMaxCalls; ++calls) {
            ask();
        }
    }

private:
    void take(std::size_t most) {
        const ExactRoom room(most);
        const RequestData::Taken taken = record_.takeRequestData(room.span());
        std::string expected;
        check(taken.finished == plain_.takeRequestData(expected, most), "the end of the part");
        check(room.view().substr(0, taken.bytes) == expected, "bytes out are bytes in");
    }

    void ask() {
        record_.requestNextChunk();
        plain_.requestNextChunk();
        compare();
    }

    void append(std::string_view bytes, bool last, bool onlyIfAccepting) {
        const ExactCopy copy(bytes);
        if (onlyIfAccepting) {
            const bool taken = record_.appendIfAccepting(copy.view(), last);
            check(taken == plain_.acceptingData, "data is taken while it is asked for");
            if (!taken) {
                return;
            }
        } else {
            record_.appendRequestData(copy.view(), last);
        }
        plain_.appendRequestData(bytes, last);
    }

    PlainRecord plain_;
    Recorder recorder_;
    RequestData record_;
    std::size_t compared_ = 0; ///< so many deliveries have been looked at
};

constexpr std::array<const char*, 4> kIds = {"a", "b", "", "a long id that no string keeps inside"};

std::vector<std::string> readIds(Input& input) {
    std::vector<std::string> ids(input.number(5));
    for (std::string& id : ids) {
        id = kIds[input.number(kIds.size())];
    }
    return ids;
}

/// A line of the input, repeated: blocks are filled without long inputs.
std::string readData(Input& input) {
    constexpr std::array<std::size_t, 8> kTimes = {1, 2, 1, 3, 17, 256, 1, 4097};
    const std::size_t times = kTimes[input.number(kTimes.size())];
    std::string unit(input.line());
    if (unit.ends_with('$')) {
        unit.replace(unit.size() - 1, 1, "\r\n");
    }
    std::string data;
    for (std::size_t count = 0; count < times && data.size() < 80UL * 1024; ++count) {
        data += unit;
    }
    return data;
}

void Pair::step(Input& input) {
    switch (input.command("gcpDdLlthHiIkxXsran")) {
    case 'g': // the client asks for the next chunk
        ask();
        break;
    case 'c': // a piece of a response part
    {
        const std::string data = readData(input);
        record_.addResponseData(data, false);
        plain_.addResponseData(data, false);
    } break;
    case 'p': // the last piece of a response part
    {
        const std::string data = readData(input);
        record_.addResponseData(data, true);
        plain_.addResponseData(data, true);
    } break;
    case 'd':
        append(readData(input), false, false);
        break;
    case 'D':
        append(readData(input), false, true);
        break;
    case 'l':
        append(readData(input), true, false);
        break;
    case 'L':
        append(readData(input), true, true);
        break;
    case 't': // the transfer takes some bytes
        take(input.number(16) * (1UL << input.number(13)));
        break;
    case 'h':
        record_.writePartHeader("boundary");
        plain_.writePartHeader("boundary");
        break;
    case 'H':
        plain_.contentId = kIds[input.number(kIds.size())];
        record_.setContentId(plain_.contentId);
        break;
    case 'i': {
        const std::vector<std::string> ids = readIds(input);
        record_.setExpectedPartIds(ids);
        plain_.setExpectedPartIds(ids);
    } break;
    case 'I': {
        const std::string id = kIds[input.number(kIds.size())];
        record_.addExpectedPartId(id);
        plain_.addExpectedPartId(id);
    } break;
    case 'k': // a part with this id begins
    {
        const std::string id = kIds[input.number(kIds.size())];
        check(record_.acceptPartId(id) == plain_.acceptPartId(id), "a part finds its request");
    } break;
    case 'x':
        record_.setCancelled(plain_.cancelled = true);
        break;
    case 'X':
        record_.setCancelled(plain_.cancelled = false);
        break;
    case 's':
        plain_.state = static_cast<std::uint32_t>(input.number(8));
        record_.setState(static_cast<RequestState>(plain_.state));
        break;
    case 'r': // never backwards
    {
        const auto state = static_cast<std::uint32_t>(input.number(8));
        plain_.state = std::max(plain_.state, state);
        record_.raiseState(static_cast<RequestState>(state));
    } break;
    case 'a':
        plain_.acceptingData = input.number(2) != 0;
        record_.setAcceptingData(plain_.acceptingData);
        break;
    default:
        check(record_.deliverNext() == plain_.deliverNext(), "whether a chunk was handed out");
    }
}

} // namespace
} // namespace orvexd::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace orvexd::fuzz;
    constexpr std::array<std::uint32_t, 8> kChunkSizes = {1000, 1,     2,   0,
                                                          3,    65536, 255, 4294967295U};
    constexpr std::size_t kMaxSteps = 300;
    Input input(data, size);
    Pair pair(kChunkSizes[input.number(kChunkSizes.size())]);
    for (std::size_t step = 0; step < kMaxSteps && !input.empty(); ++step) {
        pair.step(input);
        pair.compare();
    }
    pair.drain();
    pair.compare();
    return 0;
}
