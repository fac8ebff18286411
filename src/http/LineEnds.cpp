#include "http/LineEnds.h"

#include <algorithm>
#include <cstring>

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

    [[nodiscard]] std::size_t written() const noexcept { return written_; }

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

/// How far a pass has come in its input and its output.
struct Progress {
    std::size_t taken = 0;
    std::size_t written = 0;
};

/// Copies `size` bytes. Most lines are short. Where both sides have room behind them, they are
/// copied in one piece of fixed size, which needs no call.
void copyLine(char* to, std::size_t room, std::string_view from, std::size_t size) noexcept {
    constexpr std::size_t kPiece = 64;
    if (size <= kPiece && room >= kPiece && from.size() >= kPiece) {
        std::memcpy(to, from.data(), kPiece);
    } else {
        std::memcpy(to, from.data(), size);
    }
}

/// Normalises whole lines while they certainly fit into `out`. Stops in front of the first line
/// that may not fit, or behind the last line feed.
Progress normalizeFittingLines(std::string_view chunk, std::span<char> out) noexcept {
    Progress progress;
    while (progress.taken < chunk.size()) {
        const std::string_view left = chunk.substr(progress.taken);
        const std::size_t line = left.find('\n');
        const std::size_t room = out.size() - progress.written;
        if (line == std::string_view::npos || room < line + 2) {
            break;
        }
        char* to = out.data() + progress.written;
        copyLine(to, room, left, line);
        // A line feed at the start of the chunk stays as it is.
        const std::size_t at = progress.taken + line;
        const bool bare = at > 0 && chunk[at - 1] != '\r';
        to[line] = bare ? '\r' : '\n';
        to[line + 1] = '\n';
        progress.taken += line + 1;
        progress.written += line + (bare ? 2 : 1);
    }
    return progress;
}

} // namespace

std::size_t normalizeLineEnds(std::string_view chunk, std::span<char> out, std::string& overflow) {
    const Progress fitting = normalizeFittingLines(chunk, out);
    SplitWriter writer(out.subspan(fitting.written), overflow);
    std::size_t done = fitting.taken;
    for (std::size_t bare = findBareLineFeed(chunk, done); bare != std::string_view::npos;
         bare = findBareLineFeed(chunk, bare + 1)) {
        writer.write(chunk.substr(done, bare - done));
        writer.write("\r");
        done = bare;
    }
    writer.write(chunk.substr(done));
    return fitting.written + writer.written();
}

std::string normalizeLineEnds(std::string_view chunk) {
    std::string text;
    (void)normalizeLineEnds(chunk, {}, text); // everything is overflow
    return text;
}

} // namespace orvexd
