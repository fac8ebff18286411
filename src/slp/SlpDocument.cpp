#include "slp/SlpDocument.h"

#include "protocol/Codes.h"
#include "request/RequestData.h"
#include "slp/TextSearch.h"
#include "support/FreeWith.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <glib.h>
#include <libxml/catalog.h>
#include <libxml/encoding.h>
#include <limits>
#include <memory>
#include <utility>

namespace orvexd {

namespace {

// -- the reading of a document, within limits of what it may cost --------------------------------

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

// -- what a document says ------------------------------------------------------------------------

constexpr std::string_view kPartScheme = "cid:";

/// An element that is null has no name.
bool isNamed(const xmlNode* element, std::string_view name) {
    return element != nullptr && nodeName(*element) == name;
}

SlpError formatError(const char* text) {
    return {failure::kFormat, text};
}

/// The text of a value without entities: the only one of its nodes; null for any other value.
const xmlChar* plainText(const xmlAttr& attribute) {
    const xmlNode* text = attribute.children;
    const bool isPlain = text != nullptr && text->type == XML_TEXT_NODE && text->next == nullptr;
    return isPlain ? text->content : nullptr;
}

/// The attribute's value with its entities put in, which `mayBeParsed` has limited; none when the
/// element has no such attribute. `xmlGetProp` would copy what it has for each entity.
std::optional<std::string> attributeOf(const xmlNode& element, const char* name) {
    const xmlAttr* attribute = xmlHasProp(&element, asXml(name));
    if (attribute == nullptr) {
        return std::nullopt;
    }
    if (attribute->type == XML_ATTRIBUTE_DECL) { // the element has it by its declaration
        const xmlChar* value = reinterpret_cast<const xmlAttribute*>(attribute)->defaultValue;
        return value == nullptr ? "" : reinterpret_cast<const char*>(value);
    }
    if (const xmlChar* text = plainText(*attribute)) {
        return reinterpret_cast<const char*>(text);
    }
    const std::unique_ptr<xmlBuffer, FreeWith<xmlBufferFree>> value(xmlBufferCreate());
    xmlBufferSetAllocationScheme(value.get(), XML_BUFFER_ALLOC_DOUBLEIT);
    xmlNodeBufGetContent(value.get(), reinterpret_cast<const xmlNode*>(attribute));
    return reinterpret_cast<const char*>(xmlBufferContent(value.get()));
}

bool isDigits(std::string_view text) {
    return text.find_first_not_of("0123456789") == std::string_view::npos;
}

/// The number that decimal digits stand for. No digits are 0 and too many the largest number:
/// requests are numbered from 1, so neither names one.
int toOid(std::string_view digits) {
    int oid = 0;
    const auto parsed = std::from_chars(digits.data(), digits.data() + digits.size(), oid);
    return parsed.ec == std::errc::result_out_of_range ? std::numeric_limits<int>::max() : oid;
}

std::optional<SlpError> parseResult(const xmlNode& result, ResultMap& results) {
    const std::optional<std::string> oid = attributeOf(result, "oid");
    const std::optional<std::string> href = attributeOf(result, "href");
    if (!oid || !href) {
        return formatError("oid or cid not found from result");
    }
    const std::string_view digits = *oid;
    if (!isDigits(digits)) {
        return formatError("oid attribute has invalid value");
    }
    const std::string_view link = *href;
    if (findIgnoringCase(link.substr(0, kPartScheme.size()), kPartScheme) != 0) {
        return formatError("cid attribute has invalid value");
    }
    const std::string_view id = link.substr(kPartScheme.size());
    if (id.empty()) {
        return formatError("cid attribute has zero value");
    }
    results[toOid(digits)].emplace_back(id);
    return std::nullopt;
}

std::optional<SlpError> parseResponseElement(xmlNode& response, ResultMap& results) {
    std::string status = attributeOf(response, "status").value_or("");
    if (status != "ok") {
        return SlpError{failure::kRefusedByServer, std::move(status)};
    }
    for (xmlNode* child = xmlFirstElementChild(&response); child != nullptr;
         child = xmlNextElementSibling(child)) {
        if (!isNamed(child, "result")) {
            return formatError("SlpResponse included other elements than results");
        }
        if (auto error = parseResult(*child, results)) {
            return error;
        }
    }
    return std::nullopt;
}

} // namespace

bool mayBeParsed(std::string_view text, std::size_t mostMemory) {
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
    return std::none_of(text.begin(), text.end(), isControl) && isCheap(text, mostMemory);
}

XmlDocument readSlpDocument(std::string_view text, std::size_t mostMemory) {
    silenceXmlErrors(); // the handlers are per thread, and this may be the thread's first document
    // Every instruction may name a catalog, and those would form a list that is walked for each.
    static const bool hasNoCatalogs = (xmlCatalogSetDefaults(XML_CATA_ALLOW_NONE), true);
    if (!hasNoCatalogs || !std::in_range<int>(text.size()) || !mayBeParsed(text, mostMemory)) {
        return nullptr;
    }
    return XmlDocument(xmlReadMemory(text.data(), static_cast<int>(text.size()), "", nullptr, 0));
}

std::optional<SlpError> parseSlpResponse(xmlNode* root, ResultMap& results) {
    if (!isNamed(root, "SimpleLocationProtocol")) {
        return formatError("SimpleLocationProtocol element faulty or does not exist");
    }
    xmlNode* response = xmlFirstElementChild(root);
    if (!isNamed(response, "SlpResponse")) {
        return formatError("SlpResponse element faulty or does not exist");
    }
    return parseResponseElement(*response, results);
}

// -- announced parts -----------------------------------------------------------------------------

namespace {

/// What an announced part id costs: an entry, and a copy of its text, in each of three tables.
std::size_t costOf(const std::string& id) {
    constexpr std::size_t kEntries = 320;
    return kEntries + 3 * id.size();
}

} // namespace

std::optional<SlpError> AnnouncedParts::read(std::string_view text) {
    const std::size_t room = charge_.room();
    const XmlDocument document = readSlpDocument(text, room);
    if (!document) {
        isTooLarge_ = !mayBeParsed(text, room) && mayBeParsed(text);
        return SlpError{failure::kFormat, "could not parse document"};
    }
    auto error = parseSlpResponse(xmlDocGetRootElement(document.get()), results_);
    count(); // the results in front of a fault, too
    if (!error && hasRoom()) {
        announce();
    }
    return error;
}

void AnnouncedParts::count() {
    resultCost_ = 0;
    for (const auto& [oid, ids] : results_) {
        for (const std::string& id : ids) {
            resultCost_ += costOf(id);
        }
    }
    charge_.set(resultCost_ + nextPartCost_);
}

void AnnouncedParts::announce() {
    positions_.clear();
    for (std::size_t position = 0; position < requests_.size(); ++position) {
        RequestData& request = *requests_[position];
        const auto result = results_.find(static_cast<int>(request.messageIndex()));
        const std::vector<std::string> none;
        const std::vector<std::string>& ids = result == results_.end() ? none : result->second;
        request.setExpectedPartIds(ids);
        // The first request in transfer order gets a part. Ids that count up stand behind each
        // other in the map.
        auto next = positions_.end();
        for (const std::string& id : ids) {
            next = std::next(positions_.try_emplace(next, id, position));
        }
    }
}

std::optional<std::size_t> AnnouncedParts::accept(const std::string& id) {
    const auto found = positions_.find(id);
    const bool isExpected = found != positions_.end() && requests_[found->second]->acceptPartId(id);
    return isExpected ? std::optional(found->second) : std::nullopt;
}

void AnnouncedParts::add(std::size_t position, const std::string& id) {
    nextPartCost_ += costOf(id);
    charge_.add(costOf(id));
    if (!hasRoom()) {
        return;
    }
    requests_[position]->addExpectedPartId(id);
    const auto [entry, added] = positions_.try_emplace(id, position);
    if (!added) {
        entry->second = std::min(entry->second, position);
    }
}

bool AnnouncedParts::areComplete() const noexcept {
    return std::all_of(requests_.begin(), requests_.end(), [](const auto& request) {
        return request->hasExpectedPartIds() && !request->hasOutstandingPartIds();
    });
}

void AnnouncedParts::finish() noexcept {
    for (const auto& request : requests_) {
        request->forgetPartIds();
    }
}

} // namespace orvexd
