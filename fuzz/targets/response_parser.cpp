// A response as the server may send it, cut where the input says.
//
// Input: a byte that chooses the number of requests and the chunk size, then the response. 0xFE and
// the byte behind it stand for a cut; that byte's bits tell which clients ask before the next
// chunk. From 24 on the first byte also means that memory is short; the next byte chooses the
// budget.
//
// Properties: the parser does to its requests what the plainly written rules do; what a request
// gets does not depend on the cuts while delimiters and header blocks stay whole; the memory held
// stays within a fixed multiple of what has been fed. A response is given up when its ids cost more
// than a share of the budget, and all that it has brought by then follows the rules.

#include "slp/RecordedExchange.h"
#include "slp/ReferenceParser.h"
#include "slp/ResponseHead.h"
#include "slp/SlpResponseParser.h"
#include "slp/TextSearch.h"
#include "support/Check.h"
#include "support/ExactCopy.h"
#include "support/HeldMemory.h"
#include "support/Input.h"
#include "support/Target.h"

#include <algorithm>
#include <array>
#include <optional>
#include <string>
#include <vector>

namespace orvexd::fuzz {
namespace {

using test::RecordedExchange;
using test::ReferenceParser;

constexpr char kCut = '\xfe';
constexpr std::size_t kMaxRequests = 3;

struct Chunk {
    std::string bytes;
    std::uint8_t askedBefore = 0; ///< bit n: the client of request n + 1 asks
};

struct Case {
    std::size_t requests = 1;
    std::uint32_t chunkSize = 0;
    std::size_t budget = 0; ///< 0: the usual one
    std::vector<Chunk> chunks;

    std::string text() const {
        std::string all;
        for (const Chunk& chunk : chunks) {
            all += chunk.bytes;
        }
        return all;
    }
};

Case readCase(Input input) {
    constexpr std::array<std::uint32_t, 4> kChunkSizes = {1024 * 1024, 1, 3, 1000};
    constexpr std::array<std::size_t, 6> kBudgets = {500, 1000, 2000, 4000, 10'000, 50'000};
    constexpr std::size_t kChoices = kMaxRequests * kChunkSizes.size();
    const std::size_t number = input.number(3 * kChoices);
    const std::size_t choice = number % kChoices;
    Case result{1 + choice % kMaxRequests, kChunkSizes[choice / kMaxRequests], 0, {}};
    if (number >= 2 * kChoices) {
        result.budget = kBudgets[input.number(kBudgets.size())];
    }
    result.chunks.emplace_back();
    while (!input.empty()) {
        const auto letter = static_cast<char>(input.byte());
        if (letter == kCut) {
            result.chunks.push_back({{}, input.byte()});
        } else {
            result.chunks.back().bytes += letter;
        }
    }
    return result;
}

// -- against the rules ---------------------------------------------------------------------------

class SideBySide {
public:
    explicit SideBySide(const Case& input)
        : requests_(input.requests),
          parsed_(input.requests, input.chunkSize),
          expected_(input.requests, input.chunkSize),
          budget_(input.budget > 0 ? input.budget : MemoryBudget::process().size()) {}

    void run(const Case& input) {
        for (const Chunk& chunk : input.chunks) {
            ask(chunk.askedBefore);
            feed(chunk.bytes);
            reference_.feed(chunk.bytes);
            if (parser_.isGivenUp()) {
                checkGivenUp(input);
                return;
            }
            check(reference_.idCost() < budget_.accountBound(), "too many ids are not taken");
            compare();
        }
        parser_.finish();
        reference_.finish();
        compare();
        for (std::size_t index = 1; index <= requests_; ++index) {
            check(parsed_.parts(index) == expected_.parts(index), "the parts follow the rules");
        }
    }

private:
    /// The reference goes on; what the parser has delivered is the front of the same.
    void checkGivenUp(const Case& input) {
        const std::size_t cost = reference_.idCost();
        const std::size_t held = cost + 2 * fed_ + nodeCost(input.text()) + 64;
        check(cost >= budget_.accountBound() || held >= budget_.accountBound(),
              "a response is given up for a reason");
        check(parser_.errorCode() == 1003 && (parser_.errorText() == "could not parse document" ||
                                              parser_.errorText() == "faulty MIME data"),
              "a given up response has its error");
        feed(input.text());
        parser_.finish();
        for (std::size_t index = 1; index <= requests_; ++index) {
            const std::string all = join(expected_.parts(index));
            check(all.starts_with(join(parsed_.parts(index))),
                  "what came before follows the rules");
        }
    }

