// The reading of a document, within limits of what it may cost.

#include "slp/MarkupScan.h"
#include "slp/SlpDocument.h"
#include "slp/TextSearch.h"
#include "support/FreeWith.h"

#include <algorithm>
#include <array>
#include <glib.h>
#include <libxml/catalog.h>
#include <libxml/encoding.h>
#include <memory>
#include <utility>

namespace orvexd {

namespace {

/// UTF-16 as UTF-8, which is faulty when the former is.
std::string fromUtf16(std::string_view text, bool bigEnd) {
    std::vector<gunichar2> units(text.size() / 2);
    for (std::size_t unit = 0; unit < units.size(); ++unit) {
        const auto byte = [&](bool high) {
            return static_cast<unsigned char>(text[2 * unit + (high == bigEnd ? 0 : 1)]);
        };
        units[unit] = static_cast<gunichar2>(byte(true) << 8U | byte(false));
    }
    glong size = 0;
    const std::unique_ptr<char, FreeWith<g_free>> utf8(
        g_utf16_to_utf8(units.data(), static_cast<glong>(units.size()), nullptr, &size, nullptr));
    return utf8 ? std::string(utf8.get(), static_cast<std::size_t>(size)) : "\xff";
}

/// The encoding that the XML declaration names, in lower case; empty when it names none.
std::string declaredEncoding(std::string_view text) {
    const std::string_view declaration = text.substr(0, text.find("?>"));
    const std::size_t found = declaration.find("encoding");
    const std::size_t begin = declaration.find_first_of("\"'", found);
    if (!text.starts_with("<?xml") || found == std::string_view::npos) {
        return {};
    }
    if (begin == std::string_view::npos) {
        return "none";
    }
    const std::size_t end = declaration.find(declaration[begin], begin + 1);
    std::string name(declaration.substr(begin + 1, end - begin - 1));
    std::transform(name.begin(), name.end(), name.begin(), asciiLower);
    return name;
}

/// Each byte is a character. All of these encodings have ASCII.
bool isBytewise(std::string_view encoding) {
    return encoding == "us-ascii" || encoding.starts_with("iso-8859-") ||
           encoding.starts_with("windows-125");
}

/// No other characters may stand in a document.
bool isUtf8(std::string_view text) {
    return g_utf8_validate_len(text.data(), text.size(), nullptr) != 0 &&
           findBytes(text, "\xef\xbf\xbe") == std::string_view::npos &&
           findBytes(text, "\xef\xbf\xbf") == std::string_view::npos;
}

bool isControl(char c) {
    return static_cast<unsigned char>(c) < ' ' && c != '\t' && c != '\n' && c != '\r';
}

xmlCharEncoding detectEncoding(std::string_view text) {
    std::array<unsigned char, 4> start{};
    std::copy_n(text.begin(), std::min(text.size(), start.size()), start.begin());
    return xmlDetectCharEncoding(start.data(), start.size());
}

} // namespace

bool mayBeParsed(std::string_view text) {
    const xmlCharEncoding encoding = detectEncoding(text);
    const bool bigEnd = encoding == XML_CHAR_ENCODING_UTF16BE;
    const bool isWide = bigEnd || encoding == XML_CHAR_ENCODING_UTF16LE;
    if (!isWide && encoding != XML_CHAR_ENCODING_NONE && encoding != XML_CHAR_ENCODING_UTF8) {
        return false;
    }
    const std::string converted = isWide ? fromUtf16(text, bigEnd) : "";
    text = isWide ? converted : text.substr(0, text.find('\0')); // the parser ends there
    text.remove_prefix(text.starts_with("\xef\xbb\xbf") ? 3 : 0);
    const std::string name = declaredEncoding(text);
    const bool isUnicode = name.empty() || name == "utf-8" || name == "utf8" ||
                           (isWide && (name == "utf-16" || name == "utf16"));
    if (isUnicode ? !isUtf8(text) : isWide || !isBytewise(name)) {
        return false;
    }
    return std::none_of(text.begin(), text.end(), isControl) && isCheap(text);
}

XmlDocument readSlpDocument(std::string_view text) {
    silenceXmlErrors(); // the handlers are per thread, and this may be the thread's first document
    // Every instruction may name a catalog, and those would form a list that is walked for each.
    static const bool hasNoCatalogs = (xmlCatalogSetDefaults(XML_CATA_ALLOW_NONE), true);
    if (!hasNoCatalogs || !std::in_range<int>(text.size()) || !mayBeParsed(text)) {
        return nullptr;
    }
    return XmlDocument(xmlReadMemory(text.data(), static_cast<int>(text.size()), "", nullptr, 0));
}

} // namespace orvexd
