#pragma once

#include "request/RequestData.h"
#include "slp/ResponseHead.h"
#include "slp/SlpDocument.h"

#include <algorithm>
#include <cstddef>
#include <memory>
#include <span>
#include <string>
#include <vector>

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
    /// What all announced ids cost.
    std::size_t idCost() const;

private:
    static inline const std::string kEmptyLine = "\r\n\r\n";

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
    std::vector<std::string> nextIds_;
};

inline std::size_t ReferenceParser::idCost() const {
    std::vector<std::string> ids = nextIds_;
    for (const auto& [oid, announced] : results_) {
        ids.insert(ids.end(), announced.begin(), announced.end());
    }
    std::size_t cost = 0;
    for (const std::string& id : ids) {
        cost += 320 + 3 * id.size();
    }
    return cost;
}

inline void ReferenceParser::record(int code, const std::string& text) {
    hasError_ = true;
    error_ = {code, text};
}

inline void ReferenceParser::feed(std::string chunk) {
    if (chunk.empty()) {
        return;
    }
    const bool afterHead = pending_.substr(0, 4) == "HTTP" || pending_.substr(0, 4) == kEmptyLine;
    if (afterHead && chunk.substr(0, 4) == "HTTP") {
        pending_.clear();
        hasError_ = false;
    }
    if (boundary_.empty()) {
        feedHead(chunk);
    } else {
        feedBody(std::move(chunk));
    }
}

inline void ReferenceParser::feedHead(const std::string& chunk) {
    pending_ += chunk;
    const std::size_t end = pending_.find(kEmptyLine);
    if (end == std::string::npos) {
        return;
    }
    const ResponseHead head = parseResponseHead(pending_.substr(0, end));
    pending_.erase(0, end); // the rest stays and is not looked at again
    if (head.error) {
        record(head.error->code, head.error->text);
    }
    if (head.multipart) {
        boundary_ = head.multipart->boundary;
        startId_ = head.multipart->startId;
    }
}

inline void ReferenceParser::feedBody(std::string rest) {
    const std::string delimiter = "--" + boundary_;
    const std::size_t first = rest.find(delimiter);
    if (first == std::string::npos) {
        feedWithoutDelimiter(rest);
        return;
    }
    bool closing = false;
    std::size_t end = first;
    if (!insidePart_) {
        closing = rest.substr(first + delimiter.size(), 2) == "--";
        std::size_t begin = first + delimiter.size();
        if (rest.find(delimiter + "--") != std::string::npos) {
            begin += 2;
        }
        rest.erase(0, std::min(begin, rest.size()));
        pending_.clear();
        held_.clear();
        skipping_ = false;
        insidePart_ = true;
        end = rest.find(delimiter);
    }
    if (end == std::string::npos) {
        pending_ += rest;
        handlePart(false);
        if (closing && !inHeaderPart_ && current_ == nullptr) {
            skipping_ = true;
        }
        clearUnlessHeaderPart();
        return;
    }
    if (!skipping_) {
        pending_ += rest.substr(0, end);
        handlePart(true);
    }
    insidePart_ = false;
    skipping_ = false;
    clearUnlessHeaderPart();
    feedBody(rest.substr(end));
}

inline void ReferenceParser::feedWithoutDelimiter(const std::string& rest) {
    if (!insidePart_ || inHeaderPart_) {
        pending_ += rest;
    } else if (current_ != nullptr) {
        give(rest, false);
    } else if (!skipping_) {
        pending_ += rest;
        if (pending_.find(kEmptyLine) != std::string::npos) {
            handlePart(false);
            clearUnlessHeaderPart();
        }
    }
}

inline void ReferenceParser::clearUnlessHeaderPart() {
    if (!inHeaderPart_) {
        pending_.clear();
    }
}

inline void ReferenceParser::handlePart(bool partComplete) {
    if (current_ != nullptr) {
        give(pending_, partComplete);
        if (partComplete) {
            current_ = nullptr;
        }
        return;
    }
    if (inHeaderPart_) {
        if (partComplete) {
            parseSlpHeaderPart();
        }
        return;
    }
    const std::size_t blank = pending_.find(kEmptyLine);
    if (blank == std::string::npos) {
        if (!pending_.empty() && pending_ != "\r\n") {
            record(1003, "faulty MIME data");
        }
        return;
    }
    const std::string headers = pending_.substr(0, blank);
    selectPart(headerValue(headers, "Content-Id"));
    if (inHeaderPart_) {
        if (partComplete) {
            parseSlpHeaderPart();
        }
        return;
    }
    if (current_ == nullptr) {
        skipping_ = !partComplete;
        return;
    }
    const std::string next = headerValue(headers, "X-SLP-Next-part-ID");
    if (!next.empty()) {
        nextIds_.push_back(next);
        current_->addExpectedPartId(next);
    }
    pending_.erase(0, blank + kEmptyLine.size());
    give(pending_, partComplete, true);
    pending_.clear();
    if (partComplete) {
        current_ = nullptr;
    }
}

inline void ReferenceParser::selectPart(const std::string& id) {
    if (id == startId_) {
        current_ = nullptr;
        inHeaderPart_ = true;
        return;
    }
    for (const auto& request : requests_) {
        if (request->acceptPartId(id)) {
            current_ = request.get();
            inHeaderPart_ = false;
            return;
        }
    }
}

inline void ReferenceParser::give(const std::string& bytes, bool partComplete, bool first) {
    std::string all = held_ + bytes;
    held_.clear();
    if (!partComplete) {
        std::size_t kept = 0;
        if (all.ends_with("\r\n")) {
            kept = 2;
        } else if (all.ends_with("\r")) {
            kept = 1;
        }
        held_ = all.substr(all.size() - kept);
        all.erase(all.size() - kept);
        if (all.empty() && !first) {
            return;
        }
    }
    current_->addResponseData(all, partComplete);
}

inline void ReferenceParser::parseSlpHeaderPart() {
    const std::size_t blank = pending_.find(kEmptyLine);
    if (blank == std::string::npos) {
        record(1003, "Invalid SLP header part");
        return;
    }
    const XmlDocument document = readSlpDocument(pending_.substr(blank + kEmptyLine.size()));
    if (!document) {
        record(1003, "could not parse document");
    } else if (const auto error =
                   parseSlpResponse(xmlDocGetRootElement(document.get()), results_)) {
        record(error->code, error->text);
    } else {
        for (const auto& request : requests_) {
            const auto result = results_.find(static_cast<int>(request->messageIndex()));
            request->setExpectedPartIds(result == results_.end() ? std::vector<std::string>()
                                                                 : result->second);
        }
    }
    pending_.clear();
    inHeaderPart_ = false;
}

inline void ReferenceParser::finish() {
    if (current_ != nullptr) {
        give(pending_, true);
    }
    current_ = nullptr;
    insidePart_ = false;
    inHeaderPart_ = false;
    for (const auto& request : requests_) {
        if (!request->hasExpectedPartIds() || request->hasOutstandingPartIds()) {
            record(1003, "missing MIME parts");
            return;
        }
    }
}

} // namespace orvexd::test
