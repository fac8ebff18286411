#include "http/RequestBody.h"

#include "fakes/FakeThreads.h"
#include "fakes/Gate.h"
#include "http/ExchangeParts.h"

#include <algorithm>
#include <curl/curl.h>
#include <functional>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <map>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace orvexd::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::size_t kUploadBuffer = 65524;

/// One call of the read callback with a guarded buffer.
struct Read {
    std::string bytes;
    bool aborted = false;
    bool operator==(const Read&) const = default;
};

class RequestBodyTest : public testing::Test {
protected:
    static constexpr const char* kBoundary = "limit";
    static constexpr const char* kClosing = "\r\n--limit--\r\n";

    RequestBodyTest() {
        parameters_.set("orvexd/wait_timeout/position", "0");
        owner_.onRequestData = [this](std::uint32_t, std::uint32_t requestId) {
            const auto data = data_.find(requestId);
            if (data != data_.end()) {
                request(requestId).appendRequestData(data->second, true);
            }
        };
    }

    /// Adds a request whose client sends all its data when it is asked.
    void addPart(const std::string& data, const PartKind& kind = {}) {
        data_[addSilentPart(kind)] = data;
    }

    /// Adds a request whose client sends nothing by itself.
    std::uint32_t addSilentPart(const PartKind& kind = {}) {
        const auto id = static_cast<std::uint32_t>(queue_.size() + 1);
        queue_.push_back(makeRequest(id, true, kind));
        queue_.back()->setContentId("part" + std::to_string(id));
        queue_.back()->setState(RequestState::Queued);
        kinds_.push_back(kind);
        return id;
    }

    RequestData& request(std::uint32_t id) { return *queue_.at(id - 1); }

    RequestBody& body() {
        if (!body_) {
            body_.emplace(queue_, kBoundary, prefix_, signal_, owner_, parameters_);
        }
        return *body_;
    }

    Read read(std::size_t capacity = kUploadBuffer) {
        constexpr char kGuard = '\x5a';
        std::vector<char> buffer(capacity + 64, kGuard);
        const std::size_t size = body().readBody({buffer.data(), capacity});
        EXPECT_TRUE(std::all_of(buffer.begin() + static_cast<std::ptrdiff_t>(capacity),
                                buffer.end(), [](char c) { return c == kGuard; }));
        if (size == CURL_READFUNC_ABORT) {
            return {"", true};
        }
        EXPECT_LE(size, capacity);
        return {std::string(buffer.data(), std::min(size, capacity)), false};
    }

    /// Everything up to the body's end.
    std::string readAll(std::size_t capacity = kUploadBuffer) {
        std::string bytes;
        for (Read piece = read(capacity); !piece.bytes.empty(); piece = read(capacity)) {
            bytes += piece.bytes;
        }
        return bytes;
    }

    /// The body as long as no line ends are touched.
    std::string plainBody() const {
        std::string bytes = prefix_;
        for (std::size_t i = 0; i < queue_.size(); ++i) {
            bytes += partHead(kBoundary, "part" + std::to_string(i + 1), kinds_[i]);
            bytes += data_.at(static_cast<std::uint32_t>(i + 1));
        }
        return bytes + kClosing;
    }

    /// The rule, with as much room as it wants: slices of the capacity less the reserve, each
    /// slice's line ends turned by itself; what a buffer cannot take goes first the next time.
    class Model {
    public:
        explicit Model(const RequestBodyTest& test) {
            chunks_.push_back({test.prefix_, true});
            for (std::size_t i = 0; i < test.queue_.size(); ++i) {
                const PartKind& kind = test.kinds_[i];
                const auto id = static_cast<std::uint32_t>(i + 1);
                chunks_.push_back(
                    {partHead(kBoundary, "part" + std::to_string(id), kind) + test.data_.at(id),
                     kind.transferEncoding != "binary"});
            }
        }

        std::string read(std::size_t capacity) {
            if (carry_.empty()) {
                slice(capacity);
            }
            std::string piece = carry_.substr(0, capacity);
            carry_.erase(0, capacity);
            return piece;
        }

    private:
        struct Chunk {
            std::string bytes;
            bool text;
        };

