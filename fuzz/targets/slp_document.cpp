// The SLP document of a response.
//
// Input: the document's bytes.
//
// Properties: what is accepted yields exactly the numbers and ids that another reading of the same
// tree yields; a short document is the one that the library reads by itself, and in ASCII without
// declarations each of these is taken; what is refused is refused with the text that this reading
// names; nothing outside the document is ever opened.

#include "slp/SlpDocument.h"
#include "support/Check.h"
#include "support/ExactCopy.h"
#include "support/Target.h"

#include <algorithm>
#include <cstring>
#include <libxml/parser.h>
#include <limits>
#include <optional>
#include <string>
#include <string_view>

namespace orvexd::fuzz {
namespace {

/// No document of this size is refused for its cost.
constexpr std::size_t kNeverCostly = 10'000;

struct Reading {
    ResultMap results;
    std::string refusal; ///< empty: accepted, unless `isRefused`
    bool isRefused = false;

    Reading& refuse(std::string text) {
        refusal = std::move(text);
        isRefused = true;
        return *this;
    }
};

std::string_view nameOf(const xmlNode* node) {
    return reinterpret_cast<const char*>(node->name);
}

const xmlNode* elementFrom(const xmlNode* node) {
    while (node != nullptr && node->type != XML_ELEMENT_NODE) {
        node = node->next;
    }
    return node;
}

std::optional<std::string> attributeOf(const xmlNode* element, const char* name) {
    for (xmlAttr* attribute = element->properties; attribute != nullptr;
         attribute = attribute->next) {
        if (std::strcmp(reinterpret_cast<const char*>(attribute->name), name) == 0) {
            const XmlText value(xmlNodeGetContent(reinterpret_cast<xmlNode*>(attribute)));
            return value ? std::string(asText(value)) : std::string();
        }
    }
    // A document may declare a value for elements that do not name the attribute.
    const xmlAttribute* declared =
        xmlGetDtdAttrDesc(element->doc->intSubset, element->name, asXml(name));
    if (declared == nullptr || declared->defaultValue == nullptr) {
        return std::nullopt;
    }
    return reinterpret_cast<const char*>(declared->defaultValue);
}

/// Reads as many digits as there are; beyond the largest number it stays there.
std::optional<int> numberOf(const std::string& text) {
    constexpr long long kLargest = std::numeric_limits<int>::max();
    long long number = 0;
    for (const char c : text) {
        if (c < '0' || c > '9') {
            return std::nullopt;
        }
        number = std::min(kLargest, number * 10 + (c - '0'));
    }
    return static_cast<int>(number);
}

bool beginsWithScheme(const std::string& link) {
    constexpr std::string_view kLower = "cid:";
    constexpr std::string_view kUpper = "CID:";
    for (std::size_t index = 0; index < kLower.size(); ++index) {
        if (index >= link.size() ||
            (link[index] != kLower[index] && link[index] != kUpper[index])) {
            return false;
        }
    }
    return true;
}

Reading readTree(const xmlNode* root) {
    Reading reading;
    if (root == nullptr || nameOf(root) != "SimpleLocationProtocol") {
        return reading.refuse("SimpleLocationProtocol element faulty or does not exist");
    }
    const xmlNode* response = elementFrom(root->children);
    if (response == nullptr || nameOf(response) != "SlpResponse") {
        return reading.refuse("SlpResponse element faulty or does not exist");
    }
    const auto status = attributeOf(response, "status");
    if (status != "ok") {
        return reading.refuse(status.value_or(""));
    }
    for (const xmlNode* result = elementFrom(response->children); result != nullptr;
         result = elementFrom(result->next)) {
        if (nameOf(result) != "result") {
            return reading.refuse("SlpResponse included other elements than results");
        }
        const auto oid = attributeOf(result, "oid");
        const auto href = attributeOf(result, "href");
        if (!oid || !href) {
            return reading.refuse("oid or cid not found from result");
        }
        const auto number = numberOf(*oid);
        if (!number) {
            return reading.refuse("oid attribute has invalid value");
        }
        if (!beginsWithScheme(*href)) {
            return reading.refuse("cid attribute has invalid value");
        }
        if (href->size() == std::string_view("cid:").size()) {
            return reading.refuse("cid attribute has zero value");
        }
        reading.results[*number].push_back(href->substr(std::string_view("cid:").size()));
    }
    return reading;
}

/// ASCII without declarations.
bool isPlain(std::string_view text) {
    return text.find("<!DOCTYPE") == std::string_view::npos &&
           text.find("encoding") == std::string_view::npos &&
           std::all_of(text.begin(), text.end(),
                       [](char c) { return c != 0 && static_cast<unsigned char>(c) < 0x80; });
}

std::string dumpOf(const XmlDocument& document) {
    xmlChar* text = nullptr;
    int length = 0;
    if (document) {
        xmlDocDumpMemory(document.get(), &text, &length);
    }
    const XmlText owner(text);
    return owner ? asText(owner) : "none";
}

xmlParserInput* refuseToLoad(const char* /*url*/, const char* /*id*/, xmlParserCtxt* /*context*/) {
    check(false, "nothing outside the document is opened");
    return nullptr;
}

} // namespace
} // namespace orvexd::fuzz

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    xmlSetExternalEntityLoader(orvexd::fuzz::refuseToLoad);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace orvexd;
    const fuzz::ExactCopy text({reinterpret_cast<const char*>(data), size});
    const XmlDocument document = readSlpDocument(text.view());
    // The library may go round for ever in declarations that are not given to it.
    if (size < fuzz::kNeverCostly &&
        (document || mayBeParsed(text.view()) || fuzz::isPlain(text.view()))) {
        const XmlDocument whole(
            xmlReadMemory(text.view().data(), static_cast<int>(size), "", nullptr, 0));
        fuzz::check(fuzz::dumpOf(whole) == fuzz::dumpOf(document),
                    "the document is the one that the library reads");
    }
    if (!document) {
        return 0;
    }
    xmlNode* root = xmlDocGetRootElement(document.get());
    ResultMap results;
    const std::optional<SlpError> error = parseSlpResponse(root, results);
    const fuzz::Reading reading = fuzz::readTree(root);
    fuzz::check(error.has_value() == reading.isRefused, "both readings accept or refuse");
    fuzz::check(!error || error->text == reading.refusal, "both readings name the same fault");
    fuzz::check(!error || error->code == 51 || error->code == 1003, "a fault has a known code");
    fuzz::check(results == reading.results, "both readings yield the same ids");
    return 0;
}
