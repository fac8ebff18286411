#pragma once

#include "core/RequestData.h"
#include "slp/SlpDocument.h"
#include "slp/SlpError.h"

#include <cstddef>
#include <memory>
#include <span>
#include <string>

namespace orvexd::test {

/// The rules for cutting a response, written down one after the other without regard to speed:
/// every byte is copied, every search starts anew, every request is asked for its ids, and what
/// follows a delimiter is worked on by a call of its own. The parser has to do the same to its
/// requests.
class ReferenceParser {
public:
    explicit ReferenceParser(std::span<const std::shared_ptr<RequestData>> requests)
        : requests_(requests) {}

    void feed(std::string chunk);
    void finish();

    bool hasError() const { return hasError_; }
    const SlpError& error() const { return error_; }

private:
    void feedHead(const std::string& chunk);
    void feedBody(std::string rest);
    void feedWithoutDelimiter(const std::string& rest);
    void handlePart(bool partComplete);
    void selectPart(const std::string& id);
    void give(const std::string& bytes, bool partComplete, bool first = false);
    void parseSlpHeaderPart();
    void record(int code, const std::string& text);
    void clearUnlessHeaderPart();

    std::span<const std::shared_ptr<RequestData>> requests_;
    std::string boundary_;
    std::string startId_;
    std::string pending_;
    std::string held_;
    bool insidePart_ = false;
    bool inHeaderPart_ = false;
    bool skipping_ = false;
    RequestData* current_ = nullptr;
    bool hasError_ = false;
    SlpError error_;
    ResultMap results_;
};

} // namespace orvexd::test
