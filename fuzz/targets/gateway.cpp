// The gateway core as a state machine, between clients, a platform and a transport that do what the
// input says.
//
// Input: how the run ends, then a sequence of commands, see `Gateway::step`. A capital letter in
// front means that memory is short: the next byte chooses the budget, and data and answers have
// sizes.
//
// Threads are real, but the worker takes a step only when the input gives it one, and time stands
// still until the input lets it pass: a run is the same each time. That is true of a worker that
// waits for room, too: it looks again after each command, and no clock ends its wait.
//
// Properties, seen from outside: ids are handed out in order; each operation is answered as the
// request's fate so far demands; no request is lost, which means that each one ends with its whole
// answer, an error that names it, its client's own doing, or the documented silence of an answer
// that a later failure sweeps away; none is answered twice; bytes in are bytes out, in both
// directions.

#include "config/ConfHandler.h"
#include "core/OrvexMain.h"
#include "fakes/FakeCurl.h"
#include "fakes/FakePlatform.h"
#include "fakes/FakeThreads.h"
#include "models/RequestFate.h"
#include "request/RequestData.h"
#include "support/Check.h"
#include "support/Input.h"
#include "support/MemoryBudget.h"
#include "support/Target.h"
#include "support/VirtualTime.h"

#include <algorithm>
#include <array>
#include <condition_variable>
#include <cstdlib>
#include <functional>
#include <glib.h>
#include <gtest/gtest.h>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

namespace orvexd::fuzz {
namespace {

using test::RequestFate;

constexpr std::chrono::milliseconds kEndDelay(50);

// -- the transport -------------------------------------------------------------------------------

/// libcurl's place: the worker stands in here and does one step whenever the main thread says so.
class Turnstile {
public:
    /// A step; the transfer ends with its result, if it has one.
    using Step = std::function<std::optional<CURLcode>(fake_curl::Transfer&)>;

    CURLcode serve(fake_curl::Transfer& transfer) {
        fake_threads::replaceWaits([this](std::int64_t deadline) { return stall(deadline); });
        std::unique_lock lock(mutex_);
        while (true) {
            waiting_ = true;
            changed_.notify_all();
            changed_.wait(lock, [this] { return step_ || open_; });
            waiting_ = false;
            const Step step = step_ ? std::exchange(step_, nullptr) : Step(readToEnd);
            lock.unlock();
            const std::optional<CURLcode> result = step(transfer);
            lock.lock();
            if (result) {
                ended_ = true;
                changed_.notify_all();
                return *result;
            }
        }
    }

    /// Waits until the worker has come, or has ended elsewhere.
    template <typename Running> void awaitWorker(Running isRunning) {
        std::unique_lock lock(mutex_);
        while (!waiting_ && isRunning()) {
            changed_.wait_for(lock, std::chrono::milliseconds(1));
        }
        ended_ = false;
    }

    void run(Step step) {
        std::unique_lock lock(mutex_);
        step_ = std::move(step);
        waiting_ = false;
        changed_.notify_all();
        changed_.wait(lock, [this] { return waiting_ || ended_ || stalled_; });
    }

    /// Whether the worker waits for something in the middle of its step.
    bool isStalled() {
        const std::lock_guard lock(mutex_);
        return stalled_;
    }

    /// Ends that wait: by a wake-up, or because its time is up. Waits for what comes of it, the end
    /// of the step or another wait, unless the transfer has ended.
    void endStall(bool inTime) {
        std::unique_lock lock(mutex_);
        stalled_ = false;
        endOfStall_ = inTime;
        changed_.notify_all();
        changed_.wait(lock, [this] { return waiting_ || ended_ || stalled_; });
    }

    /// From now on the worker goes its own way.
    void open() {
        const std::lock_guard lock(mutex_);
        open_ = true;
        changed_.notify_all();
    }

private:
    /// @return whether the wait ended before its deadline.
    bool stall(std::int64_t deadline) {
        std::unique_lock lock(mutex_);
        if (deadline <= g_get_monotonic_time() || open_) {
            return false;
        }
        stalled_ = true;
        changed_.notify_all();
        changed_.wait(lock, [this] { return endOfStall_ || open_; });
        stalled_ = false;
        const bool inTime = endOfStall_.value_or(false);
        endOfStall_.reset();
        changed_.notify_all();
        return inTime;
    }

    static std::optional<CURLcode> readToEnd(fake_curl::Transfer& transfer) {
        std::string body;
        (void)transfer.readAll(body);
        return CURLE_ABORTED_BY_CALLBACK;
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    Step step_;
    std::optional<bool> endOfStall_; ///< and whether it comes in time
    bool stalled_ = false;
    bool waiting_ = false;
    bool ended_ = false;
    bool open_ = false;
};

// -- what is known about a request and an exchange -----------------------------------------------

void obey(const char* broken) {
    check(broken == nullptr, broken);
}

enum class Place { Waiting, InExchange, Answered, Gone };

struct Request {
    std::uint32_t connection;
    std::uint32_t id;
    std::uint32_t policy;
    RequestFate fate; ///< what its client knows; the rest is known here only

