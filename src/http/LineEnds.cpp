#include "http/LineEnds.h"

#include <algorithm>

namespace orvexd {

namespace {

/// Fills a fixed buffer first and a string with whatever comes after.
class SplitWriter {
public:
    SplitWriter(std::span<char> out, std::string& overflow) noexcept
        : out_(out), overflow_(overflow) {}

    void write(std::string_view bytes) {
        const std::size_t fitting = std::min(bytes.size(), out_.size() - written_);
        std::copy_n(bytes.data(), fitting, out_.data() + written_);
        written_ += fitting;
        if (fitting < bytes.size()) {
            overflow_.append(bytes.substr(fitting));
        }
    }

    std::size_t written() const noexcept { return written_; }

private:
    std::span<char> out_;
    std::string& overflow_;
    std::size_t written_ = 0;
};

/// Position of the first bare line feed at or behind `from`, npos when there is none.
std::size_t findBareLineFeed(std::string_view text, std::size_t from) noexcept {
    for (std::size_t at = text.find('\n', from); at != std::string_view::npos;
         at = text.find('\n', at + 1)) {
        if (at > 0 && text[at - 1] != '\r') {
            return at;
        }
    }
    return std::string_view::npos;
}

} // namespace

std::size_t normalizeLineEnds(std::string_view chunk, std::span<char> out, std::string& overflow) {
    SplitWriter writer(out, overflow);
    std::size_t done = 0;
    for (std::size_t bare = findBareLineFeed(chunk, 0); bare != std::string_view::npos;
         bare = findBareLineFeed(chunk, bare + 1)) {
        writer.write(chunk.substr(done, bare - done));
        writer.write("\r");
        done = bare;
    }
    writer.write(chunk.substr(done));
    return writer.written();
}

std::string normalizeLineEnds(std::string_view chunk) {
    std::string text;
    (void)normalizeLineEnds(chunk, {}, text); // everything is overflow
    return text;
}

} // namespace orvexd
