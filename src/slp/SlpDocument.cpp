#include "slp/SlpDocument.h"

#include "protocol/Codes.h"
#include "slp/TextSearch.h"

#include <charconv>
#include <limits>
#include <memory>
#include <utility>

namespace orvexd {

namespace {

constexpr std::string_view kPartScheme = "cid:";

/// An element that is null has no name.
bool isNamed(const xmlNode* element, std::string_view name) {
    return element != nullptr && nodeName(*element) == name;
}

SlpError formatError(const char* text) {
    return {failure::kFormat, text};
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

} // namespace orvexd
