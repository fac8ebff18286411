// The gateway core as a state machine, between clients, a platform and a transport that do what the
// input says.
//
// Input: how the run ends, then a sequence of commands, see `Gateway::step`.
//
// Threads are real, but the worker takes a step only when the input gives it one, and time stands
// still until the input lets it pass: a run is the same each time.
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
#include "support/Target.h"
#include "support/VirtualTime.h"

#include <algorithm>
#include <array>
#include <condition_variable>
#include <functional>
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
        changed_.wait(lock, [this] { return waiting_ || ended_; });
    }

    /// From now on the worker goes its own way.
    void open() {
        const std::lock_guard lock(mutex_);
        open_ = true;
        changed_.notify_all();
    }

private:
    static std::optional<CURLcode> readToEnd(fake_curl::Transfer& transfer) {
        std::string body;
        (void)transfer.readAll(body);
        return CURLE_ABORTED_BY_CALLBACK;
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    Step step_;
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
    bool answerWhole = true; ///< the server got to say all of it

    bool goesBefore(const Request& other) const {
        return fate.prepared != other.fate.prepared ? fate.prepared : id < other.id;
    }
};

enum class Flaw { None, MissingPart, BadStatus, ServerError, NoType };

struct Exchange {
    std::vector<Request*> members; ///< in transfer order
    std::string body;
    bool bodyEnded = false;
    bool aborted = false;
    std::optional<Flaw> flaw;       ///< of the answer, once it has begun
    std::vector<std::string> atoms; ///< of the answer; a cut between them changes nothing
    std::vector<std::size_t> parts; ///< atoms with which a data part begins
    std::size_t written = 0;
};

// -- the run
// ---------------------------------------------------------------------------------------

class Gateway : public IServiceEvents {
public:
    Gateway() {
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

    void open(Input& input);
    void create(Input& input, bool prepared);
    void send(Request& request, bool last);
    void ask(Request& request);
    static void endByClient(Request& request);
    void changeNetwork(std::size_t choice);

    void read(std::size_t capacity);
    void checkBody();
    void beginAnswer(Flaw flaw);
    void write(std::size_t atoms);
    void finishTransfer(CURLcode code);
    void failExchange(Exchange ended);
    bool answerBegunInFull() const;
    void finishExchange();

    void complete();
    void leave();

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
    check(request.answer.starts_with(request.received), "the bytes are the server's");
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
    const std::uint32_t id = core_->openConnection("Element", kTypes[input.number(kTypes.size())],
                                                   "1.0", "binary", "text/plain", chunkSize);
    connections_.push_back(true);
    chunkSizes_.push_back(chunkSize);
    check(id == connections_.size(), "connection ids are handed out in order");
}

void Gateway::create(Input& input, bool prepared) {
    const auto connection = static_cast<std::uint32_t>(1 + input.number(connections_.size() + 1));
    const auto policy = static_cast<std::uint32_t>(input.number(5));
    settle();
    const bool known = connection <= connections_.size() && connections_[connection - 1];
    const bool refused = !known || (prepared && !isAllowed(policy));
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
    }
    noticeStart();
    settle();
}