        void slice(std::size_t capacity) {
            const std::size_t limit =
                capacity >= 2048 ? capacity - 1024 : std::max<std::size_t>(1, capacity / 2);
            if (at_ == chunks_.size()) {
                carry_ = closed_ ? "" : kClosing;
                closed_ = true;
                return;
            }
            Chunk& chunk = chunks_[at_];
            const std::string bytes = chunk.bytes.substr(0, limit);
            chunk.bytes.erase(0, limit);
            at_ += chunk.bytes.empty() ? 1 : 0;
            for (std::size_t i = 0; i < bytes.size(); ++i) {
                if (chunk.text && i > 0 && bytes[i] == '\n' && bytes[i - 1] != '\r') {
                    carry_ += '\r';
                }
                carry_ += bytes[i];
            }
        }

        std::vector<Chunk> chunks_;
        std::size_t at_ = 0;
        bool closed_ = false;
        std::string carry_;
    };

    std::string prefix_ = "\r\n--limit\r\nhead\r\n\r\n<slp/>\r\n";
    Parameters parameters_;
    DataSignal signal_;
    RecordingOwner owner_;
    Queue queue_;
    std::vector<PartKind> kinds_;
    std::map<std::uint32_t, std::string> data_;
    std::optional<RequestBody> body_;
};

const PartKind kText = {.type = "position", .transferEncoding = "8bit", .contentType = "text/xml"};

// -- the body's bytes ---------------------------------------------------------------------------

TEST_F(RequestBodyTest, OfOneRequestIsPrefixPartAndClosingDelimiter) {
    addPart("data");
    EXPECT_EQ(read().bytes, prefix_);
    EXPECT_THAT(owner_.log, ElementsAre("request data 1:1"));
    EXPECT_EQ(read().bytes, "\r\n--limit\r\nContent-Type: application/octet-stream\r\n"
                            "Content-Transfer-Encoding: binary\r\nContent-Id: part1\r\n\r\ndata");
    EXPECT_EQ(read().bytes, "\r\n--limit--\r\n");
    EXPECT_EQ(read(), (Read{"", false}));
    EXPECT_EQ(read(), (Read{"", false})); // and stays at its end
}

TEST_F(RequestBodyTest, OfTwoRequestsHasTheirPartsInQueueOrder) {
    addPart("first");
    addPart("second", kText);
    EXPECT_EQ(readAll(), plainBody());
    EXPECT_THAT(owner_.log, ElementsAre("request data 1:1", "request data 1:2"));
}

TEST_F(RequestBodyTest, OfManyRequestsHasAllOfThem) {
    for (int i = 0; i < 1500; ++i) {
        addPart("data " + std::to_string(i), i % 2 == 0 ? kText : PartKind{});
    }
    EXPECT_EQ(readAll(), plainBody());
}

TEST_F(RequestBodyTest, OfAnEmptyPartHasItsHeaderOnly) {
    addPart("");
    EXPECT_EQ(readAll(), plainBody());
}

TEST_F(RequestBodyTest, HasItsBinaryPartsByteForByte) {
    addPart(std::string("\n\0\r\n\n\xff", 6));
    EXPECT_EQ(readAll(), plainBody());
}

TEST_F(RequestBodyTest, TurnsBareLineFeedsOfAPartThatIsNotBinary) {
    addPart("a\nb\r\nc", kText);
    EXPECT_EQ(readAll(), prefix_ + partHead(kBoundary, "part1", kText) + "a\r\nb\r\nc" + kClosing);
}

TEST_F(RequestBodyTest, SendsOnlyTheExactEncodingBinaryRaw) {
    for (const char* encoding : {"Binary", "binary ", "8bit", "base64", ""}) {
        const PartKind kind = {.transferEncoding = encoding};
        addPart("a\nb", kind);
    }
    std::string expected = prefix_;
    for (std::size_t i = 0; i < kinds_.size(); ++i) {
        expected += partHead(kBoundary, "part" + std::to_string(i + 1), kinds_[i]) + "a\r\nb";
    }
    EXPECT_EQ(readAll(), expected + kClosing);
}