    Place place = Place::Waiting;
    bool bodyCut = false;      ///< the server answered without reading the whole body
    std::string accepted = {}; ///< data that was taken from the client
    std::string received = {};
    std::string answer = {}; ///< what the server says, all parts together
    std::size_t written = 0; ///< bytes of it that have been written
    bool answerWhole = true; ///< the server got to say all of it

    bool goesBefore(const Request& other) const {
        return fate.prepared != other.fate.prepared ? fate.prepared : id < other.id;
    }
};

enum class Flaw { None, MissingPart, BadStatus, ServerError, NoType };

/// Bytes of an answer, and what makes them its own.
struct Atom {
    std::string bytes;
    Request* request = nullptr; ///< to which they belong, if they are data
};

struct Exchange {
    std::vector<Request*> members; ///< in transfer order
    std::string body;
    bool bodyEnded = false;
    bool aborted = false;
    std::optional<Flaw> flaw;       ///< of the answer, once it has begun
    std::vector<Atom> atoms;        ///< of the answer; a cut between them changes nothing
    std::vector<std::size_t> parts; ///< atoms with which a data part begins
    std::size_t written = 0;
    std::size_t document = 0;               ///< the atom that ends the document
    std::size_t idCost = 0;                 ///< of the announced ids
    std::size_t begun = 0;                  ///< atoms in front of the piece that is being written
    bool isWriting = false;                 ///< the worker is inside the write callback
    bool isRefused = false;                 ///< ... or has ended it and does not want more
    bool isLate = false;                    ///< because there was no room in time
    std::vector<std::string> refusals = {}; ///< of which one is the text of the error otherwise
    bool hasManyParts = false;              ///< of one request, more than may wait
};

/// What memory is bounded by. Numbers are not the daemon's.
struct Memory {
    std::size_t budget = 0; ///< 0: the usual one

    bool isShort() const { return budget > 0; }
    std::size_t share() const { return budget * 3 / 4; }
    std::size_t mostParts() const { return share() / 400; }
};

/// Counts what was reached, for who writes seeds.
struct Reached {
    std::map<std::string, int> counts;

    ~Reached() {
        if (std::getenv("ORVEXD_FUZZ_TELL") != nullptr) {
            for (const auto& [what, times] : counts) {
                std::fprintf(stderr, "  %s: %d\n", what.c_str(), times);
            }
        }
    }
};

// -- the run
// ---------------------------------------------------------------------------------------

class Gateway : public IServiceEvents {
public:
    explicit Gateway(Memory memory) : memory_(memory) {
        if (memory_.isShort()) {
            budget_.resize(memory_.budget);
        }
        fake_curl::reset();
        fake_platform::reset();
        fake_threads::reset();
        HttpClient::getConfiguration().clear();
        for (const char* type : {"position", "fingerprint"}) { // nobody waits for a client
            HttpClient::setParameter(std::string("orvexd/wait_timeout/") + type, "0");
        }
        core_ = std::make_unique<OrvexMain>(*this);
        provideTransport();
    }
    ~Gateway() override { leave(); }
    Gateway(const Gateway&) = delete;
    Gateway& operator=(const Gateway&) = delete;
    Gateway(Gateway&&) = delete;
    Gateway& operator=(Gateway&&) = delete;

    void step(Input& input);
    void finish(char how);
    /// After each step: a worker that waits for room looks again.
    void wake();

    // -- IServiceEvents

    bool isExchangePermitted() override { return permitted_; }
    void emitConnectionStatusChanged(std::uint32_t status) override {
        check(status == 0 || status == 1 || status == 3 || status == 5,
              "the status is one of four");
    }
    void emitRequestData(std::uint32_t connectionId, std::uint32_t requestId) override;
    void emitErrorSignal(std::uint32_t code, const std::string& message,
                         const std::string& requests) override;
    void deliverChunk(std::uint32_t connectionId, std::uint32_t requestId, const std::string& bytes,
                      DeliveryCode code) override;
    void resumeUpload(std::uint32_t connectionId, std::uint32_t requestId) override {
        (void)find(connectionId, requestId);
    }
    void dropPending(std::uint32_t connectionId, std::uint32_t requestId) override {
        (void)find(connectionId, requestId);
    }
    void watchClient(const std::string& /*name*/) override {}
    void onMemoryShort() override {}

private:
    Request& find(std::uint32_t connectionId, std::uint32_t requestId);
    Request* pick(Input& input);
    bool isAllowed(std::uint32_t policy) const;

    void settle();
    void noticeStart();
    void provideTransport();
    std::size_t readPadding(Input& input) const;

    void open(Input& input);
    void create(Input& input, bool prepared);
    void send(Request& request, std::size_t padding, bool last);
    void ask(Request& request);
    static void endByClient(Request& request);
    void changeNetwork(std::size_t choice);

