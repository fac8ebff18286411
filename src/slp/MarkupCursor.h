#pragma once

#include "slp/TextSearch.h"

#include <algorithm>
#include <cstddef>
#include <string_view>

/// Taking markup piece by piece; a fault in it ends that.
///
/// The text is a server's document and may hold any bytes. All views are parts of it and live as
/// long as it does. Any thread; nothing here is shared. Names and blanks are those of XML 1.0,
/// sections 2.3 and 4.1, as far as a scan of single bytes can tell them apart.
namespace orvexd::markup {

/// White space of XML 1.0, section 2.3.
inline constexpr std::string_view kBlanks = " \t\r\n";

/// The text is no document, or a costly one.
struct Refused {};

/// Ends the scan unless the text is as it has to be.
/// @throws Refused.
inline void require(bool holds) {
    if (!holds) {
        throw Refused();
    }
}

/// How often the character stands in the text.
inline std::size_t count(std::string_view text, char c) {
    return static_cast<std::size_t>(std::count(text.begin(), text.end(), c));
}

/// A byte of a character that UTF-8 writes in several bytes, or of another encoding.
inline bool isBeyondAscii(char c) {
    return static_cast<unsigned char>(c) >= 0x80;
}

/// Whether an ASCII letter or an underscore comes first.
inline bool beginsName(std::string_view text) {
    const char first = text.empty() ? '\0' : asciiLower(text[0]);
    return (first >= 'a' && first <= 'z') || first == '_';
}

/// Some characters beyond ASCII may stand in names.
inline bool isInName(char c) {
    return beginsName({&c, 1}) || isBeyondAscii(c) || (c >= '-' && c <= ':' && c != '/');
}

/// A name without its prefix.
inline std::string_view localOf(std::string_view name) {
    return name.substr(name.find(':') + 1);
}

/// Takes a text piece by piece.
struct Cursor {
    std::string_view rest; ///< what is still to be taken

    /// The next byte, which stays; zero at the end.
    [[nodiscard]] char next() const noexcept { return rest.empty() ? '\0' : rest.front(); }

    /// Takes this many bytes, or what is left if that is less.
    std::string_view take(std::size_t size) {
        const std::string_view piece = rest.substr(0, size);
        rest.remove_prefix(piece.size());
        return piece;
    }

    /// Takes what stands before the first of these characters, everything without one.
    std::string_view takeUpTo(std::string_view any) { return take(rest.find_first_of(any)); }

    /// Takes the token if it comes next.
    /// @return whether it did.
    bool skip(std::string_view token) {
        return rest.starts_with(token) && !take(token.size()).empty();
    }

    /// Takes white space.
    /// @return whether there was any.
    bool skipBlanks() { return !take(rest.find_first_not_of(kBlanks)).empty(); }

    /// The text in front of `end`, which is taken, too.
    /// @throws Refused when it does not come.
    std::string_view takePast(std::string_view end) {
        const std::size_t found =
            rest.find(end); // a sanitizer looks at all that memmem(3) may read
        require(found != kNone);
        const std::string_view piece = take(found);
        take(end.size());
        return piece;
    }

    /// A name as XML has it, with its prefix.
    /// @throws Refused when none comes next.
    std::string_view takeName() {
        const auto* const end = std::find_if_not(rest.begin(), rest.end(), isInName);
        const std::string_view name = take(static_cast<std::size_t>(end - rest.begin()));
        require(beginsName(name) || (!name.empty() && (isBeyondAscii(name[0]) || name[0] == ':')));
        return name;
    }

    /// What stands between two quotes of a kind, which are taken, too.
    /// @throws Refused when no quoted text comes next.
    std::string_view takeQuoted() {
        const std::string_view quote = take(1);
        require(quote == "\"" || quote == "'");
        return takePast(quote);
    }
};

/// Calls `use` with the name of each reference in the text and with what stands behind it. A
/// reference that does not end counts up to the text's end. The cost is linear in the text.
template <typename Use> void forEachReference(std::string_view text, Use use) {
    for (std::size_t at = text.find('&'); at != kNone; at = text.find('&', at)) {
        const std::size_t end = std::min(text.find_first_of("&;", ++at), text.size());
        use(text.substr(at, end - at), text.substr(std::min(end + 1, text.size())));
    }
}

/// Whether the reference means '&', which may begin another one.
inline bool isAmpersand(std::string_view name) {
    const bool isHex = name.starts_with("#x");
    const std::size_t digits = name.find_first_not_of('0', isHex ? 2 : 1);
    return name.starts_with('#') && digits != kNone && name.substr(digits) == (isHex ? "26" : "38");
}

} // namespace orvexd::markup