TEST_F(RequestBodyTest, TakesThePrefixForText) {
    prefix_ = "\r\n--limit\r\n\r\n<a>\n <b/>\n</a>\n";
    addPart("");
    EXPECT_EQ(read().bytes, "\r\n--limit\r\n\r\n<a>\r\n <b/>\r\n</a>\r\n");
}

TEST_F(RequestBodyTest, EndsWithTheClosingDelimiterAfterABinaryPartToo) {
    addPart("\n");
    addPart("\n", kText);
    EXPECT_TRUE(readAll().ends_with("\r\n--limit--\r\n"));
}

// -- slices -------------------------------------------------------------------------------------

TEST_F(RequestBodyTest, SlicesAreTheCapacityLessTheReserve) {
    EXPECT_EQ(RequestBody::sliceLimit(65524), 64500U);
    EXPECT_EQ(RequestBody::sliceLimit(2049), 1025U);
    EXPECT_EQ(RequestBody::sliceLimit(2048), 1024U);
}

TEST_F(RequestBodyTest, SlicesOfASmallBufferAreHalfOfItAndNeverEmpty) {
    EXPECT_EQ(RequestBody::sliceLimit(2047), 1023U);
    EXPECT_EQ(RequestBody::sliceLimit(1024), 512U);
    EXPECT_EQ(RequestBody::sliceLimit(3), 1U);
    EXPECT_EQ(RequestBody::sliceLimit(2), 1U);
    EXPECT_EQ(RequestBody::sliceLimit(1), 1U);
}

TEST_F(RequestBodyTest, GivesALongPartInSlices) {
    addPart(std::string(200000, 'x'));
    std::vector<std::size_t> sizes;
    for (Read piece = read(); !piece.bytes.empty(); piece = read()) {
        sizes.push_back(piece.bytes.size());
    }
    const std::size_t rest = partHead(kBoundary, "part1").size() + 200000 - std::size_t{3} * 64500;
    EXPECT_THAT(sizes, ElementsAre(prefix_.size(), 64500, 64500, 64500, rest, 13));
}

TEST_F(RequestBodyTest, GivesALongPrefixInSlices) {
    prefix_ = std::string(std::size_t{64500} * 2 + 7, 'p');
    addPart("");
    EXPECT_EQ(read().bytes.size(), 64500U);
    EXPECT_THAT(owner_.log, IsEmpty());
    EXPECT_EQ(read().bytes.size(), 64500U);
    EXPECT_THAT(owner_.log, IsEmpty());
    EXPECT_EQ(read().bytes.size(), 7U);
    EXPECT_THAT(owner_.log, ElementsAre("request data 1:1"));
}

TEST_F(RequestBodyTest, AsksTheFirstClientWhenAPrefixOfExactlyOneSliceIsTaken) {
    prefix_ = std::string(64500, 'p');
    addPart("");
    EXPECT_EQ(read().bytes.size(), 64500U);
    EXPECT_THAT(owner_.log, ElementsAre("request data 1:1"));
}

TEST_F(RequestBodyTest, LeavesALineFeedAtTheStartOfASliceBare) {
    const std::size_t head = partHead(kBoundary, "part1", kText).size();
    addPart(std::string(64500 - head, 'x') + "\nrest", kText);
    EXPECT_EQ(read().bytes, prefix_);
    EXPECT_EQ(read().bytes.size(), 64500U);
    EXPECT_EQ(read().bytes, "\nrest");
}

TEST_F(RequestBodyTest, GivesTextThatOutgrowsTheBufferInTwoCalls) {
    const std::size_t head = partHead(kBoundary, "part1", kText).size();
    addPart(std::string(64500 - head, '\n') + "x", kText);
    (void)read();
    const std::string first = read().bytes;
    const std::string second = read().bytes;
    EXPECT_EQ(first.size(), kUploadBuffer);
    EXPECT_EQ(first.size() + second.size(), head + 2 * (64500 - head));
    EXPECT_EQ(read().bytes, "x"); // the slices stand where they would without the detour
}

