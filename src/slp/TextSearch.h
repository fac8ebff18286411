#pragma once

#include <cstddef>
#include <string_view>

namespace orvexd {

/// The empty line that ends a block of header lines, with the line break before it.
inline constexpr std::string_view kBlankLine = "\r\n\r\n";

/// First position of `needle`, which must not be empty, in `text` from `from` on; npos when there
/// is none.
std::size_t findBytes(std::string_view text, std::string_view needle,
                      std::size_t from = 0) noexcept;

/// As `findBytes` from the start of `text`, whatever the case of the ASCII letters.
std::size_t findIgnoringCase(std::string_view text, std::string_view needle) noexcept;

/// Answers "where is the next one?" for positions that only grow: the place found last is the
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