    /// The most that the nodes of a document in the response take: elements with their texts,
    /// references and the texts between them, attributes.
    static std::size_t nodeCost(const std::string& text) {
        const auto count = [&text](char c) {
            return static_cast<std::size_t>(std::count(text.begin(), text.end(), c));
        };
        return 320 * (count('<') + count('&')) + 256 * count('=');
    }

    static std::string join(const std::vector<std::string>& parts) {
        std::string all;
        for (const std::string& part : parts) {
            all += part;
        }
        return all;
    }

    void ask(std::uint8_t who) {
        for (std::size_t index = 0; index < requests_; ++index) {
            if ((who >> index & 1U) != 0) {
                parsed_.ask(index + 1);
                expected_.ask(index + 1);
            }
        }
    }

    void feed(const std::string& bytes) {
        // A start part of many tiny results costs most: a string and two table entries for each.
        constexpr std::size_t kPerByte = 64;
        constexpr std::size_t kOnce = 64UL * 1024;
        const ExactCopy chunk(bytes);
        const std::size_t before = heldMemory();
        check(parser_.feed(chunk.view()) == bytes.size(), "a chunk is consumed whole");
        held_ += static_cast<std::ptrdiff_t>(heldMemory() - before);
        fed_ += bytes.size();
        check(held_ <= static_cast<std::ptrdiff_t>(kOnce + kPerByte * fed_),
              "the memory held is bounded by the input");
    }

    void compare() {
        check(parser_.hasError() == reference_.hasError() &&
                  parser_.errorCode() == reference_.error().code &&
                  parser_.errorText() == reference_.error().text,
              "the error follows the rules", [this] {
                  return std::to_string(parser_.errorCode()) + " " + parser_.errorText() +
                         "\ninstead of\n" + std::to_string(reference_.error().code) + " " +
                         reference_.error().text;
              });
        for (std::size_t index = 1; index <= requests_; ++index) {
            check(parsed_.request(index).state() == expected_.request(index).state(),
                  "the states follow the rules");
            check(parsed_.deliveries(index) == expected_.deliveries(index),
                  "the deliveries follow the rules");
        }
    }

    std::size_t requests_;
    RecordedExchange parsed_;
    RecordedExchange expected_;
    MemoryBudget budget_;
    SlpResponseParser parser_{parsed_.queue(), budget_};
    ReferenceParser reference_{expected_.queue()};
    std::ptrdiff_t held_ = 0;
    std::size_t fed_ = 0;
};

// -- independence of the cuts --------------------------------------------------------------------

/// A response in which nothing depends on where it is cut, as long as it is cut where it may be.
struct Divisible {
    std::string head;
    std::string body;
    std::vector<bool> mayCut; ///< by position in the body
};

/// Marks the delimiters and header blocks. @return false when the delimiters do not stand where a
/// well-formed body has them.
bool markAtoms(std::string_view body, std::string_view delimiter, std::vector<bool>& mayCut) {
    mayCut.assign(body.size() + 1, true);
    std::size_t free = 0; // behind the atom before
    for (std::size_t at = findBytes(body, delimiter); at != std::string_view::npos;
         at = findBytes(body, delimiter, at + 1)) {
        const std::size_t behind = at + delimiter.size();
        const std::string_view rest = body.substr(behind);
        std::size_t end = body.size();
        if (at < free) {
            return false;
        }
        if (!rest.starts_with("--")) {
            const std::size_t blank = findBytes(body, kBlankLine, behind);
            if (!rest.starts_with("\r\n") || blank == std::string_view::npos ||
                blank < behind + 2) {
                return false;
            }
            end = blank + kBlankLine.size();
        } else if (rest != "--" && rest != "--\r\n") {
            return false; // an epilogue means something else in the closing delimiter's chunk
        }
        std::fill(mayCut.begin() + static_cast<std::ptrdiff_t>(at) + 1,
                  mayCut.begin() + static_cast<std::ptrdiff_t>(end), false);
        free = end;
    }
    return true;
}

std::optional<Divisible> readDivisible(const std::string& text) {
    const std::size_t blank = text.find(kBlankLine);
    // A chunk that begins with the word starts another head.
    if (blank == std::string::npos || !text.starts_with("HTTP") ||
        text.find("HTTP", 1) != std::string::npos) {
        return std::nullopt;
    }
    const ResponseHead head = parseResponseHead(std::string_view(text).substr(0, blank));
    if (!head.multipart || head.multipart->boundary.empty()) {
        return std::nullopt;
    }
    Divisible result;
    result.head = text.substr(0, blank + kBlankLine.size());
    result.body = text.substr(blank + kBlankLine.size());
    if (!markAtoms(result.body, "--" + head.multipart->boundary, result.mayCut)) {
        return std::nullopt;
    }
    return result;
}

struct Outcome {
    bool hasError = false;
    int code = 0;
    std::string text;
    std::vector<std::vector<std::string>> parts;
    std::vector<RequestState> states;