TEST_F(RequestBodyTest, DoesNotTurnTheRestOfAnOutgrownSliceAgain) {
    prefix_ = std::string(3072, '\n');
    addPart("");
    std::string expected = "\n";
    for (int i = 1; i < 3072; ++i) {
        expected += "\r\n";
    }
    std::string sent = read(4096).bytes;
    EXPECT_EQ(sent.size(), 4096U);
    while (sent.size() < expected.size()) { // pieces that begin with either of the two
        const std::string piece = read(7).bytes;
        ASSERT_FALSE(piece.empty());
        sent += piece;
    }
    EXPECT_EQ(sent, expected);
}

TEST_F(RequestBodyTest, SendsTheClosingDelimiterThroughASmallBuffer) {
    addPart("");
    std::string closing;
    (void)read();
    (void)read();
    for (Read piece = read(5); !piece.bytes.empty(); piece = read(5)) {
        closing += piece.bytes;
    }
    EXPECT_EQ(closing, kClosing);
}

TEST_F(RequestBodyTest, AbortsForABufferWithoutRoom) {
    addPart("");
    EXPECT_TRUE(read(0).aborted);
}

class RequestBodyCapacityTest : public RequestBodyTest,
                                public testing::WithParamInterface<std::size_t> {};

TEST_P(RequestBodyCapacityTest, FollowsTheRulePieceByPiece) {
    prefix_ = "\r\n--limit\r\n\n\n<slp>\n  <x/>\n</slp>\n";
    addPart("\n\nline\nline\r\n\n", kText);
    addPart("\n\nline\nline\r\n\n");
    addPart(std::string(3000, '\n'), kText);
    addPart("");
    Model model(*this);
    for (bool more = true; more;) {
        const std::string expected = model.read(GetParam());
        ASSERT_EQ(read(GetParam()), (Read{expected, false}));
        more = !expected.empty();
    }
}

INSTANTIATE_TEST_SUITE_P(, RequestBodyCapacityTest,
                         testing::Values(1, 2, 3, 4, 5, 13, 64, 1000, 1023, 1024, 1025, 2047, 2048,
                                         2049, 4096, 16384, 65524, 70000));

TEST_F(RequestBodyTest, FollowsTheRuleForRandomBodiesInBuffersOfRandomSize) {
    std::mt19937 random(815);
    for (int round = 0; round < 150; ++round) {
        queue_.clear();
        kinds_.clear();
        data_.clear();
        body_.reset();
        prefix_.assign(random() % 3000 + 1, 'p');
        for (char& c : prefix_) {
            c = "\r\n\np"[random() % 4];
        }
        for (std::size_t parts = random() % 4 + 1; parts > 0; --parts) {
            std::string data(random() % 2 == 0 ? random() % 20 : random() % 6000, ' ');
            for (char& c : data) {
                c = "\r\n\nx"[random() % 4];
            }
            addPart(data, random() % 3 == 0 ? PartKind{} : kText);
        }
        Model model(*this);
        for (bool more = true; more;) {
            const std::size_t capacity =
                random() % 4 == 0 ? random() % 70000 + 1 : random() % 900 + 1;
            const std::string expected = model.read(capacity);
            ASSERT_EQ(read(capacity), (Read{expected, false})) << "capacity " << capacity;
            more = !expected.empty();
        }
    }
}

// -- requests on their way ----------------------------------------------------------------------

TEST_F(RequestBodyTest, AsksAClientOnlyWhenItsPartIsNext) {
    addPart("a");
    addPart("b");
    (void)read();
    EXPECT_EQ(request(1).state(), RequestState::Sending);
    EXPECT_TRUE(request(1).isAcceptingData());
    EXPECT_EQ(request(2).state(), RequestState::Queued);
    EXPECT_FALSE(request(2).isAcceptingData());
    (void)read();
    EXPECT_EQ(request(1).state(), RequestState::Sent);
    EXPECT_FALSE(request(1).isAcceptingData());
    EXPECT_EQ(request(2).state(), RequestState::Sending);
    EXPECT_TRUE(request(2).isAcceptingData());
    (void)read();
    EXPECT_EQ(request(2).state(), RequestState::Sent);
    EXPECT_FALSE(request(2).isAcceptingData());
}