    void read(std::size_t capacity);
    void checkBody();
    struct Style {
        std::size_t padding = 0; ///< of each part
        bool manyParts = false;
    };
    void beginAnswer(Flaw flaw, Style style);
    void addPart(Request& request, const std::string& id, Style style);
    void write(std::size_t atoms);
    void afterWrite();
    void checkShares() const;
    bool serve();
    void endStall(bool inTime);
    void goOn();
    std::vector<std::string> possibleRefusals() const;
    void finishTransfer(CURLcode code);
    void finishParser(Exchange& ended, bool succeeds);
    void failExchange(Exchange ended);
    bool answerBegunInFull() const;
    void finishExchange();

    void complete();
    void leave();

    const Memory memory_;
    MemoryBudget& budget_ = MemoryBudget::process();
    const std::size_t usualBudget_ = budget_.size();
    const std::size_t heldBefore_ = budget_.held();
    std::size_t largestData_ = 0;  ///< that a client gave at once
    std::size_t largestPiece_ = 0; ///< that the server sent at once
    Reached reached_;
    Turnstile turnstile_;
    std::unique_ptr<OrvexMain> core_;
    bool permitted_ = true;
    std::uint32_t status_ = 0;
    std::uint32_t lastRequest_ = 0;
    std::vector<bool> connections_;         ///< open or not, by id - 1
    std::vector<std::uint32_t> chunkSizes_; ///< by connection id - 1
    std::map<std::uint32_t, std::unique_ptr<Request>> requests_;
    std::optional<Exchange> exchange_; ///< the running one
    bool finishing_ = false;       ///< the running one has its result, but the core does not know
    std::vector<Exchange> failed_; ///< ended in failure, their errors are still to come
    std::size_t sent_ = 0;
    std::size_t exchanges_ = 0;
    bool isTaken_ = false; ///< the last piece, written by the worker
};

Request& Gateway::find(std::uint32_t connectionId, std::uint32_t requestId) {
    const auto position = requests_.find(requestId);
    check(position != requests_.end() && position->second->connection == connectionId,
          "events name requests that exist");
    return *position->second;
}

Request* Gateway::pick(Input& input) {
    if (requests_.empty()) {
        return nullptr;
    }
    auto position = requests_.begin();
    std::advance(position, input.number(requests_.size()));
    return position->second.get();
}

bool Gateway::isAllowed(std::uint32_t policy) const {
    return policy == 3 || (status_ & 2U) != 0 || (policy == 2 && (status_ & 4U) == 0);
}

// -- events --------------------------------------------------------------------------------------

void Gateway::emitRequestData(std::uint32_t connectionId, std::uint32_t requestId) {
    Request& request = find(connectionId, requestId);
    obey(request.fate.onAsked());
    check(request.place != Place::Waiting, "only a request in an exchange is asked for data");
}

void Gateway::emitErrorSignal(std::uint32_t code, const std::string& message,
                              const std::string& requests) {
    std::istringstream keys(requests);
    std::vector<Request*> named;
    for (std::string key; keys >> key;) {
        const std::size_t colon = key.find(':');
        named.push_back(&find(static_cast<std::uint32_t>(std::stoul(key)),
                              static_cast<std::uint32_t>(std::stoul(key.substr(colon + 1)))));
        obey(named.back()->fate.onNamed(message));
    }
    const bool lost = message == "Connection error";
    if (lost || message == "Current network connection not allowed") {
        check(code == 2204 && !named.empty(), "a network error has its code and names requests");
        for (Request* request : named) {
            if (request->place == Place::Waiting) {
                check(request->fate.prepared, "attached requests wait for another network");
                check(lost || !isAllowed(request->policy), "an allowed request is not dropped");
                request->place = Place::Gone;
            } else {
                check(lost && request->fate.openCalls > 0,
                      "a lost connection ends only what somebody waits for");
            }
        }
        return;
    }
    check(!failed_.empty(), "an exchange error belongs to an exchange");
    const Exchange exchange = std::move(failed_.front());
    failed_.erase(failed_.begin());
    check(code == 2001 || code == 2204, "an exchange error has its code");
    if (exchange.isRefused) {
        reached_.counts["refused: " + message]++;
        const auto& texts = exchange.refusals;
        check(exchange.isLate ? code == 2204 && message == "Timeout was reached"
                              : code == 2001 && std::ranges::count(texts, message) == 1,
              "a refused answer fails with its text");
    }
    for (const Request* request : exchange.members) {
        check(request->fate.ended, "a failed exchange names all that it had not answered");
    }
    for (const Request* request : named) {
        check(!request->fate.whole, "a whole answer has not failed");
        check(std::find(exchange.members.begin(), exchange.members.end(), request) !=
                  exchange.members.end(),
              "a failed exchange names its own requests");
    }
}

void Gateway::deliverChunk(std::uint32_t connectionId, std::uint32_t requestId,
                           const std::string& bytes, DeliveryCode code) {
    Request& request = find(connectionId, requestId);
    obey(request.fate.onChunk(bytes.size(), static_cast<std::uint32_t>(code)));
    request.received += bytes;
    check(request.answer.starts_with(request.received), "the bytes are the server's",
          [&] { return request.received + "\nnot\n" + request.answer; });
    check(!request.fate.whole || !request.answerWhole || request.received == request.answer,
          "the answer is whole");
}

// -- main loop -----------------------------------------------------------------------------------

/// Runs everything that is due.
void Gateway::settle() {
    while (virtual_time::runOne()) {
        noticeStart();
    }
}

/// After anything that may have started an exchange.
void Gateway::noticeStart() {
    if (exchange_ || finishing_ || !core_->isTransferRunning()) {
        return;
    }
    exchange_.emplace();
    ++exchanges_;
    for (const auto& [id, request] : requests_) {
        if (request->place == Place::Waiting && isAllowed(request->policy)) {
            request->place = Place::InExchange;
            exchange_->members.push_back(request.get());
        }
    }
    std::sort(exchange_->members.begin(), exchange_->members.end(),
              [](const Request* left, const Request* right) { return left->goesBefore(*right); });
    turnstile_.awaitWorker([this] { return core_->isTransferRunning(); });
}

void Gateway::provideTransport() {
    fake_curl::addScript([this](fake_curl::Transfer& transfer) {
        provideTransport(); // for the next one
        return turnstile_.serve(transfer);
    });
}

// -- clients -------------------------------------------------------------------------------------

void Gateway::open(Input& input) {
    constexpr std::array<std::uint32_t, 6> kChunkSizes = {1000, 1, 3, 7, 16, 0};
    constexpr std::array<const char*, 2> kTypes = {"position", "fingerprint"};
    const std::uint32_t chunkSize = kChunkSizes[input.number(kChunkSizes.size())];
    const char* const type = kTypes[input.number(kTypes.size())];
    const bool hasRoom = budget_.hasRoom();
    try {
        const std::uint32_t id =
            core_->openConnection("Element", type, "1.0", "binary", "text/plain", chunkSize);
        connections_.push_back(true);
        chunkSizes_.push_back(chunkSize);
        check(hasRoom, "no connection is opened without room");
        check(id == connections_.size(), "connection ids are handed out in order");
    } catch (const LimitExceeded&) {
        check(!hasRoom, "a connection is refused for a reason");
    }
}

void Gateway::create(Input& input, bool prepared) {
    const auto connection = static_cast<std::uint32_t>(1 + input.number(connections_.size() + 1));
    const auto policy = static_cast<std::uint32_t>(input.number(5));
    settle();
    const bool known = connection <= connections_.size() && connections_[connection - 1];
    const bool allowed = known && (!prepared || isAllowed(policy));
    const bool refused = !allowed || !budget_.hasRoom();
    if (!refused) { // whatever comes of it, the request exists from now on
        const std::uint32_t id = ++lastRequest_;
        requests_[id] = std::make_unique<Request>(
            Request{connection,
                    id,
                    policy,
                    {.chunkSize = chunkSizes_[connection - 1], .prepared = prepared}});
    }
    try {
        const std::uint32_t id = prepared ? core_->prepareRequest(connection, policy, 5)
                                          : core_->attachRequest(connection, policy, 5);
        check(!refused, "a request that may not be is refused");
        check(id == lastRequest_, "request ids are handed out in order");
    } catch (int code) {
        check(code == (known ? 2204 : 1001), "the refusal has its code");
    } catch (const LimitExceeded&) {
        check(allowed && refused, "a request is refused for lack of room when all else is right");
    }
    noticeStart();
    settle();
}

/// Bytes that tell where they stand.
std::string filling(std::size_t size) {
    std::string bytes;
    while (bytes.size() < size) {
        bytes += std::to_string(bytes.size()) + ' ';
    }
    bytes.resize(size);
    return bytes;
}

void Gateway::send(Request& request, std::size_t padding, bool last) {
    const std::string data = "data " + std::to_string(++sent_) + filling(padding) + "\n";
    largestData_ = std::max(largestData_, data.size());
    const int result = core_->sendData(data, last, request.connection, request.id);
    const bool isOpen = connections_[request.connection - 1];
    obey(request.fate.onSent(result, isOpen));
    if (!isOpen) {
        return;
    }
    switch (request.place) {
    case Place::Waiting:
        check(result == 57, "a waiting request is there and takes no data");
        break;
    case Place::InExchange:
        check(result == 0 || result == 57, "a request of the exchange is there");
        break;
    case Place::Answered:
        // Nobody takes the request back that was being asked when the server had heard enough.
        check(result == 57 || result == 41 || (result == 0 && request.bodyCut),
              "an answered request takes no data");
        break;
    case Place::Gone:
        check(result == 41, "a request that is gone is unknown");
    }
    if (result == 0) {
        request.accepted += data;
    } else if (memory_.isShort() && request.place == Place::InExchange && result == 57 &&
               budget_.held() - heldBefore_ >= memory_.share()) {
        reached_.counts["data refused without room"]++;
    }
}

void Gateway::ask(Request& request) {
    ++request.fate.openCalls;
    try {
        core_->getData(request.connection, request.id);
        check(request.place != Place::Gone, "a request that is gone is unknown");
    } catch (int code) {
        obey(request.fate.onRefused(code));
        // Swept up with its exchange, whose error may still be under way, or once it was answered.
        check(request.place == Place::Gone ||
                  (request.place == Place::Answered && request.fate.ended),
              "a request does not vanish");
    }
}

void Gateway::endByClient(Request& request) {
    request.fate.ended = true;
    if (request.place == Place::Waiting) {
        request.place = Place::Gone;
    }
}

void Gateway::changeNetwork(std::size_t choice) {
    settle();
    switch (choice) {
    case 0:
        fake_platform::disconnect();
        status_ = 0;
        break;
    case 1:
        fake_platform::connect(1);
        status_ = 3;
        break;
    case 2:
        fake_platform::connect(2);
        status_ = 1;
        break;
    case 3:
        fake_platform::connect(2, true);
        status_ = 5;
        break;
    case 4:
        fake_platform::connect(1, true); // flagged, which its kind outweighs
        status_ = 3;
        break;
    default:
        break; // nothing has changed, the platform says
    }
    fake_platform::notifyObservers();
    noticeStart();
    settle();
}

// -- the server's side ---------------------------------------------------------------------------

void Gateway::read(std::size_t capacity) {
    Exchange& exchange = *exchange_;
    if (exchange.bodyEnded || exchange.aborted || exchange.isWriting) {
        return; // libcurl does not ask again, or is not there
    }
    turnstile_.run([&](fake_curl::Transfer& transfer) -> std::optional<CURLcode> {
        const fake_curl::Transfer::Piece piece = transfer.read(capacity);
        exchange.aborted = piece.aborted;
        exchange.bodyEnded = !piece.aborted && piece.bytes.empty();
        exchange.body += piece.bytes;
        return std::nullopt;
    });
    if (exchange.bodyEnded) {
        checkBody();
    }
}

/// The whole body has been read: it holds what the clients have sent.
void Gateway::checkBody() {
    const std::string& body = exchange_->body;
    const std::size_t end = body.find("\r\n", 2);
    const std::string delimiter = body.substr(0, end); // CR LF, "--" and the boundary
    std::string parts;
    std::size_t number = 0;
    for (const Request* request : exchange_->members) {
        parts += delimiter +
                 "\r\nContent-Type: text/plain\r\nContent-Transfer-Encoding: binary\r\n"
                 "Content-Id: part" +
                 std::to_string(++number) + "\r\n\r\n" + request->accepted;
    }
    parts += delimiter + "--\r\n";
    check(body.ends_with(parts), "bytes out are bytes in",
          [&] { return body + "\nnot\n" + parts; });
    const std::string head = body.substr(0, body.size() - parts.size());
    std::size_t elements = 0;
    for (std::size_t at = head.find(" oid="); at != std::string::npos;
         at = head.find(" oid=", at + 1)) {
        ++elements;
    }
    check(elements == number, "the message lists the requests of the exchange");
}

/// A part in pieces, whose bytes tell where they stand.
void Gateway::addPart(Request& request, const std::string& id, Style style) {
    constexpr std::size_t kPiece = 700;
    constexpr std::size_t kMostChunks = 100; // a test of a byte at a time need not be long
    Exchange& exchange = *exchange_;
    exchange.parts.push_back(exchange.atoms.size());
    exchange.atoms.push_back({"\r\n--b\r\nContent-Id: " + id + "\r\n\r\n"});
    std::string data = "answer " + std::to_string(exchanges_) + "." + id +
                       std::string(request.id % 5, '.') + "\r\n";
    if (memory_.isShort()) {
        const std::size_t most = kMostChunks * request.fate.chunkSize;
        const bool isEmpty = style.padding == 0 && style.manyParts;
        data = isEmpty ? "" : filling(std::min(style.padding, most)) + data;
    }
    request.answer += data;
    for (std::size_t at = 0; at < data.size(); at += kPiece) {
        exchange.atoms.push_back({data.substr(at, kPiece), &request});
    }
}

void Gateway::beginAnswer(Flaw flaw, Style style) {
    Exchange& exchange = *exchange_;
    exchange.flaw = flaw;
    exchange.atoms.push_back(
        {flaw == Flaw::ServerError ? "HTTP/1.1 503 Busy\r\n" : "HTTP/1.1 200 OK\r\n"});
    exchange.atoms.back().bytes += flaw == Flaw::NoType
                                       ? "Server: slp\r\n\r\n"
                                       : "Content-Type: m; boundary=\"b\"; start=\"s\"\r\n\r\n";
    exchange.atoms.push_back({"--b\r\nContent-Id: s\r\n\r\n"});
    exchange.atoms.emplace_back();
    std::string document = "<SimpleLocationProtocol><SlpResponse status=\"";
    document += flaw == Flaw::BadStatus ? "no\">" : "ok\">";
    std::size_t number = 0;
    for (Request* request : exchange.members) {
        ++number;
        const bool isLong = style.manyParts && number == 1;
        exchange.hasManyParts = exchange.hasManyParts || isLong;
        const std::size_t parts = isLong ? memory_.mostParts() + 2 : 1 + request->id % 3;
        for (std::size_t part = 0; part < parts; ++part) {
            const std::string id = std::to_string(number) + "-" + std::to_string(part);
            document += "<result oid=\"" + std::to_string(number) + "\" href=\"cid:" + id + "\"/>";
            exchange.idCost += 320 + 3 * id.size();
            addPart(*request, id, style);
        }
    }
    document += "</SlpResponse></SimpleLocationProtocol>";
    constexpr std::size_t kDocument = 2;
    exchange.atoms[kDocument].bytes = std::move(document);
    if (flaw == Flaw::MissingPart) {
        exchange.atoms.resize(exchange.parts.back());
    }
    exchange.document = kDocument + 1; // ends with the delimiter behind it
    exchange.atoms.push_back({"\r\n"});
    exchange.atoms.push_back({"--b--\r\n"});
}

/// Sends the next atoms in one piece; the head always comes alone, as libcurl hands it over.
void Gateway::write(std::size_t atoms) {
    Exchange& exchange = *exchange_;
    if (exchange.isWriting) {
        return; // the worker has not taken what was sent before
    }
    std::string piece;
    const std::size_t count = exchange.written == 0 ? 1 : atoms;
    const std::size_t end = std::min(exchange.written + count, exchange.atoms.size());
    exchange.begun = exchange.written;
    for (; exchange.written < end; ++exchange.written) {
        piece += exchange.atoms[exchange.written].bytes;
    }
    if (piece.empty()) {
        return;
    }
    largestPiece_ = std::max(largestPiece_, piece.size());
    exchange.isWriting = true;
    turnstile_.run([this, piece](fake_curl::Transfer& transfer) -> std::optional<CURLcode> {
        isTaken_ = transfer.write(piece) == piece.size();
        return std::nullopt;
    });
    afterWrite();
}

/// The worker has taken a piece of the answer, wants no more of it, or waits for room.
void Gateway::afterWrite() {
    if (turnstile_.isStalled()) {
        reached_.counts["worker waits for room"]++;
        check(budget_.held() - heldBefore_ >= memory_.share(), "the worker waits for a reason");
        return;
    }
    Exchange& exchange = *exchange_;
    exchange.isWriting = false;
    // What a faulty document or head announces is nobody's.
    const bool announces = exchange.flaw != Flaw::BadStatus && exchange.flaw != Flaw::NoType;
    for (std::size_t atom = exchange.begun; atom < exchange.written; ++atom) {
        Request* request = exchange.atoms[atom].request;
        if (announces && request != nullptr) {
            request->written += exchange.atoms[atom].bytes.size();
        }
    }
    if (!isTaken_) {
        exchange.isRefused = true;
        if (!exchange.isLate) {
            exchange.refusals = possibleRefusals();
        }
        finishTransfer(CURLE_WRITE_ERROR);
        return;
    }
    const bool knowsIds = announces && exchange.written > exchange.document;
    check(!memory_.isShort() || !knowsIds || exchange.idCost < memory_.share(),
          "ids beyond the share are refused");
}

/// What may be the text of an answer that the parser has given up: ids for which there is no room
/// are refused where the document ends, parts behind it.
std::vector<std::string> Gateway::possibleRefusals() const {
    const Exchange& exchange = *exchange_;
    check(memory_.isShort(), "there is room for everything");
    check(exchange.written > exchange.document, "nothing is refused in front of the ids");
    std::vector<std::string> texts;
    if (exchange.begun <= exchange.document) {
        texts.emplace_back("could not parse document");
    }
    if (exchange.hasManyParts && exchange.idCost < memory_.share()) {
        texts.emplace_back("faulty MIME data");
    }
    return texts;
}

/// What is stored of one request's data, in either direction, is a share and one piece at the most.
void Gateway::checkShares() const {
    if (!memory_.isShort() || !exchange_) {
        return;
    }
    std::size_t accepted = 0;
    for (const Request* request : exchange_->members) {
        const RequestFate& fate = request->fate;
        const std::size_t underWay = std::size_t{fate.openCalls} * fate.chunkSize;
        check(fate.ended || request->written <= request->received.size() + underWay +
                                                    memory_.share() + largestPiece_,
              "an answer holds a share and a piece at the most");
        accepted += request->accepted.size();
    }
    check(accepted <= exchange_->body.size() + memory_.share() + largestData_,
          "data holds a share and a piece at the most");
}

// -- a worker that waits for room ----------------------------------------------------------------

void Gateway::endStall(bool inTime) {
    if (!inTime) {
        exchange_->isLate = true;
    }
    turnstile_.endStall(inTime);
    afterWrite();
}

void Gateway::wake() {
    checkShares();
    if (!exchange_ || !turnstile_.isStalled()) {
        return;
    }
    endStall(true);
    if (!exchange_ || !turnstile_.isStalled()) {
        reached_.counts["worker goes on"]++;
        return;
    }
    const std::size_t held = budget_.held(); // a chunk that is handed on counts until it is sent
    budget_.notifyChange();
    endStall(true);
    check(exchange_ && turnstile_.isStalled() && budget_.held() == held,
          "nobody sleeps who could go on");
}

/// Each client that has nothing to wait for asks for a chunk.
/// @return whether any did.
bool Gateway::serve() {
    bool any = false;
    for (const auto& [id, request] : requests_) {
        const RequestFate& fate = request->fate;
        if (!fate.ended && fate.openCalls == 0 && fate.chunkSize > 0) {
            ask(*request);
            any = any || !fate.ended;
        }
    }
    settle();
    return any;
}

/// The clients fetch until the worker goes on. If that does not help, its time is up.
void Gateway::goOn() {
    while (exchange_ && turnstile_.isStalled()) {
        if (serve()) {
            wake();
        } else {
            endStall(false);
        }
    }
}

/// Whether each data part has begun: the end of the response completes the one that is open.
bool Gateway::answerBegunInFull() const {
    const Exchange& exchange = *exchange_;
    return exchange.flaw == Flaw::None && exchange.written > exchange.parts.back();
}

void Gateway::finishTransfer(CURLcode code) {
    const bool whole = exchange_->flaw && exchange_->written + 1 >= exchange_->atoms.size();
    if (exchange_->aborted && code == CURLE_OK) {
        code = CURLE_ABORTED_BY_CALLBACK;
    }
    for (Request* request : exchange_->members) {
        request->answerWhole =
            whole && exchange_->flaw != Flaw::MissingPart && !exchange_->isRefused;
    }
    const bool succeeds = code == CURLE_OK && answerBegunInFull();
    Exchange ended = std::move(*exchange_);
    finishing_ = true;
    exchange_.reset();
    settle();
    if (succeeds) {
        for (Request* request : ended.members) {
            request->place = Place::Answered;
            request->bodyCut = !ended.bodyEnded;
        }
    } else {
        failExchange(ended);
    }
    turnstile_.run([code](fake_curl::Transfer&) { return code; });
    while (core_->isTransferRunning()) { // until the outcome has reached the main loop
        if (turnstile_.isStalled()) {
            finishParser(ended, succeeds);
        } else if (!virtual_time::runOne()) {
            std::this_thread::yield();
        }
    }
    finishing_ = false;
}

/// The worker waits for room although the transfer has ended: for the end of a part. The clients
/// fetch, or its time is up.
void Gateway::finishParser(Exchange& ended, bool succeeds) {
    reached_.counts["worker waits for room at the end"]++;
    settle();
    const bool inTime = succeeds && serve(); // who fails is lost already
    if (!inTime && succeeds) {
        for (Request* request : ended.members) {
            request->place = Place::InExchange;
            request->answerWhole = false;
        }
        ended.isRefused = ended.isLate = true;
        failExchange(ended);
    }
    turnstile_.endStall(inTime);
}

void Gateway::failExchange(Exchange ended) {
    for (const auto& [id, request] : requests_) {
        request->fate.ended = request->fate.ended || request->place == Place::Answered;
        if (request->place != Place::Waiting) {
            request->place = Place::Gone;
        }
    }
    failed_.push_back(std::move(ended));
}

/// As a server without flaws ends it.
void Gateway::finishExchange() {
    goOn();
    if (!exchange_) {
        return;
    }
    while (!exchange_->bodyEnded && !exchange_->aborted) {
        read(fake_curl::kUploadBuffer);
    }
    if (!exchange_->flaw) {
        beginAnswer(Flaw::None, {});
    }
    while (exchange_ && exchange_->written < exchange_->atoms.size()) {
        write(exchange_->atoms.size());
        goOn();
    }
    if (exchange_) {
        finishTransfer(CURLE_OK);
    }
}

// -- the commands --------------------------------------------------------------------------------

/// So much more than a few bytes: only if memory is short.
std::size_t Gateway::readPadding(Input& input) const {
    constexpr std::array<std::size_t, 8> kPaddings = {0, 1000, 30, 100, 300, 3000, 10'000, 40'000};
    return memory_.isShort() ? kPaddings[input.number(kPaddings.size())] : 0;
}

void Gateway::step(Input& input) {
    switch (input.command("oppaadDgggcqnneftmmMrrwwwAFS")) {
    case 'o':
        open(input);
        break;
    case 'p':
        create(input, true);
        break;
    case 'a':
        create(input, false);
        break;
    case 'd':
    case 'D': // data; the capital ends the part
        if (Request* request = pick(input)) {
            const std::size_t padding = readPadding(input);
            send(*request, padding, input.number(2) != 0);
        }
        break;
    case 'g':
        if (Request* request = pick(input)) {
            ask(*request);
        }
        break;
    case 'c':
        if (Request* request = pick(input)) {
            settle();
            core_->cancelRequest(request->connection, request->id);
            endByClient(*request);
        }
        break;
    case 'q': { // disconnect
        const auto connection =
            static_cast<std::uint32_t>(1 + input.number(connections_.size() + 1));
        settle();
        core_->closeConnection(connection);
        if (connection <= connections_.size()) {
            connections_[connection - 1] = false;
        }
        for (const auto& [id, request] : requests_) {
            if (request->connection == connection) {
                endByClient(*request);
            }
        }
        break;
    }
    case 'n':
        changeNetwork(input.number(6));
        break;
    case 'e':
        permitted_ = !permitted_;
        break;
    case 'f': // the system has no thread to give
        fake_threads::failStart(input.number(2) != 0);
        break;
    case 't':
        virtual_time::pass(kEndDelay);
        settle();
        break;
    case 'm': // the main loop gets to one of its events
        (void)virtual_time::runOne();
        noticeStart();
        break;
    case 'M':
        settle();
        break;
    case 'r':
        if (exchange_) {
            read(1 + input.number(16) * 64);
        }
        break;
    case 'w':
        if (exchange_ && !exchange_->flaw) {
            const auto flaw = static_cast<Flaw>(input.number(8) % 5);
            const std::size_t padding = readPadding(input);
            const bool manyParts = memory_.isShort() && input.number(4) == 3;
            beginAnswer(flaw, {padding, manyParts});
        }
        if (exchange_) {
            write(1 + input.number(10));
        }
        break;
    case 'A':
        if (exchange_) {
            finishExchange();
        }
        break;
    case 'F':
        if (exchange_ && exchange_->isWriting) {
            endStall(false);
        } else if (exchange_) {
            constexpr std::array<CURLcode, 4> kCodes = {CURLE_OK, CURLE_COULDNT_CONNECT,
                                                        CURLE_OPERATION_TIMEDOUT, CURLE_RECV_ERROR};
            finishTransfer(kCodes[input.number(kCodes.size())]);
        }
        break;
    default:
        check(core_->connectionStatus() == status_, "the status is the platform's");
    }
}

// -- the end -------------------------------------------------------------------------------------

/// All that can still happen does: then nothing may be left over.
void Gateway::complete() {
    permitted_ = true;
    fake_threads::failStart(false);
    settle();
    if (exchange_) {
        finishExchange();
    }
    virtual_time::pass(kEndDelay);
    settle();
    changeNetwork(1);
    while (exchange_) {
        finishExchange();
        virtual_time::pass(kEndDelay);
        settle();
    }
    check(failed_.empty(), "each failed exchange is reported");
    for (const auto& [id, request] : requests_) {
        check(request->place != Place::Waiting, "nobody waits when nothing stands in the way");
        const RequestFate& fate = request->fate;
        const std::size_t most = 1000 + request->answer.size();
        for (std::size_t left = fate.chunkSize == 0 ? 0 : most; left > 0 && !fate.ended; --left) {
            ask(*request);
            settle();
        }
        check(fate.ended || fate.chunkSize == 0, "every request has its end");
    }
}

void Gateway::leave() {
    if (!core_) {
        return;
    }
    turnstile_.open();
    core_.reset();
    virtual_time::pass(kEndDelay);
    virtual_time::runDue(); // what was under way finds nobody
    check(fake_curl::liveHandles() == 0, "no handle is left");
    check(fake_platform::liveObjects() == 0, "no object of the platform is left");
    check(fake_threads::started() == fake_threads::joined(), "no thread is left");
    check(budget_.held() == heldBefore_, "all memory is given back");
    budget_.resize(usualBudget_);
}

void Gateway::finish(char how) {
    if (how == 'e') {
        complete();
    } else if (how == 's') {
        turnstile_.open();
        core_->shutdown();
        check(!core_->isTransferRunning(), "no exchange outlives the shutdown");
        requests_.clear();
        const std::uint32_t connection = core_->openConnection("", "", "", "", "", 1);
        int refusal = 0;
        try {
            (void)core_->prepareRequest(connection, 3, 1);
        } catch (int code) {
            refusal = code;
        }
        check(refusal == 2204, "no exchange starts after the shutdown");
        core_->shutdown();
    }
}

} // namespace
} // namespace orvexd::fuzz

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    testing::GTEST_FLAG(break_on_failure) = true; // the stand-ins' own checks
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace orvexd::fuzz;
    constexpr std::size_t kMaxSteps = 200;
    Input input(data, size);
    constexpr std::array<std::size_t, 10> kBudgets = {2000,   3000,   4000,   6000,   8000,
                                                      12'000, 16'000, 24'000, 40'000, 80'000};
    const char end = input.command("eeesxEEESXEEESXEEESX");
    Memory memory;
    if (g_ascii_isupper(end)) {
        memory.budget = kBudgets[input.number(kBudgets.size())];
    }
    Gateway gateway(memory);
    for (std::size_t step = 0; step < kMaxSteps && !input.empty(); ++step) {
        gateway.step(input);
        gateway.wake();
    }
    gateway.finish(g_ascii_tolower(end));
    return 0;
}
