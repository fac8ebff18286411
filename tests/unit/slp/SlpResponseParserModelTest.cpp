// The parser against the rules written down plainly (ReferenceParser), and against what a
// well-formed response promises wherever it may be cut. Every run draws the same cases.

#include "slp/SlpResponseParser.h"

#include "slp/RecordedExchange.h"
#include "slp/ReferenceParser.h"

#include <algorithm>
#include <array>
#include <gtest/gtest.h>
#include <random>
#include <string>
#include <vector>

namespace orvexd {
namespace {

using test::RecordedExchange;
using test::ReferenceParser;

class Dice {
public:
    explicit Dice(std::uint32_t seed) : engine_(seed) {}

    /// A number from 0 to below `sides`; the same on every machine.
    std::size_t roll(std::size_t sides) { return engine_() % sides; }
    bool oneIn(std::size_t sides) { return roll(sides) == 0; }

    template <typename Range> const auto& pick(const Range& range) {
        return range[roll(std::size(range))];
    }

private:
    std::mt19937 engine_;
};

std::string cutNote(const std::vector<std::string>& chunks) {
    std::string note;
    for (const std::string& chunk : chunks) {
        note += "[" + chunk + "]\n";
    }
    return note;
}

std::vector<std::string> cut(const std::string& text, const std::vector<std::size_t>& cuts) {
    std::vector<std::string> chunks;
    std::size_t begin = 0;
    for (const std::size_t end : cuts) {
        chunks.push_back(text.substr(begin, end - begin));
        begin = end;
    }
    chunks.push_back(text.substr(begin));
    return chunks;
}

// -- the parser and the plain rules -------------------------------------------------------------

/// Runs both over the same chunks with clients that ask for the next chunk at the same moments.
class SideBySide {
public:
    SideBySide(std::size_t requests, std::uint32_t chunkSize)
        : requests_(requests), parsed_(requests, chunkSize), expected_(requests, chunkSize) {}

    testing::AssertionResult run(const std::vector<std::string>& chunks, Dice& dice) {
        const std::size_t patience = 1 + dice.roll(3);
        for (const std::string& chunk : chunks) {
            for (std::size_t index = 1; index <= requests_; ++index) {
                if (dice.oneIn(patience)) {
                    parsed_.ask(index);
                    expected_.ask(index);
                }
            }
            if (parser_.feed(chunk) != chunk.size()) {
                return testing::AssertionFailure() << "chunk not consumed";
            }
            reference_.feed(chunk);
            if (const auto same = compare(); !same) {
                return testing::AssertionFailure()
                       << same.message() << " behind [" << chunk << "] in\n"
                       << cutNote(chunks);
            }
        }
        parser_.finish();
        reference_.finish();
        for (std::size_t index = 1; index <= requests_; ++index) {
            if (parsed_.parts(index) != expected_.parts(index)) {
                return testing::AssertionFailure() << "other parts in\n" << cutNote(chunks);
            }
        }
        if (const auto same = compare(); !same) {
            return testing::AssertionFailure() << same.message() << " at the end of\n"
                                               << cutNote(chunks);
        }
        return testing::AssertionSuccess();
    }

private:
    testing::AssertionResult compare() {
        if (parser_.hasError() != reference_.hasError() ||
            parser_.errorCode() != reference_.error().code ||
            parser_.errorText() != reference_.error().text) {
            return testing::AssertionFailure()
                   << "error " << parser_.errorCode() << " " << parser_.errorText()
                   << " instead of " << reference_.error().code << " " << reference_.error().text;
        }
        for (std::size_t index = 1; index <= requests_; ++index) {
            if (parsed_.request(index).state() != expected_.request(index).state()) {
                return testing::AssertionFailure() << "other state of request " << index;
            }
            if (parsed_.deliveries(index) != expected_.deliveries(index)) {
                return testing::AssertionFailure() << "other chunks of request " << index;
            }
        }
        return testing::AssertionSuccess();
    }