TEST_F(RequestBodyTest, NeverLowersAStateThatAnEarlyResponseHasReached) {
    addPart("a");
    addPart("b");
    request(2).setState(RequestState::PartReceived);
    (void)read();
    request(1).setState(RequestState::AllPartsReceived);
    const std::string rest = readAll();
    EXPECT_EQ(request(1).state(), RequestState::AllPartsReceived);
    EXPECT_EQ(request(2).state(), RequestState::PartReceived);
    EXPECT_TRUE(rest.ends_with(kClosing));
    EXPECT_FALSE(request(2).isAcceptingData());
}

TEST_F(RequestBodyTest, WritesThePartsHeaderWhenThePartBecomesCurrent) {
    addPart("a");
    EXPECT_EQ(request(1).transferEncoding(), "");
    (void)read();
    EXPECT_EQ(request(1).transferEncoding(), "binary");
}

TEST_F(RequestBodyTest, AnnouncesTheStatusOnceBeforeAPartsFirstBytes) {
    parameters_.set("orvexd/wait_timeout/other", "0");
    addPart("a", {.type = "other"});
    addPart(std::string(200000, 'b'), {.type = ""});
    (void)readAll();
    EXPECT_THAT(owner_.log, ElementsAre("request data 1:1", "announce status", "request data 1:2",
                                        "announce status"));
}

TEST_F(RequestBodyTest, AnnouncesNothingForTheTypePosition) {
    addPart("a", {.type = "position"});
    addPart("b", {.type = "Position"});
    (void)readAll();
    EXPECT_THAT(owner_.log, ElementsAre("request data 1:1", "request data 1:2", "announce status"));
}

TEST_F(RequestBodyTest, AnnouncesTheStatusForTheTypePositionWithAZeroByteBehindIt) {
    addPart("a", {.type = std::string("position\0", 9)});
    (void)readAll();
    EXPECT_THAT(owner_.log, ElementsAre("request data 1:1", "announce status"));
}

TEST_F(RequestBodyTest, AnnouncesTheStatusForASilentClientOnceToo) {
    parameters_.set("orvexd/wait_timeout/other", "0");
    addSilentPart({.type = "other"});
    (void)readAll();
    EXPECT_THAT(owner_.log, ElementsAre("request data 1:1", "announce status"));
}

// -- waiting for clients ------------------------------------------------------------------------

TEST_F(RequestBodyTest, ClosesThePartOfASilentClientEmpty) {
    addSilentPart();
    EXPECT_EQ(readAll(), prefix_ + partHead(kBoundary, "part1") + kClosing);
    EXPECT_EQ(request(1).state(), RequestState::Sent);
}

TEST_F(RequestBodyTest, ClosesThePartOfAClientThatFallsSilentWithWhatItHas) {
    addSilentPart();
    addPart("next");
    (void)read();
    EXPECT_TRUE(request(1).appendIfAccepting("begin", false));
    EXPECT_EQ(readAll(), partHead(kBoundary, "part1") + "begin" + partHead(kBoundary, "part2") +
                             "next" + kClosing);
}

TEST_F(RequestBodyTest, GivesWhatThereIsBeforeItWaits) {
    parameters_.set("orvexd/wait_timeout/position", "60000");
    addSilentPart();
    (void)read();
    EXPECT_TRUE(request(1).appendIfAccepting("begin", false));
    EXPECT_EQ(read().bytes, partHead(kBoundary, "part1") + "begin");
    EXPECT_TRUE(request(1).appendIfAccepting("end", true));
    EXPECT_EQ(read().bytes, "end");
    EXPECT_EQ(read().bytes, kClosing);
}

TEST_F(RequestBodyTest, TakesAnEmptyLastPieceForTheEndOfThePart) {
    parameters_.set("orvexd/wait_timeout/position", "60000");
    addSilentPart();
    (void)read();
    EXPECT_TRUE(request(1).appendIfAccepting("data", false));
    EXPECT_EQ(read().bytes, partHead(kBoundary, "part1") + "data");
    EXPECT_TRUE(request(1).appendIfAccepting("", true));
    EXPECT_EQ(read().bytes, kClosing);
}

