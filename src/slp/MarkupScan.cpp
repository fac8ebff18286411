// What a document would cost its parser, as far as the bytes tell before the parse.

#include "slp/SlpDocument.h"
#include "slp/TextSearch.h"

#include <algorithm>
#include <array>
#include <libxml/encoding.h>
#include <optional>
#include <string>

namespace orvexd {

namespace {

constexpr std::string_view kBlanks = " \t\r\n";
constexpr auto kNone = std::string_view::npos;

/// The parser hashes the element's name for each of its attributes.
constexpr std::size_t kMostHashing = 20'000'000;

/// Consumes the text up to the end of the first `end`; all of it when there is none.
void skipPast(std::string_view& text, std::string_view end) {
    const std::size_t found = text.find(end);
    text.remove_prefix(found == kNone ? text.size() : found + end.size());
}

/// Consumes a comment or a processing instruction at the start of the text, if there is one.
bool skipCommentOrInstruction(std::string_view& text) {
    if (text.starts_with("<!--")) {
        skipPast(text, "-->");
        return true;
    }
    if (text.starts_with("<?")) {
        skipPast(text, "?>");
        return true;
    }
    return false;
}

// -- encoding
// --------------------------------------------------------------------------------------

/// One byte for each unit of UTF-16; those beyond ASCII are no markup.
std::string oneBytePerUnit(std::string_view text, std::size_t low) {
    std::string bytes(text.size() / 2, '\x80');
    for (std::size_t unit = 0; unit < bytes.size(); ++unit) {
        if (text[2 * unit + 1 - low] == '\0') {
            bytes[unit] = text[2 * unit + low];
        }
    }
    return bytes;
}

/// The encoding that the XML declaration names; empty when it names none.
std::string_view declaredEncoding(std::string_view text) {
    constexpr std::string_view kName = "encoding";
    if (!text.starts_with("<?xml")) {
        return {};
    }
    std::string_view declaration = text.substr(0, text.find("?>"));
    const std::size_t found = declaration.find(kName);
    if (found == kNone) {
        return {};
    }
    declaration.remove_prefix(
        std::min(declaration.find_first_of("\"'", found), declaration.size()));
    if (declaration.empty()) {
        return kName; // a fault
    }
    return declaration.substr(1, declaration.find(declaration.front(), 1) - 1);
}

/// True when the parser reads what follows the declaration as what it has read so far.
bool keepsUnits(std::string_view encoding, bool areWide) {
    const auto is = [encoding](std::string_view name) {
        return encoding.size() == name.size() && findIgnoringCase(encoding, name) == 0;
    };
    if (encoding.empty() || is("utf-8") || is("utf8")) {
        return true;
    }
    return areWide ? is("utf-16") || is("utf16")
                   : is("us-ascii") || findIgnoringCase(encoding, "iso-8859-") == 0 ||
                         findIgnoringCase(encoding, "windows-125") == 0;
}

xmlCharEncoding detectEncoding(std::string_view text) {
    std::array<unsigned char, 4> start{};
    std::copy_n(text.begin(), std::min(text.size(), start.size()), start.begin());
    return xmlDetectCharEncoding(start.data(), start.size());
}

/// The text with one byte for each character of markup; none when its encoding is not known here.
/// @param converted holds the bytes when they are not those of the text.
std::optional<std::string_view> findMarkup(std::string_view text, std::string& converted) {
    constexpr std::string_view kMark = "\xef\xbb\xbf";
    const xmlCharEncoding encoding = detectEncoding(text);
    const bool bigEnd = encoding == XML_CHAR_ENCODING_UTF16BE;
    const bool areWide = bigEnd || encoding == XML_CHAR_ENCODING_UTF16LE;
    if (areWide) {
        converted = oneBytePerUnit(text, bigEnd ? 1 : 0);
        text = converted;
        text.remove_prefix(text.starts_with('\x80') ? 1 : 0); // the byte order mark
    } else if (encoding != XML_CHAR_ENCODING_NONE && encoding != XML_CHAR_ENCODING_UTF8) {
        return std::nullopt;
    } else if (text.starts_with(kMark)) {
        text.remove_prefix(kMark.size());
    }
    return keepsUnits(declaredEncoding(text), areWide) ? std::optional(text) : std::nullopt;
}

// -- declarations
// ----------------------------------------------------------------------------------

/// Consumes what stands at the start of the document type declaration: quoted text, a comment, an
/// instruction or a single character.
void skipDeclared(std::string_view& text) {
    const char first = text.front();
    if (!skipCommentOrInstruction(text)) {
        text.remove_prefix(1);
        if (first == '"' || first == '\'') {
            skipPast(text, {&first, 1});
        }
    }
}

/// Whether the text begins with the declaration of a parameter entity whose value refers to another
/// entity. libxml2 2.9.14 may skip the blanks of such a value for ever when it finds there that
/// entities refer to each other in a circle, and `xmlStopParser` is not safe in that place.
bool declaresNestedParameter(std::string_view text) {
    constexpr std::string_view kEntity = "<!ENTITY";
    if (!text.starts_with(kEntity)) {
        return false;
    }
    text.remove_prefix(kEntity.size());
    text.remove_prefix(std::min(text.find_first_not_of(kBlanks), text.size()));
    if (!text.starts_with('%')) {
        return false;
    }
    const std::size_t open = text.find_first_of("\"'");
    if (open == kNone) {
        return false; // a fault
    }
    const std::string_view value = text.substr(open, text.find(text[open], open + 1) - open);
    return value.find_first_of("&%") != kNone;
}

/// Whether the document type declaration at the start of the text, brackets and all, may be parsed.
bool isHarmless(std::string_view text) {
    const std::size_t whole = text.size();
    bool inSubset = false;
    while (!text.empty() && (inSubset || text.front() != '>')) {
        if (declaresNestedParameter(text) || whole - text.size() > kMostDeclarations) {
            return false;
        }
        inSubset = text.front() == '[' || (inSubset && text.front() != ']');
        skipDeclared(text);
    }
    return whole - text.size() <= kMostDeclarations;
}

/// The document type declaration, if there is one, stands in front of the first element.
bool hasHarmlessDeclarations(std::string_view text) {
    do {
        text.remove_prefix(std::min(text.find_first_not_of(kBlanks), text.size()));
    } while (skipCommentOrInstruction(text));
    return !text.starts_with("<!DOCTYPE") || isHarmless(text);
}

// -- elements
// --------------------------------------------------------------------------------------

/// Number of attributes of a tag. No attribute value holds a '<', so quotes in text that looks like
/// a tag, a comment say, hide no real one.
std::size_t countAttributes(std::string_view tag) {
    std::size_t count = 0;
    char quote = '\0';
    for (const char c : tag) {
        if (quote != '\0') {
            quote = c == quote ? '\0' : quote;
        } else if (c == '"' || c == '\'') {
            quote = c;
        } else if (c == '=') {
            ++count;
        } else if (c == '>') {
            break;
        }
    }
    return count;
}

bool hasFewAttributes(std::string_view tag) {
    if (tag.starts_with("<!") || tag.starts_with("<?")) {
        return true;
    }
    const std::size_t count = countAttributes(tag);
    const std::size_t name = std::min(tag.find_first_of(kBlanks), tag.size());
    return count <= kMostAttributes && (count == 0 || name <= kMostHashing / count);
}

bool haveFewAttributes(std::string_view elements) {
    for (std::size_t at = elements.find('<'); at != kNone;) {
        const std::size_t next = std::min(elements.find('<', at + 1), elements.size());
        if (!hasFewAttributes(elements.substr(at, next - at))) {
            return false;
        }
        at = next == elements.size() ? kNone : next;
    }
    return true;
}

} // namespace

bool mayBeParsed(std::string_view text) {
    std::string converted;
    const auto markup = findMarkup(text, converted);
    return markup && hasHarmlessDeclarations(*markup) && haveFewAttributes(*markup);
}

} // namespace orvexd