    std::size_t requests_;
    RecordedExchange parsed_;
    RecordedExchange expected_;
    SlpResponseParser parser_{parsed_.queue()};
    ReferenceParser reference_{expected_.queue()};
};

std::string randomDocument(Dice& dice) {
    static const std::array<std::string, 6> kResults = {
        R"(<result oid="1" href="cid:a"/>)", R"(<result oid="1" href="cid:b"/>)",
        R"(<result oid="2" href="CID:c"/>)", R"(<result oid="2" href="cid:a"/>)",
        R"(<result oid="9" href="cid:d"/>)", R"(<x/>)"};
    static const std::array<std::string, 4> kStatuses = {R"( status="ok")", R"( status="ok")",
                                                         R"( status="no")", ""};
    std::string document = "<SimpleLocationProtocol><SlpResponse";
    document.append(dice.pick(kStatuses)).append(">");
    for (std::size_t count = dice.roll(4); count > 0; --count) {
        document.append(kResults[dice.roll(dice.oneIn(8) ? 6 : 4)]);
    }
    return document.append("</SlpResponse></SimpleLocationProtocol>");
}

std::string randomHead(Dice& dice, const std::string& boundary) {
    static const std::array<std::string, 6> kStarts = {
        "HTTP/1.1 100 Continue\r\n\r\n", "HTTP/1.1 200 OK\r\nContent-Type: m\r\n\r\n",
        "SIP/2.0 200 OK\r\n\r\n",        "HTTP/1.1 503 Busy\r\n",
        "HTTP/1.1 200 OK\r\n",           "HTTP/1.1 200 OK\r\n"};
    std::string head = dice.pick(kStarts);
    if (head.ends_with("\r\n\r\n")) {
        head.append("HTTP/1.1 200 OK\r\n");
    }
    head.append("Content-Type: m; boundary=").append(boundary);
    return head.append(dice.oneIn(8) ? "" : "; start=s").append("\r\n\r\n");
}

/// Something like a body: pieces of all that has a meaning, in no order.
std::string randomBody(Dice& dice, const std::string& boundary) {
    const std::array<std::string, 22> tokens = {"\r",
                                                "\n",
                                                "\r\n",
                                                "\r\n\r\n",
                                                "-",
                                                "--",
                                                "--" + boundary,
                                                "\r\n--" + boundary + "\r\n",
                                                "\r\n--" + boundary + "--\r\n",
                                                "--" + boundary + "--",
                                                "HTTP",
                                                "x",
                                                "data",
                                                "Content-Id: a\r\n\r\n",
                                                "Content-Id: b\r\n\r\n",
                                                "Content-Id: c\r\n\r\n",
                                                "Content-Id: s\r\n\r\n",
                                                "Content-Id: a\r\nX-SLP-Next-part-ID: e\r\n\r\n",
                                                "Content-Id: c\r\nX-SLP-Next-part-ID: e\r\n\r\n",
                                                "Content-Id: e\r\n\r\n",
                                                "Content-Id: q\r\n\r\n",
                                                "\r\n--" + boundary + "\r\nContent-Id: s\r\n\r\n"};
    std::string body;
    if (!dice.oneIn(4)) {
        body.append("\r\n--").append(boundary).append("\r\nContent-Id: s\r\n\r\n");
        body.append(randomDocument(dice)).append("\r\n--").append(boundary).append("\r\n");
    }
    for (std::size_t count = dice.roll(24); count > 0; --count) {
        body.append(dice.oneIn(12) ? randomDocument(dice) : dice.pick(tokens));
    }
    return body;
}

std::vector<std::size_t> randomCuts(Dice& dice, std::size_t size, std::size_t meanLength) {
    std::vector<std::size_t> cuts;
    for (std::size_t at = 1; at < size; ++at) {
        if (dice.oneIn(meanLength)) {
            cuts.push_back(at);
        }
    }
    return cuts;
}

class SlpResponseModel : public testing::TestWithParam<std::uint32_t> {};

TEST_P(SlpResponseModel, IsFollowedOnRandomBytesCutAnywhere) {
    static const std::array<std::string, 6> kBoundaries = {"b", "-", "--", "bb-", "\r", "boundary"};
    Dice dice(GetParam());
    for (int round = 0; round < 1500; ++round) {
        const std::string& boundary = dice.pick(kBoundaries);
        const std::string head = randomHead(dice, boundary);
        const std::string body = randomBody(dice, boundary);
        std::vector<std::string> chunks;
        if (dice.oneIn(2)) {
            chunks = cut(head + body, randomCuts(dice, head.size() + body.size(), 20));
        } else {
            chunks = cut(body, randomCuts(dice, body.size(), 2 + dice.roll(60)));
            chunks.insert(chunks.begin(), head);
        }
        SideBySide sides(2, dice.oneIn(4) ? 2 : RecordedExchange::kChunkSize);
        ASSERT_TRUE(sides.run(chunks, dice)) << "round " << round;
    }
}

INSTANTIATE_TEST_SUITE_P(Seeds, SlpResponseModel, testing::Range(1U, 9U));

// -- well-formed responses ----------------------------------------------------------------------

/// A well-formed response that knows where it must not be cut.
struct WellFormed {
    std::string body;
    std::vector<bool> mayCut; ///< by position: nothing is lost by a cut in front of this byte
    std::vector<std::vector<std::string>> parts; ///< data by request, in order of arrival

