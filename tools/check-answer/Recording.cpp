#include "Recording.h"

#include "slp/ResponseHead.h"
#include "slp/TextSearch.h"

#include <algorithm>
#include <charconv>
#include <optional>
#include <utility>

namespace orvexd::check {

namespace {

constexpr std::string_view kLineBreak = "\r\n";

/// The bodies of chunks; none when the text is not a whole chunked body.
std::optional<std::string> chunksOf(std::string_view text) {
    std::string joined;
    for (;;) {
        std::size_t size = 0;
        const auto number = std::from_chars(text.data(), text.data() + text.size(), size, 16);
        const std::size_t line = findBytes(text, kLineBreak);
        if (number.ec != std::errc() || line == std::string_view::npos) {
            return std::nullopt;
        }
        text.remove_prefix(line + kLineBreak.size());
        if (size == 0) {
            return joined;
        }
        if (text.size() < kLineBreak.size() || text.size() - kLineBreak.size() < size ||
            text.substr(size, kLineBreak.size()) != kLineBreak) {
            return std::nullopt;
        }
        joined.append(text.substr(0, size));
        text.remove_prefix(size + kLineBreak.size());
    }
}

} // namespace

Recording::Recording(std::string bytes, const std::string& contentType) : text_(std::move(bytes)) {
    if (!contentType.empty()) {
        const std::string head = "HTTP/1.1 200 OK\r\nContent-Type: " + contentType + "\r\n\r\n";
        madeUp_ = head.size();
        text_.insert(0, head);
    }
    takeHeads();
    if (!heads_.empty() &&
        findIgnoringCase(heads_.back(), "transfer-encoding: chunked") != std::string_view::npos) {
        joinChunks();
    }
}

void Recording::takeHeads() {
    body_ = text_;
    while (body_.starts_with("HTTP/")) { // a body does not begin so
        const std::size_t end = findBytes(body_, kBlankLine);
        if (end == std::string_view::npos) {
            heads_.push_back(std::exchange(body_, {}));
            return;
        }
        heads_.push_back(body_.substr(0, end + kBlankLine.size()));
        body_.remove_prefix(end + kBlankLine.size());
    }
}

void Recording::joinChunks() {
    if (auto joined = chunksOf(body_)) {
        joined_ = std::move(*joined);
        body_ = joined_;
        wasChunked_ = true;
    }
}

std::size_t Recording::lineOf(const char* place) const noexcept {
    const bool isJoined =
        wasChunked_ && place >= body_.data() && place <= body_.data() + body_.size();
    const char* const begin = isJoined ? body_.data() : text_.data() + madeUp_;
    return place < begin ? 0 : 1 + static_cast<std::size_t>(std::count(begin, place, '\n'));
}

} // namespace orvexd::check
