#pragma once

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <string_view>

namespace orvexd {

/// Where a search has found nothing.
inline constexpr auto kNone = std::string_view::npos;

/// The empty line that ends a block of header lines, with the line break before it.
inline constexpr std::string_view kBlankLine = "\r\n\r\n";
/// Between two lines of a head or of a part's headers (RFC 2046, 4.1.1).
inline constexpr std::string_view kLineBreak = "\r\n";

/// ASCII lower case. Bytes above 127 stay as they are, whatever the locale.
constexpr char asciiLower(char c) noexcept {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

/// First position of `needle`, which must not be empty, in `text` from `from` on; npos when there
/// is none. memmem(3) takes time in proportion to the text, whatever the needle.
[[nodiscard]] inline std::size_t findBytes(std::string_view text, std::string_view needle,
                                           std::size_t from = 0) noexcept {
    if (from > text.size() || text.size() - from < needle.size()) {
        return std::string_view::npos;
    }
    const void* found =
        memmem(text.data() + from, text.size() - from, needle.data(), needle.size());
    if (found == nullptr) {
        return std::string_view::npos;
    }
    return static_cast<std::size_t>(static_cast<const char*>(found) - text.data());
}

/// As `findBytes` from the start of `text`, whatever the case of the ASCII letters. Takes time in
/// proportion to text times needle at the worst: for heads, whose size is limited.
[[nodiscard]] inline std::size_t findIgnoringCase(std::string_view text,
                                                  std::string_view needle) noexcept {
    const auto* found = std::search(text.begin(), text.end(), needle.begin(), needle.end(),
                                    [](char a, char b) { return asciiLower(a) == asciiLower(b); });
    return found == text.end() ? std::string_view::npos
                               : static_cast<std::size_t>(found - text.begin());
}

/// The end of `bytes` that may be the line break in front of a delimiter: a whole one, or its first
/// byte when the chunk ends there. Empty when there is none. A view of `bytes`.
[[nodiscard]] inline std::string_view lineBreakAtEnd(std::string_view bytes) {
    if (bytes.ends_with(kLineBreak)) {
        return bytes.substr(bytes.size() - kLineBreak.size());
    }
    return bytes.ends_with('\r') ? bytes.substr(bytes.size() - 1) : std::string_view();
}

/// Answers "where is the next one?" for positions that only grow. The place found last is the
/// answer until the caller has passed it, so all questions together read the text once.
class NextOccurrence {
public:
    /// Both views must outlive this object.
    NextOccurrence(std::string_view text, std::string_view needle) noexcept
        : text_(text), needle_(needle) {}

    /// First occurrence at or after `from`, or npos; `from` must not be smaller than before.
    std::size_t from(std::size_t from) noexcept {
        if (!searched_ || found_ < from) {
            found_ = findBytes(text_, needle_, from);
            searched_ = true;
        }
        return found_;
    }

private:
    std::string_view text_;
    std::string_view needle_;
    std::size_t found_ = 0;
    bool searched_ = false;
};

} // namespace orvexd