    void add(const std::string& text, bool divisible) {
        for (std::size_t index = 0; index < text.size(); ++index) {
            mayCut.push_back(divisible || index == 0);
        }
        body += text;
    }
};

std::string randomData(Dice& dice) {
    static const std::array<std::string, 9> kTokens = {"\r",   "\n", "\r\n", "\r\n\r\n", "-",
                                                       "--bo", "x",  "HTTP", "some data"};
    std::string data;
    for (std::size_t count = dice.roll(12); count > 0; --count) {
        data += dice.pick(kTokens);
    }
    return data;
}

WellFormed randomResponse(Dice& dice) {
    constexpr std::size_t kRequests = 3;
    WellFormed response;
    response.parts.resize(kRequests);
    std::vector<std::size_t> owners;
    for (std::size_t request = 0; request < kRequests; ++request) {
        owners.insert(owners.end(), 1 + dice.roll(3), request);
    }
    std::string document = "<SimpleLocationProtocol><SlpResponse status=\"ok\">";
    for (std::size_t part = 0; part < owners.size(); ++part) {
        document += R"(<result oid=")" + std::to_string(owners[part] + 1) + R"(" href="cid:p)" +
                    std::to_string(part) + R"("/>)";
    }
    document += "</SlpResponse></SimpleLocationProtocol>";
    response.add("\r\n", true);
    response.add("--boundary\r\nContent-Id: s\r\n\r\n", false);
    response.add(document, true);
    for (std::size_t part = 0; part < owners.size(); ++part) {
        const std::string data = randomData(dice);
        response.add("\r\n", true);
        response.add("--boundary\r\nContent-Id: p" + std::to_string(part) + "\r\n\r\n", false);
        response.add(data, true);
        response.parts[owners[part]].push_back(data);
    }
    response.add("\r\n", true);
    response.add("--boundary--\r\n", false);
    return response;
}

TEST_P(SlpResponseModel, LosesAndAddsNothingWhenDelimitersAndHeaderBlocksStayWhole) {
    Dice dice(GetParam() + 1000);
    for (int round = 0; round < 1000; ++round) {
        const WellFormed response = randomResponse(dice);
        std::vector<std::size_t> cuts = randomCuts(dice, response.body.size(), 1 + dice.roll(30));
        std::erase_if(cuts, [&](std::size_t at) { return !response.mayCut[at]; });
        const std::vector<std::string> chunks = cut(response.body, cuts);

        RecordedExchange exchange(response.parts.size(), dice.oneIn(4) ? 3 : 1000);
        SlpResponseParser parser(exchange.queue());
        parser.feed("HTTP/1.1 200 OK\r\nContent-Type: m; boundary=boundary; start=s\r\n\r\n");
        for (const std::string& chunk : chunks) {
            exchange.ask(1 + dice.roll(response.parts.size()));
            parser.feed(chunk);
        }
        parser.finish();
        ASSERT_FALSE(parser.hasError()) << parser.errorText() << " in\n" << cutNote(chunks);
        for (std::size_t index = 0; index < response.parts.size(); ++index) {
            ASSERT_EQ(exchange.parts(index + 1), response.parts[index])
                << "request " << index + 1 << " in\n"
                << cutNote(chunks);
            ASSERT_EQ(exchange.request(index + 1).state(), RequestState::Delivered);
        }
    }
}

// -- one response, cut once at every place ------------------------------------------------------

/// What a cut does to the response below.
struct CutOutcome {
    std::string error; ///< empty: none
    std::vector<std::string> first;
    std::vector<std::string> second;

    bool operator==(const CutOutcome& other) const = default;
};