TEST_F(RequestBodyTest, WaitsForTheTimeOfTheRequestsType) {
    parameters_.set("orvexd/wait_timeout/slow", "80");
    addSilentPart({.type = "slow"});
    (void)read();
    const gint64 start = g_get_monotonic_time();
    EXPECT_EQ(read().bytes, partHead(kBoundary, "part1"));
    EXPECT_GE(g_get_monotonic_time() - start, 80000);
}

TEST_F(RequestBodyTest, DoesNotWaitForANegativeTime) {
    parameters_.set("orvexd/wait_timeout/position", "-60000");
    addSilentPart();
    EXPECT_TRUE(readAll().ends_with(kClosing));
}

TEST_F(RequestBodyTest, IsWokenByDataInTheLongestOfWaits) {
    parameters_.set("orvexd/wait_timeout/slow", "99999999999999999999"); // beyond the clock
    addSilentPart({.type = "slow"});
    (void)read();
    std::thread client;
    // The announcement comes with the mutex held, so the notification cannot come before the wait.
    owner_.onAnnouncement = [&] {
        client = std::thread([this] {
            signal_.notifyData(); // waits until the reader waits
            EXPECT_TRUE(request(1).appendIfAccepting("late", true));
            signal_.notifyData();
        });
    };
    EXPECT_EQ(read().bytes, partHead(kBoundary, "part1") + "late");
    client.join();
    EXPECT_EQ(read().bytes, kClosing);
}

TEST_F(RequestBodyTest, WaitsAgainAfterDataOfAnotherRequest) {
    parameters_.set("orvexd/wait_timeout/slow", "50");
    addSilentPart({.type = "slow"});
    (void)read();
    std::thread client;
    owner_.onAnnouncement = [&] { client = std::thread([this] { signal_.notifyData(); }); };
    const gint64 start = g_get_monotonic_time();
    EXPECT_EQ(read().bytes, partHead(kBoundary, "part1"));
    EXPECT_GE(g_get_monotonic_time() - start, 50000);
    client.join();
}

// -- a client that leaves ------------------------------------------------------------------------

class LeavingClient : public RequestBodyTest {
protected:
    static constexpr gint64 kSeconds = 1'000'000;

    LeavingClient() {
        addSilentPart({.type = "fingerprint"}); // 90 s
        (void)read();
    }
    ~LeavingClient() override {
        if (other_.joinable()) {
            other_.join();
        }
    }
    LeavingClient(const LeavingClient&) = delete;
    LeavingClient& operator=(const LeavingClient&) = delete;

    /// Reads, and ends the first wait in which nothing else happens by the part's last data.
    /// @return the deadline of that wait.
    gint64 deadlineOfWait() {
        gint64 deadline = 0;
        endNextWait(deadline);
        EXPECT_TRUE(read().bytes.ends_with("end"));
        return deadline;
    }
    void endNextWait(gint64& deadline) {
        fake_threads::beforeNextWait([this, &deadline] {
            deadline = fake_threads::lastDeadline();
            request(1).appendRequestData("end", true);
            onOtherThread([this] { signal_.notifyData(); }); // waits until the reader waits
        });
    }
    void onOtherThread(std::function<void()> action) {
        if (other_.joinable()) {
            other_.join();
        }
        other_ = std::thread(std::move(action));
    }

    std::thread other_;
};

TEST_F(LeavingClient, IsGivenItsWholeWaitAsLongAsItIsThere) {
    const gint64 begin = g_get_monotonic_time();
    EXPECT_GE(deadlineOfWait(), begin + 90 * kSeconds);
}

TEST_F(LeavingClient, LeavesFiveSecondsToEveryLaterWait) {
    const gint64 begin = g_get_monotonic_time();
    request(1).setOpenerLeft(begin - 60 * kSeconds);
    const gint64 deadline = deadlineOfWait();
    EXPECT_GE(deadline, begin + 5 * kSeconds);
    EXPECT_LE(deadline, g_get_monotonic_time() + 5 * kSeconds);
}

TEST_F(LeavingClient, EndsTheWaitAtMostFiveSecondsLater) {
    gint64 left = 0;
    gint64 first = 0;
    gint64 second = 0;
    fake_threads::beforeNextWait([&] {
        first = fake_threads::lastDeadline();
        left = g_get_monotonic_time();
        onOtherThread([&] {
            request(1).setOpenerLeft(left);
            signal_.notifyDeadline();
        });
        endNextWait(second);
    });
    EXPECT_TRUE(read().bytes.ends_with("end"));
    EXPECT_GT(first, left + 80 * kSeconds);
    EXPECT_EQ(second, left + 5 * kSeconds);
}

