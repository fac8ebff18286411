#include "slp/SlpResponseParser.h"

#include "protocol/Codes.h"
#include "request/RequestData.h"
#include "slp/ResponseHead.h"
#include "slp/TextSearch.h"
#include "support/Probes.h"

#include <algorithm>
#include <utility>

namespace orvexd {

namespace {

constexpr std::string_view kHeadStart = "HTTP";
constexpr const char* kFaultyMime = "faulty MIME data";
constexpr const char* kFaultyDocument = "could not parse document"; // too long to be looked at

} // namespace

SlpResponseParser::SlpResponseParser(std::span<const std::shared_ptr<RequestData>> requests,
                                     MemoryBudget& budget)
    : requests_(requests), parts_(requests, budget), kept_(budget) {}

std::size_t SlpResponseParser::feed(std::string_view chunk) {
    if (chunk.empty() || isStopped()) {
        return chunk.size();
    }
    // A further head follows that of an interim answer or of a proxy. Faults of the first head do
    // not count.
    if (chunk.starts_with(kHeadStart) &&
        (pending_.starts_with(kHeadStart) || pending_.starts_with(kBlankLine))) {
        pending_.clear();
        hasError_ = false;
    }
    if (boundary_.empty()) {
        feedHead(chunk);
    } else {
        feedBody(chunk);
    }
    kept_.set(pending_.capacity());
    return chunk.size();
}

/// Appends to `pending_`.
/// @return false when it would hold more than `limit`: the response is given up then.
bool SlpResponseParser::keep(std::string_view bytes, std::size_t limit, const char* error) {
    if (bytes.size() > limit - std::min(limit, pending_.size())) {
        giveUp(error);
        return false;
    }
    pending_.append(bytes);
    return true;
}

void SlpResponseParser::giveUp(std::string text) {
    recordError(failure::kFormat, std::move(text));
    givenUp_ = true;
    stop();
}

/// Nothing that is still to come counts, also of the chunk that is being worked on.
void SlpResponseParser::stop() noexcept {
    pending_ = std::string();
    kept_.set(0);
    currentRequest_ = nullptr;
    inHeaderPart_ = false;
}

void SlpResponseParser::feedHead(std::string_view chunk) {
    if (pending_.starts_with(kBlankLine)) {
        parseHead({}); // the head before named no boundary: its empty line ends an empty head
        return;
    }
    const std::size_t searched = pending_.size() - std::min(pending_.size(), kBlankLine.size() - 1);
    if (!keep(chunk, kLargestHead, kFaultyMime)) {
        return;
    }
    const std::size_t end = findBytes(pending_, kBlankLine, searched);
    if (end != kNone) {
        parseHead(std::string_view(pending_).substr(0, end));
        pending_ = kBlankLine;
    }
}

void SlpResponseParser::parseHead(std::string_view head) {
    ResponseHead parsed = parseResponseHead(head);
    probe::responseHead(head.data(), head.size(), parsed.error ? parsed.error->code : 0);
    if (parsed.error) {
        recordError(parsed.error->code, std::move(parsed.error->text));
    }
    if (parsed.multipart) {
        startId_ = std::move(parsed.multipart->startId);
        boundary_ = std::move(parsed.multipart->boundary);
        delimiter_ = "--" + boundary_;
        closingDelimiter_ = delimiter_ + "--";
    }
}

void SlpResponseParser::feedBody(std::string_view chunk) {
    std::size_t delimiter = findBytes(chunk, delimiter_);
    if (delimiter == kNone) {
        feedWithoutDelimiter(chunk);
        return;
    }
    if (insidePart_) {
        completePart(chunk.substr(0, delimiter));
    }
    NextOccurrence closing(chunk, closingDelimiter_);
    while (!isStopped()) { // every delimiter opens a part, the next one completes it
        const std::size_t end = closing.from(delimiter);
        // The bytes behind a delimiter are skipped when the end of the response is in sight.
        const std::size_t skipped = end == kNone ? 0 : closingDelimiter_.size() - delimiter_.size();
        const std::size_t begin = delimiter + delimiter_.size() + skipped;
        const bool closesResponse = end == delimiter;
        openPart();
        delimiter = findBytes(chunk, delimiter_, begin);
        if (delimiter == kNone) {
            startPart(chunk.substr(begin), closesResponse);
            return;
        }
        completePart(chunk.substr(begin, delimiter - begin));
    }
}

void SlpResponseParser::feedWithoutDelimiter(std::string_view chunk) {
    if (!insidePart_) {
        return; // the preamble
    }
    if (inHeaderPart_) {
        (void)keep(chunk, kLargestStartPart, kFaultyDocument);
    } else if (currentRequest_ != nullptr) {
        deliver(chunk, false);
    } else if (!skipping_) { // the delimiter, or its line break, ended the chunk before
        collectHeaderBlock(chunk);
    }
}

/// Keeps the header lines of a new part until their empty line has come.
void SlpResponseParser::collectHeaderBlock(std::string_view chunk) {
    const std::size_t searched = pending_.size() - std::min(pending_.size(), kBlankLine.size() - 1);
    if (!keep(chunk, kLargestHeaderBlock, kFaultyMime)) {
        return;
    }
    const std::size_t blankLine = findBytes(pending_, kBlankLine, searched);
    if (blankLine != kNone) {
        const std::string part = std::exchange(pending_, {});
        handleNewPart(part, blankLine, false);
    }
}

void SlpResponseParser::openPart() noexcept {
    pending_.clear();
    skipping_ = false;
    insidePart_ = true;
}

void SlpResponseParser::startPart(std::string_view piece, bool closesResponse) {
    handlePart(piece, false);
    if (closesResponse && !inHeaderPart_ && currentRequest_ == nullptr) {
        skipping_ = true; // what follows in later chunks is the epilogue
    }
}

void SlpResponseParser::completePart(std::string_view piece) {
    if (skipping_) {
        endPart();
    } else {
        handlePart(piece, true);
    }
}

/// Shows to whoever traces the daemon which part has begun.
void SlpResponseParser::showPart(const std::string& id) const noexcept {
    if (currentRequest_ != nullptr) {
        probe::partBegin(probe::Part::Data, currentRequest_->connectionId(),
                         currentRequest_->requestId(), id.data(), id.size());
    } else {
        const auto kind = inHeaderPart_ ? probe::Part::Document : probe::Part::Nobody;
        probe::partBegin(kind, 0, 0, id.data(), id.size());
    }
}

/// A part that is not the start part has ended.
void SlpResponseParser::endPart() noexcept {
    if (currentRequest_ != nullptr) {
        probe::partEnd(probe::Part::Data, currentRequest_->connectionId(),
                       currentRequest_->requestId());
        currentRequest_ = nullptr;
    } else if (!isStopped()) {
        probe::partEnd(probe::Part::Nobody, 0, 0);
    }
}

/// Takes the next bytes of the current part. `pending_` holds the bytes before them if the part is
/// the start part, or if its header block is not complete.
void SlpResponseParser::handlePart(std::string_view piece, bool partComplete) {
    if (currentRequest_ != nullptr) {
        deliver(piece, partComplete);
        if (partComplete) {
            endPart();
        }
        return;
    }
    if (inHeaderPart_) {
        if (keep(piece, kLargestStartPart, kFaultyDocument) && partComplete) {
            parseSlpHeaderPart(pending_);
        }
        return;
    }
    std::string joined;
    if (!pending_.empty()) {
        joined = std::exchange(pending_, {}).append(piece);
        piece = joined;
    }
    const std::size_t blankLine = findBytes(piece, kBlankLine);
    if (blankLine != kNone) {
        handleNewPart(piece, blankLine, partComplete);
    } else if (!piece.empty() && piece != kLineBreak) {
        recordError(failure::kFormat, kFaultyMime);
    }
}

void SlpResponseParser::handleNewPart(std::string_view part, std::size_t blankLine,
                                      bool partComplete) {
    const std::string_view headers = part.substr(0, blankLine);
    const std::string id = headerValue(headers, "content-id");
    selectPart(id);
    showPart(id);
    if (inHeaderPart_) {
        if (partComplete) {
            parseSlpHeaderPart(part);
        } else {
            (void)keep(part, kLargestStartPart, kFaultyDocument);
        }
        return;
    }
    if (currentRequest_ == nullptr) {
        skipping_ = !partComplete;
        if (partComplete) {
            endPart();
        }
        return;
    }
    expectNextPart(headerValue(headers, "x-slp-next-part-id"));
    if (givenUp_) {
        return;
    }
    deliver(part.substr(blankLine + kBlankLine.size()), partComplete, true);
    if (partComplete) {
        endPart();
    }
}

void SlpResponseParser::selectPart(const std::string& id) {
    if (id == startId_) {
        currentRequest_ = nullptr;
        inHeaderPart_ = true;
        return;
    }
    if (const auto position = parts_.accept(id)) {
        currentRequest_ = requests_[*position].get();
        currentPosition_ = *position;
        inHeaderPart_ = false;
    }
}

/// The server announces that the current request's data goes on in the part `id`.
void SlpResponseParser::expectNextPart(const std::string& id) {
    if (id.empty()) {
        return;
    }
    parts_.add(currentPosition_, id);
    if (!parts_.hasRoom()) {
        giveUp(kFaultyMime);
    }
}

/// Delivers bytes to the current request. A line break at their end is held back, because it may
/// belong to a delimiter that comes next.
/// @param first the bytes stand directly behind the header block. The request hears that its part
/// has begun even when there are no bytes.
void SlpResponseParser::deliver(std::string_view bytes, bool partComplete, bool first) {
    std::string joined;
    if (!held_.empty()) {
        joined.reserve(held_.size() + bytes.size());
        joined.append(held_).append(bytes);
        bytes = joined;
        held_.clear();
    }
    if (!partComplete) {
        held_ = lineBreakAtEnd(bytes);
        bytes.remove_suffix(held_.size());
        if (bytes.empty() && !first) {
            return;
        }
    }
    switch (currentRequest_->addResponseData(bytes, partComplete, patience_)) {
    case Answer::Added::Stored:
        break;
    case Answer::Added::TooMany:
        giveUp(kFaultyMime);
        break;
    case Answer::Added::NoRoom:
        stalled_ = true;
        stop(); // the answer would have a gap
        break;
    }
}

void SlpResponseParser::parseSlpHeaderPart(std::string_view part) {
    probe::partEnd(probe::Part::Document, 0, 0);
    const std::size_t blankLine = findBytes(part, kBlankLine);
    if (blankLine == kNone) {
        recordError(failure::kFormat, "Invalid SLP header part");
        return;
    }
    if (auto error = parts_.read(part.substr(blankLine + kBlankLine.size()))) {
        recordError(error->code, std::move(error->text));
    }
    if (parts_.hasRoom()) {
        pending_ = std::string(); // gives the memory of a large start part back
        inHeaderPart_ = false;
    } else {
        giveUp(kFaultyDocument);
    }
}

void SlpResponseParser::finish() {
    if (currentRequest_ != nullptr) {
        deliver(pending_, true);
        endPart();
    }
    insidePart_ = false;
    inHeaderPart_ = false;
    if (!parts_.areComplete() && !givenUp_) {
        recordError(failure::kFormat, "missing MIME parts");
    }
    parts_.finish();
}

void SlpResponseParser::recordError(int code, std::string text) {
    probe::responseFault(code, text.data(), text.size());
    hasError_ = true;
    error_ = {code, std::move(text)};
}

} // namespace orvexd