std::ostream& operator<<(std::ostream& out, const CutOutcome& outcome) {
    out << "error '" << outcome.error << "' parts";
    for (const auto* parts : {&outcome.first, &outcome.second}) {
        for (const std::string& part : *parts) {
            out << " [" << part << "]";
        }
        out << ";";
    }
    return out;
}

struct Segment {
    std::string text;
    CutOutcome atBegin; ///< when the cut is in front of the text
    CutOutcome inside;  ///< when it is between two of its bytes
};

const CutOutcome kComplete{"", {"A\r\nA"}, {"B"}};
const CutOutcome kNothing{"missing MIME parts", {}, {}};
const CutOutcome kFaultyOnly{"faulty MIME data", {"A\r\nA"}, {"B"}};
const CutOutcome kFirstLost{"missing MIME parts", {}, {"B"}};
const CutOutcome kSecondLost{"missing MIME parts", {"A\r\nA"}, {}};
const CutOutcome kRunTogether{
    "missing MIME parts", {"A\r\nA\r\n--bb\r\nContent-Id: b\r\n\r\nB"}, {}};
const CutOutcome kDelimiterAdded{"", {"A\r\nA"}, {"B\r\n--bb--"}};

const std::vector<Segment> kSegments = {
    {"\r\n", kComplete, kComplete},
    {"--bb", kComplete, kNothing}, // the start part is taken for preamble
    {"\r\n", kComplete, kFaultyOnly},
    {"X: y\r\n", kComplete, kFaultyOnly},
    {"Content-Id: s", kFaultyOnly, kNothing},
    {"\r\n\r\n", kNothing, kNothing},
    {"<SimpleLocationProtocol><SlpResponse status=\"ok\"><result oid=\"1\" href=\"cid:a\"/>"
     "<result oid=\"2\" href=\"cid:b\"/></SlpResponse></SimpleLocationProtocol>",
     kComplete, kComplete},
    {"\r\n", kComplete, kComplete},
    {"--bb", kComplete, kNothing}, // the first data part spoils the document
    {"\r\n", kComplete, kFaultyOnly},
    {"Content-Id: a", kComplete, kFirstLost},
    {"\r\n\r\n", kFirstLost, kFirstLost},
    {"A\r\nA", kComplete, kComplete},
    {"\r\n", kComplete, kComplete},
    {"--bb", kComplete, kRunTogether},
    {"\r\n", kComplete, kFaultyOnly},
    {"Content-Id: b", kComplete, kSecondLost},
    {"\r\n\r\n", kSecondLost, kSecondLost},
    {"B", kComplete, kComplete},
    {"\r\n", kComplete, kComplete},
    {"--bb", kComplete, kDelimiterAdded},
    {"--", kComplete, kFaultyOnly},
    {"\r\n", kComplete, kFaultyOnly},
};

CutOutcome parseCutAt(const std::string& body, std::size_t at, bool clientWaits) {
    RecordedExchange exchange(2);
    if (clientWaits) {
        exchange.ask(1);
        exchange.ask(2);
    }
    SlpResponseParser parser(exchange.queue());
    parser.feed("HTTP/1.1 200 OK\r\nContent-Type: m; boundary=bb; start=s\r\n\r\n");
    parser.feed(std::string_view(body).substr(0, at));
    parser.feed(std::string_view(body).substr(at));
    parser.finish();
    return {parser.hasError() ? parser.errorText() : "", exchange.parts(1), exchange.parts(2)};
}

class SlpResponseCut : public testing::TestWithParam<bool> {};

TEST_P(SlpResponseCut, DoesWhatTheRulesSayAtEveryPlace) {
    std::string body;
    for (const Segment& segment : kSegments) {
        body += segment.text;
    }
    std::size_t begin = 0;
    for (const Segment& segment : kSegments) {
        for (std::size_t offset = 0; offset < segment.text.size(); ++offset) {
            const std::size_t at = begin + offset;
            EXPECT_EQ(parseCutAt(body, at, GetParam()),
                      offset == 0 ? segment.atBegin : segment.inside)
                << body.substr(0, at) << "<cut>" << body.substr(at);
        }
        begin += segment.text.size();
    }
}

INSTANTIATE_TEST_SUITE_P(Clients, SlpResponseCut, testing::Bool(),
                         [](const auto& client) { return client.param ? "Waiting" : "Asking"; });

} // namespace
} // namespace orvexd