    bool operator==(const Outcome& other) const = default;
};

Outcome parse(const Case& input, const std::vector<std::string_view>& chunks) {
    RecordedExchange exchange(input.requests, input.chunkSize);
    SlpResponseParser parser(exchange.queue());
    for (const std::string_view chunk : chunks) {
        (void)parser.feed(chunk);
    }
    parser.finish();
    Outcome outcome{parser.hasError(), parser.errorCode(), parser.errorText(), {}, {}};
    for (std::size_t index = 1; index <= input.requests; ++index) {
        outcome.parts.push_back(exchange.parts(index));
        outcome.states.push_back(exchange.request(index).state());
    }
    return outcome;
}

/// Every byte of the head and of the body that may stand alone does so.
std::vector<std::string_view> finestCut(const Divisible& response) {
    std::vector<std::string_view> chunks;
    for (std::size_t at = 0; at < response.head.size(); ++at) {
        chunks.push_back(std::string_view(response.head).substr(at, 1));
    }
    std::size_t begin = 0;
    for (std::size_t at = 1; at <= response.body.size(); ++at) {
        if (response.mayCut[at]) {
            chunks.push_back(std::string_view(response.body).substr(begin, at - begin));
            begin = at;
        }
    }
    return chunks;
}

/// The cuts of the input as far as they are allowed.
std::vector<std::string_view> chosenCut(const Divisible& response, const Case& input) {
    std::vector<std::string_view> chunks = {response.head};
    std::size_t begin = 0;
    std::size_t position = 0;
    for (const Chunk& chunk : input.chunks) {
        position += chunk.bytes.size();
        if (position > response.head.size() + begin &&
            response.mayCut[position - response.head.size()]) {
            const std::size_t at = position - response.head.size();
            chunks.push_back(std::string_view(response.body).substr(begin, at - begin));
            begin = at;
        }
    }
    chunks.push_back(std::string_view(response.body).substr(begin));
    return chunks;
}

void checkIndependence(const Case& input) {
    const std::string text = input.text();
    const std::optional<Divisible> response = readDivisible(text);
    if (!response) {
        return;
    }
    const Outcome whole = parse(input, {response->head, response->body});
    check(parse(input, finestCut(*response)) == whole, "the finest cut changes nothing");
    check(parse(input, chosenCut(*response, input)) == whole, "the chosen cuts change nothing");
}

} // namespace
} // namespace orvexd::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace orvexd::fuzz;
    const Case input = readCase(Input(data, size));
    SideBySide(input).run(input);
    if (input.budget == 0) { // the cuts decide how much a start part takes until it is complete
        checkIndependence(input);
    }
    return 0;
}
