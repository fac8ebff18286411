#include "slp/ReferenceParser.h"

#include "slp/PartHeader.h"
#include "slp/ResponseHead.h"

#include <algorithm>

namespace orvexd::test {

namespace {

constexpr auto kNone = std::string::npos;
const std::string kBlank = "\r\n\r\n";

} // namespace

void ReferenceParser::record(int code, const std::string& text) {
    hasError_ = true;
    error_ = {code, text};
}

void ReferenceParser::feed(std::string chunk) {
    if (chunk.empty()) {
        return;
    }
    const bool afterHead = pending_.substr(0, 4) == "HTTP" || pending_.substr(0, 4) == kBlank;
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

void ReferenceParser::feedHead(const std::string& chunk) {
    pending_ += chunk;
    const std::size_t end = pending_.find(kBlank);
    if (end == kNone) {
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

void ReferenceParser::feedBody(std::string rest) {
    const std::string delimiter = "--" + boundary_;
    const std::size_t first = rest.find(delimiter);
    if (first == kNone) {
        feedWithoutDelimiter(rest);
        return;
    }
    bool closing = false;
    std::size_t end = first;
    if (!insidePart_) {
        closing = rest.substr(first + delimiter.size(), 2) == "--";
        std::size_t begin = first + delimiter.size();
        if (rest.find(delimiter + "--") != kNone) {
            begin += 2;
        }
        rest.erase(0, std::min(begin, rest.size()));
        pending_.clear();
        held_.clear();
        skipping_ = false;
        insidePart_ = true;
        end = rest.find(delimiter);
    }
    if (end == kNone) {
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

void ReferenceParser::feedWithoutDelimiter(const std::string& rest) {
    if (!insidePart_ || inHeaderPart_) {
        pending_ += rest;
    } else if (current_ != nullptr) {
        give(rest, false);
    } else if (!skipping_) {
        pending_ += rest;
        if (pending_.find(kBlank) != kNone) {
            handlePart(false);
        }
        clearUnlessHeaderPart();
    }
}

void ReferenceParser::clearUnlessHeaderPart() {
    if (!inHeaderPart_) {
        pending_.clear();
    }
}

void ReferenceParser::handlePart(bool partComplete) {
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
    const std::size_t blank = pending_.find(kBlank);
    if (blank == kNone) {
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
        current_->addExpectedPartId(next);
    }
    pending_.erase(0, blank + kBlank.size());
    give(pending_, partComplete, true);
    pending_.clear();
    if (partComplete) {
        current_ = nullptr;
    }
}

void ReferenceParser::selectPart(const std::string& id) {
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

void ReferenceParser::give(const std::string& bytes, bool partComplete, bool first) {
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

void ReferenceParser::parseSlpHeaderPart() {
    const std::size_t blank = pending_.find(kBlank);
    if (blank == kNone) {
        record(1003, "Invalid SLP header part");
        return;
    }
    const XmlDocument document = readSlpDocument(pending_.substr(blank + kBlank.size()));
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

void ReferenceParser::finish() {
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