void Gateway::send(Request& request, bool last) {
    const std::string data = "data " + std::to_string(++sent_) + "\n";
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
    if (exchange.bodyEnded || exchange.aborted) {
        return; // libcurl does not ask again
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

void Gateway::beginAnswer(Flaw flaw) {
    Exchange& exchange = *exchange_;
    exchange.flaw = flaw;
    std::string document = "<SimpleLocationProtocol><SlpResponse status=\"";
    document += flaw == Flaw::BadStatus ? "no\">" : "ok\">";
    std::vector<std::string> parts;
    std::size_t number = 0;
    for (Request* request : exchange.members) {
        ++number;
        for (std::size_t part = 0; part < 1 + request->id % 3; ++part) {
            const std::string id = std::to_string(number) + "-" + std::to_string(part);
            const std::string data = "answer " + std::to_string(exchanges_) + "." + id +
                                     std::string(request->id % 5, '.') + "\r\n";
            document += "<result oid=\"" + std::to_string(number) + "\" href=\"cid:" + id + "\"/>";
            request->answer += data;
            parts.push_back("\r\n--b\r\nContent-Id: " + id + "\r\n\r\n");
            parts.push_back(data);
        }
    }
    document += "</SlpResponse></SimpleLocationProtocol>";
    exchange.atoms.emplace_back(flaw == Flaw::ServerError ? "HTTP/1.1 503 Busy\r\n"
                                                          : "HTTP/1.1 200 OK\r\n");
    exchange.atoms.back() += flaw == Flaw::NoType
                                 ? "Server: slp\r\n\r\n"
                                 : "Content-Type: m; boundary=\"b\"; start=\"s\"\r\n\r\n";
    exchange.atoms.emplace_back("--b\r\nContent-Id: s\r\n\r\n");
    exchange.atoms.push_back(document);
    if (flaw == Flaw::MissingPart) {
        parts.resize(parts.size() - 2);
    }
    for (std::string& part : parts) {
        if (part.starts_with("\r\n--b")) {
            exchange.parts.push_back(exchange.atoms.size());
        }
        exchange.atoms.push_back(std::move(part));
    }
    exchange.atoms.emplace_back("\r\n");
    exchange.atoms.emplace_back("--b--\r\n");
}

/// Sends the next atoms in one piece; the head always comes alone, as libcurl hands it over.
void Gateway::write(std::size_t atoms) {
    Exchange& exchange = *exchange_;
    std::string piece;
    const std::size_t count = exchange.written == 0 ? 1 : atoms;
    const std::size_t end = std::min(exchange.written + count, exchange.atoms.size());
    for (; exchange.written < end; ++exchange.written) {
        piece += exchange.atoms[exchange.written];
    }
    if (piece.empty()) {
        return;
    }
    turnstile_.run([&](fake_curl::Transfer& transfer) -> std::optional<CURLcode> {
        check(transfer.write(piece) == piece.size(), "the parser takes what comes");
        return std::nullopt;
    });
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
        request->answerWhole = whole && exchange_->flaw != Flaw::MissingPart;
    }
    const bool succeeds = code == CURLE_OK && answerBegunInFull();
    Exchange ended = std::move(*exchange_);
    finishing_ = true;
    exchange_.reset();
    settle();
    turnstile_.run([code](fake_curl::Transfer&) { return code; });
    if (succeeds) {
        for (Request* request : ended.members) {
            request->place = Place::Answered;
            request->bodyCut = !ended.bodyEnded;
        }
    } else {
        failExchange(std::move(ended));
    }
    while (core_->isTransferRunning()) { // until the outcome has reached the main loop
        if (!virtual_time::runOne()) {
            std::this_thread::yield();
        }
    }
    finishing_ = false;
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
    while (!exchange_->bodyEnded && !exchange_->aborted) {
        read(fake_curl::kUploadBuffer);
    }
    if (!exchange_->flaw) {
        beginAnswer(Flaw::None);
    }
    while (exchange_->written < exchange_->atoms.size()) {
        write(exchange_->atoms.size());
    }
    finishTransfer(CURLE_OK);
}

// -- the commands --------------------------------------------------------------------------------

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
            send(*request, input.number(2) != 0);
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
            beginAnswer(static_cast<Flaw>(input.number(8) % 5));
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
        if (exchange_) {
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
        for (std::size_t left = fate.chunkSize == 0 ? 0 : 1000; left > 0 && !fate.ended; --left) {
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
    const char end = input.command("eeesx");
    Gateway gateway;
    for (std::size_t step = 0; step < kMaxSteps && !input.empty(); ++step) {
        gateway.step(input);
    }
    gateway.finish(end);
    return 0;
}