TEST_F(LeavingClient, DoesNotLengthenAShortWait) {
    parameters_.set("orvexd/wait_timeout/fingerprint", "1000");
    request(1).setOpenerLeft(g_get_monotonic_time());
    const gint64 deadline = deadlineOfWait();
    EXPECT_LE(deadline, g_get_monotonic_time() + kSeconds);
}

// -- cancellation -------------------------------------------------------------------------------

TEST_F(RequestBodyTest, AbortsAtTheFirstReadAfterACancellation) {
    addPart("a");
    signal_.requestCancel();
    EXPECT_TRUE(read().aborted);
    EXPECT_THAT(owner_.log, IsEmpty());
}

TEST_F(RequestBodyTest, AbortsInTheMiddleOfAPart) {
    addPart(std::string(100000, 'x'));
    (void)read();
    (void)read();
    signal_.requestCancel();
    EXPECT_TRUE(read().aborted);
}

TEST_F(RequestBodyTest, AbortsBeforeItGivesTheRestOfAnOutgrownSlice) {
    prefix_ = std::string(64500, '\n');
    addPart("");
    EXPECT_EQ(read().bytes.size(), kUploadBuffer);
    signal_.requestCancel();
    EXPECT_TRUE(read().aborted);
}

TEST_F(RequestBodyTest, AbortsAtTheEndOfTheBodyToo) {
    addPart("");
    (void)readAll();
    signal_.requestCancel();
    EXPECT_TRUE(read().aborted);
}

TEST_F(RequestBodyTest, NoticesACancellationOnlyWhenItsWaitEnds) {
    parameters_.set("orvexd/wait_timeout/slow", "150");
    addSilentPart({.type = "slow"});
    (void)read();
    std::thread canceller;
    owner_.onAnnouncement = [&] { canceller = std::thread([this] { signal_.requestCancel(); }); };
    const gint64 start = g_get_monotonic_time();
    EXPECT_TRUE(read().aborted);
    EXPECT_GE(g_get_monotonic_time() - start, 150000);
    canceller.join();
}

TEST_F(RequestBodyTest, NoticesACancellationWhenDataEndsTheWait) {
    parameters_.set("orvexd/wait_timeout/slow", "60000");
    addSilentPart({.type = "slow"});
    (void)read();
    std::thread client;
    owner_.onAnnouncement = [&] {
        client = std::thread([this] {
            signal_.requestCancel();
            EXPECT_TRUE(request(1).appendIfAccepting("data", true));
            signal_.notifyData();
        });
    };
    EXPECT_TRUE(read().aborted);
    client.join();
}

// -- data against the closing of its part -------------------------------------------------------

TEST_F(RequestBodyTest, NeverLosesDataThatItHasAccepted) {
    constexpr std::uint32_t kParts = 400;
    parameters_.set("orvexd/wait_timeout/position", "0");
    for (std::uint32_t i = 0; i < kParts; ++i) {
        addSilentPart();
    }
    std::string expected = prefix_;
    std::vector<std::string> accepted(kParts);
    Gate started;
    std::thread client([&] {
        started.open();
        for (std::uint32_t id = 1; id <= kParts; ++id) {
            RequestData& part = request(id);
            while (part.state() < RequestState::Sending) {
                std::this_thread::yield();
            }
            for (int i = 0; i < 50 && part.appendIfAccepting("piece ", false); ++i) {
                accepted[id - 1] += "piece ";
                signal_.notifyData();
            }
        }
    });
    ASSERT_TRUE(started.await());
    const std::string sent = readAll(4096);
    client.join();
    for (std::uint32_t id = 1; id <= kParts; ++id) {
        expected += partHead(kBoundary, "part" + std::to_string(id)) + accepted[id - 1];
    }
    EXPECT_EQ(sent, expected + kClosing);
}

} // namespace
} // namespace orvexd::test
