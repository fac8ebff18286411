#pragma once

#include "slp/RecordedExchange.h"
#include "slp/SlpResponseParser.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <vector>

namespace orvexd::test {

using Parts = std::vector<std::string>;

inline const std::string kMissing = "missing MIME parts";
inline const std::string kFaulty = "faulty MIME data";
inline const std::string kHead =
    "HTTP/1.1 200 OK\r\nContent-Type: multipart/related; boundary=\"bb\"; "
    "type=\"text/xml\"; start=\"s\"\r\n\r\n";

/// The process's memory budget is smaller for as long as this object lives.
class SmallBudget {
public:
    explicit SmallBudget(std::size_t bytes) { MemoryBudget::process().resize(bytes); }
    ~SmallBudget() { MemoryBudget::process().resize(deployment::kMemoryBudget); }
    SmallBudget(const SmallBudget&) = delete;
    SmallBudget& operator=(const SmallBudget&) = delete;
};

/// A start part that announces the parts `ids` for requests 1, 2, …; an id "-" stands for none, and
/// blanks separate the ids of one request.
inline std::string startPart(const std::vector<std::string>& ids) {
    std::string results;
    for (std::size_t index = 0; index < ids.size(); ++index) {
        std::size_t begin = 0;
        while (ids[index] != "-" && begin <= ids[index].size()) {
            const std::size_t end = std::min(ids[index].find(' ', begin), ids[index].size());
            results += "<result oid=\"" + std::to_string(index + 1) +
                       "\" href=\"cid:" + ids[index].substr(begin, end - begin) + "\"/>";
            begin = end + 1;
        }
    }
    return "\r\n--bb\r\nContent-Type: text/xml\r\nContent-Id: s\r\n\r\n"
           "<SimpleLocationProtocol><SlpResponse status=\"ok\">" +
           results + "</SlpResponse></SimpleLocationProtocol>";
}

inline std::string part(const std::string& id, const std::string& data) {
    return "\r\n--bb\r\nContent-Type: x\r\nContent-Id: " + id + "\r\n\r\n" + data;
}

inline const std::string kEnd = "\r\n--bb--\r\n";

class SlpResponse : public testing::Test {
protected:
    SlpResponse() { startExchange(2); }

    void startExchange(std::size_t requests, std::uint32_t chunkSize = 1024 * 1024) {
        parser_.reset();
        exchange_ = std::make_unique<RecordedExchange>(requests, chunkSize);
        parser_ = std::make_unique<SlpResponseParser>(exchange_->queue());
    }

    void feed(const std::string& chunk) { EXPECT_EQ(parser_->feed(chunk), chunk.size()); }

    void feedAll(const std::vector<std::string>& chunks) {
        for (const std::string& chunk : chunks) {
            feed(chunk);
        }
    }

    void finish() { parser_->finish(); }

    void expectError(int code, const std::string& text) {
        EXPECT_TRUE(parser_->hasError());
        expectStored(code, text);
    }

    void expectStored(int code, const std::string& text) {
        EXPECT_EQ(parser_->errorCode(), code);
        EXPECT_EQ(parser_->errorText(), text);
    }

    bool isGivenUp() const { return parser_->isGivenUp(); }
    bool hasStalled() const { return parser_->hasStalled(); }
    bool hasError() const { return parser_->hasError(); }

    void expectNoError() { EXPECT_FALSE(parser_->hasError()) << parser_->errorText(); }

    RequestData& request(std::size_t index) { return exchange_->request(index); }
    Parts parts(std::size_t index) { return exchange_->parts(index); }
    void ask(std::size_t index) { exchange_->ask(index); }
    const std::vector<Delivery>& deliveries(std::size_t index) {
        return exchange_->deliveries(index);
    }

private:
    std::unique_ptr<RecordedExchange> exchange_;
    std::unique_ptr<SlpResponseParser> parser_;
};

/// The head has been read; the body follows.
class SlpResponseBody : public SlpResponse {
protected:
    SlpResponseBody() { begin(2); }

    void begin(std::size_t requests, std::uint32_t chunkSize = 1024 * 1024) {
        startExchange(requests, chunkSize);
        feed(kHead);
    }
};

} // namespace orvexd::test
