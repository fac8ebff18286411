// The request record as a state machine.
//
// Input: the chunk size, then a sequence of commands, see `step`. The letters @ to G in its
// place mean the same and that memory is short; the next byte chooses the budget then.
//
// Properties: after every step the record agrees with a plain one: bytes out are bytes in, codes
// and states follow the table. Data and answers are refused when the budget is full, and only when
// a share of it is used; all is given back in the end.

#include "models/RequestModel.h"
#include "request/RequestData.h"
#include "support/Check.h"
#include "support/ExactCopy.h"
#include "support/Input.h"
#include "support/MemoryBudget.h"
#include "support/Target.h"

#include <algorithm>
#include <array>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace orvexd::fuzz {
namespace {

using test::Chunk;
using test::RequestModel;

const ConnectionParameters& parametersOf(std::uint32_t chunkSize) {
    static ConnectionParameters parameters{"Element", "type", "1.0", "8bit", "text/plain", 0};
    parameters.chunkSize = chunkSize;
    return parameters;
}

class Recorder : public IChunkReceiver {
public:
    void postChunk(std::uint32_t connectionId, std::uint32_t requestId, DeliveryCode code,
                   std::string bytes) override {
        check(connectionId == 3 && requestId == 17, "a chunk names its request");
        chunks.push_back({code, std::move(bytes)});
    }

    std::vector<Chunk> chunks;
};

class Pair {
public:
    Pair(std::uint32_t chunkSize, MemoryBudget& budget)
        : budget_(budget),
          record_(3, 17, true,
                  std::make_shared<const ConnectionParameters>(parametersOf(chunkSize)), NotFlagged,
                  &recorder_, budget) {
        model_.chunkSize = chunkSize;
    }

    void step(Input& input);

    void compare() {
        check(static_cast<int>(record_.state()) == model_.state, "the state");
        check(record_.isCancelled() == model_.cancelled, "the cancelled flag");
        check(record_.isWaitingForGetData() == model_.waitingForGetData, "the waiting flag");
        check(record_.isAcceptingData() == model_.accepting, "the accepting flag");
        check(record_.dataTransferStarted() == model_.started, "the started flag");
        check(record_.hasExpectedPartIds() == !model_.expected.empty(), "the announced parts");
        check(record_.hasOutstandingPartIds() == !model_.outstanding.empty(),
              "the outstanding parts");
        check(recorder_.chunks.size() == model_.chunks.size(), "the number of deliveries");
        for (; compared_ < model_.chunks.size(); ++compared_) {
            check(recorder_.chunks[compared_] == model_.chunks[compared_], "a delivery");
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
        const OutgoingPart::Piece taken = record_.takeRequestData(room.span());
        const auto [expected, finished] = model_.take(most);
        check(taken.finished == finished, "the end of the part");
        check(room.view().substr(0, taken.bytes) == expected, "bytes out are bytes in");
    }

    void ask() {
        record_.requestNextChunk();
        model_.next();
        compare();
    }

    void append(std::string_view bytes, bool last, bool onlyIfAccepting) {
        const ExactCopy copy(bytes);
        const bool wasFull = isFull();
        if (onlyIfAccepting) {
            const bool taken = record_.appendIfAccepting(copy.view(), last);
            const bool mayRefuse = usesShare(); // a refusal changes nothing
            check(taken ? model_.accepting && !wasFull : !model_.accepting || mayRefuse,
                  "data is taken while it is asked for, and there is room");
            if (!taken) {
                return;
            }
        } else {
            record_.appendRequestData(copy.view(), last);
        }
        model_.append(bytes, last);
    }

    /// A piece of a response part; nobody waits for room.
    void add(std::string_view bytes, bool complete) {
        const std::size_t end = complete ? 2 : 0; // a line break, which may be no data
        const bool fits = model_.isClientAtEnd() && bytes.size() <= model_.chunkSize + end;
        const bool needsNone = bytes.empty() || model_.cancelled || fits;
        const bool wasFull = isFull();
        const bool usedShare = usesShare();
        const Patience none{.deadline = 0, .memoryIsShort = {}};
        const Answer::Added added = record_.addResponseData(bytes, complete, none);
        if (added == Answer::Added::NoRoom) {
            check(!needsNone && usedShare, "bytes are lost for lack of room only");
            model_.addWithoutRoom(bytes);
            return;
        }
        check(needsNone || !wasFull, "nothing is stored in a full budget");
        check(added != Answer::Added::TooMany ||
                  model_.buffers.size() >= budget_.size() * 3 / 4 / 400,
              "parts are too many beyond a share");
        model_.add(bytes, complete);
    }

    bool isFull() const { return budget_.held() >= budget_.size() - budget_.size() / 16; }
    bool usesShare() const { return budget_.held() >= budget_.size() - budget_.size() / 4; }

    RequestModel model_;
    MemoryBudget& budget_;
    std::string contentId_;
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
        add(readData(input), false);
        break;
    case 'p': // the last piece of a response part
        add(readData(input), true);
        break;
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
        model_.writeHeader("boundary", "text/plain", "8bit", contentId_);
        break;
    case 'H':
        contentId_ = kIds[input.number(kIds.size())];
        record_.setContentId(contentId_);
        break;
    case 'i': {
        const std::vector<std::string> ids = readIds(input);
        record_.setExpectedPartIds(ids);
        model_.setExpected(ids);
    } break;
    case 'I': {
        const std::string id = kIds[input.number(kIds.size())];
        record_.addExpectedPartId(id);
        model_.addExpected(id);
    } break;
    case 'k': // a part with this id begins
    {
        const std::string id = kIds[input.number(kIds.size())];
        check(record_.acceptPartId(id) == model_.accept(id), "a part finds its request");
    } break;
    case 'x':
        model_.setCancelled(true);
        record_.setCancelled(true);
        break;
    case 'X':
        model_.setCancelled(false);
        record_.setCancelled(false);
        break;
    case 's':
        model_.state = static_cast<int>(input.number(8));
        record_.setState(static_cast<RequestState>(model_.state));
        break;
    case 'r': // never backwards
    {
        const auto state = static_cast<int>(input.number(8));
        model_.state = std::max(model_.state, state);
        record_.raiseState(static_cast<RequestState>(state));
    } break;
    case 'a':
        model_.accepting = input.number(2) != 0;
        record_.setAcceptingData(model_.accepting);
        break;
    default:
        check(record_.deliverNext() == model_.deliver(), "whether a chunk was handed out");
    }
}

} // namespace
} // namespace orvexd::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace orvexd::fuzz;
    constexpr std::array<std::uint32_t, 8> kChunkSizes = {1000, 1,     2,   0,
                                                          3,    65536, 255, 4294967295U};
    constexpr std::size_t kMaxSteps = 300;
    constexpr std::array<std::size_t, 6> kBudgets = {1000, 2000, 5000, 20'000, 100'000, 300'000};
    constexpr std::size_t kUsualBudget = std::size_t{128} * 1024 * 1024;
    Input input(data, size);
    const std::size_t choice = input.number(3 * kChunkSizes.size()); // @ is 16
    const bool isShort = choice >= 2 * kChunkSizes.size();
    orvexd::MemoryBudget budget(isShort ? kBudgets[input.number(kBudgets.size())] : kUsualBudget);
    {
        Pair pair(kChunkSizes[choice % kChunkSizes.size()], budget);
        for (std::size_t step = 0; step < kMaxSteps && !input.empty(); ++step) {
            pair.step(input);
            pair.compare();
        }
        pair.drain();
        pair.compare();
    }
    check(budget.held() == 0, "all memory is given back");
    return 0;
}
