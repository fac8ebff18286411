#pragma once

#include "config/ConfHandler.h"
#include "core/OrvexMain.h"
#include "fakes/FakeCurl.h"
#include "fakes/FakePlatform.h"
#include "fakes/FakeThreads.h"
#include "fakes/Gate.h"
#include "fakes/MainContext.h"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <functional>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

namespace orvexd::test {

/// Names a request as error signals do.
inline std::string keyOf(std::uint32_t connectionId, std::uint32_t requestId) {
    return std::to_string(connectionId) + ":" + std::to_string(requestId);
}

/// The service on the bus as the gateway core sees it: writes down what comes, a line for each
/// event, and checks that it comes on the main loop's thread.
class RecordingService : public IServiceEvents {
public:
    bool isExchangePermitted() override { return permitted; }

    void emitConnectionStatusChanged(std::uint32_t status) override {
        record("status " + std::to_string(status));
    }
    void emitRequestData(std::uint32_t connectionId, std::uint32_t requestId) override {
        record("request data " + keyOf(connectionId, requestId));
        if (onRequestData) {
            onRequestData(connectionId, requestId);
        }
    }
    void emitErrorSignal(std::uint32_t code, const std::string& message,
                         const std::string& requests) override {
        record("error " + std::to_string(code) + " [" + message + "] [" + requests + "]");
    }
    void deliverChunk(std::uint32_t connectionId, std::uint32_t requestId, const std::string& bytes,
                      DeliveryCode code) override {
        record("chunk " + keyOf(connectionId, requestId) + " " +
               std::to_string(static_cast<std::uint32_t>(code)) + " [" + bytes + "]");
        if (onChunk) {
            onChunk(connectionId, requestId);
        }
    }
    void resumeUpload(std::uint32_t connectionId, std::uint32_t requestId) override {
        record("room " + keyOf(connectionId, requestId));
    }
    void dropPending(std::uint32_t connectionId, std::uint32_t requestId) override {
        record("drop " + keyOf(connectionId, requestId));
    }
    void watchClient(const std::string& name) override { watched.push_back(name); }
    void onMemoryShort() override { record("memory short"); }

    bool has(const std::string& event) const {
        return std::find(log.begin(), log.end(), event) != log.end();
    }
    std::size_t count(const std::string& event) const {
        return static_cast<std::size_t>(std::count(log.begin(), log.end(), event));
    }
    /// The events that begin with `kind`.
    std::vector<std::string> only(std::string_view kind) const {
        std::vector<std::string> events;
        std::copy_if(log.begin(), log.end(), std::back_inserter(events),
                     [kind](const std::string& event) { return event.starts_with(kind); });
        return events;
    }

    bool permitted = true;
    std::vector<std::string> log;
    std::vector<std::string> watched; ///< clients to watch, in order; empty: nobody
    std::function<void(std::uint32_t, std::uint32_t)> onRequestData;
    std::function<void(std::uint32_t, std::uint32_t)> onChunk;

private:
    void record(std::string event) {
        EXPECT_EQ(std::this_thread::get_id(), mainThread_) << event;
        log.push_back(std::move(event));
    }

    const std::thread::id mainThread_ = std::this_thread::get_id();
};

/// The server's answer to an exchange of `requests` requests; the data of request n is "answer n".
inline std::string answerBody(std::size_t requests) {
    std::string document = "<SimpleLocationProtocol><SlpResponse status=\"ok\">";
    std::string parts;
    for (std::size_t i = 1; i <= requests; ++i) {
        const std::string number = std::to_string(i);
        document.append("<result oid=\"").append(number);
        document.append("\" href=\"cid:a").append(number).append("\"/>");
        parts.append("\r\n--b\r\nContent-Id: a").append(number);
        parts.append("\r\n\r\nanswer ").append(number);
    }
    return "--b\r\nContent-Id: head\r\n\r\n" + document +
           "</SlpResponse></SimpleLocationProtocol>" + parts + "\r\n--b--\r\n";
}

inline void answer(fake_curl::Transfer& transfer, std::size_t requests) {
    transfer.respond("HTTP/1.1 200 OK\r\n"
                     "Content-Type: multipart/related; boundary=\"b\"; start=\"head\"\r\n\r\n",
                     {answerBody(requests)});
}

/// A gateway core between a recorded service, a scripted libcurl and a scripted platform. Clients
/// answer at once when they are asked for data, unless a test decides otherwise.
class GatewayTest : public testing::Test {
protected:
    static constexpr std::uint32_t kKindOneOnly = 0;
    static constexpr std::uint32_t kNotFlagged = 2;
    static constexpr std::uint32_t kAny = 3;

    GatewayTest() {
        drainMainContext(); // what the test before has left has no receiver any more
        fake_curl::reset();
        fake_platform::reset();
        fake_threads::reset();
        clearParameters();
        HttpClient::setParameter("orvexd/wait_timeout/position", "50"); // for clients that are gone
        service_.onRequestData = [this](std::uint32_t connectionId, std::uint32_t requestId) {
            (void)gateway_->sendData("data", true, connectionId, requestId);
        };
    }

    void TearDown() override {
        proceed_.open(); // so that a test that failed half-way ends too
        gateway_.reset();
        EXPECT_EQ(fake_curl::liveHandles(), 0);
        EXPECT_EQ(fake_platform::liveObjects(), 0);
        EXPECT_EQ(fake_threads::started(), fake_threads::joined());
        clearParameters();
    }

    OrvexMain& gateway() {
        if (!gateway_) {
            gateway_ = std::make_unique<OrvexMain>(service_);
        }
        return *gateway_;
    }

    std::uint32_t open(std::uint32_t chunkSize = 1024, const std::string& type = "position",
                       const std::string& encoding = "binary") {
        return gateway().openConnection("Element", type, "1.0", encoding, "text/plain", chunkSize);
    }

    std::uint32_t prepare(std::uint32_t connectionId, std::uint32_t policy = kAny,
                          std::uint32_t duration = 0) {
        return gateway().prepareRequest(connectionId, policy, duration);
    }
    std::uint32_t attach(std::uint32_t connectionId, std::uint32_t policy = kAny,
                         std::uint32_t duration = 0) {
        return gateway().attachRequest(connectionId, policy, duration);
    }

    /// Code that `operation` throws, 0 when it throws none.
    template <typename Operation> static int thrownBy(Operation operation) {
        try {
            operation();
        } catch (int code) {
            return code;
        }
        return 0;
    }

    bool exists(std::uint32_t connectionId, std::uint32_t requestId) {
        return thrownBy([&] { gateway().getData(connectionId, requestId); }) == 0;
    }

    /// The platform's list changes and the platform says so.
    void connectTo(int kind, bool flagged = false) {
        fake_platform::connect(kind, flagged);
        fake_platform::notifyObservers();
    }
    void loseConnection() {
        fake_platform::disconnect();
        fake_platform::notifyObservers();
    }

    /// The next exchange stops at libcurl's door until the test opens `proceed_`, then ends as
    /// `script` says.
    void holdExchange(fake_curl::Script script) {
        fake_curl::addScript([this, script](fake_curl::Transfer& transfer) {
            arrived_.open();
            EXPECT_TRUE(proceed_.await());
            return script(transfer);
        });
    }

    /// The next exchange takes the whole body into `sent_`, then answers `requests` requests.
    void answerExchange(std::size_t requests) { fake_curl::addScript(answerScript(requests)); }

    fake_curl::Script answerScript(std::size_t requests) {
        return [this, requests](fake_curl::Transfer& transfer) {
            sent_.clear();
            if (!transfer.readAll(sent_)) {
                return CURLE_ABORTED_BY_CALLBACK;
            }
            answer(transfer, requests);
            return CURLE_OK;
        };
    }

    void failExchange(CURLcode code = CURLE_COULDNT_CONNECT) {
        fake_curl::addScript([code](fake_curl::Transfer&) { return code; });
    }

    /// Runs the main loop until `event` has come.
    void expectEvent(const std::string& event) {
        EXPECT_TRUE(iterateUntil([&] { return service_.has(event); }))
            << event << " did not come, but " << testing::PrintToString(service_.log);
    }

    /// Runs the main loop until the exchange has ended and its end has been dealt with.
    void finishExchange() {
        awaitOutcome();
        passTime(std::chrono::milliseconds(60));
    }

    /// Runs the main loop until the exchange stands at libcurl's door.
    void reachExchange() {
        EXPECT_TRUE(iterateUntil([this] { return arrived_.isOpen(); }));
    }

    /// Runs the main loop until the exchange's outcome is known, which is 50 ms before its end has
    /// been dealt with.
    void awaitOutcome() {
        EXPECT_TRUE(iterateUntil([this] { return !gateway().isTransferRunning(); }));
    }

    static constexpr const char* kAborted = "Operation was aborted by an application callback";
    static constexpr const char* kRefused = "Couldn't connect to server";

    Gate arrived_;
    Gate proceed_;
    std::string sent_;
    RecordingService service_;
    std::unique_ptr<OrvexMain> gateway_;

private:
    static void clearParameters() {
        HttpClient::getConfiguration().clear();
        OrvexMain::getConfiguration().clear();
        ConfHandler::confItems().clear();
    }
};

} // namespace orvexd::test
