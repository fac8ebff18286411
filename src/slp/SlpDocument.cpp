#include "slp/SlpDocument.h"

#include "protocol/Codes.h"
#include "slp/TextSearch.h"

#include <algorithm>
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

/// Reads the attributes of one document. libxml2's own reader copies what it has for each entity
/// that it puts into a value, and puts in as much as there is: a few kilobytes would keep the
/// worker busy for hours and fill the memory.
class AttributeReader {
public:
    /// An entity refers to more text than a document may hold.
    struct TooMuchText {};

    /// The attribute's value with its entities put in; none when the element has no such attribute.
    /// @throws TooMuchText when the entities of all attributes so far hold more than kMostText.
    std::optional<std::string> read(const xmlNode& element, const char* name) {
        const xmlAttr* attribute = xmlHasProp(&element, asXml(name));
        if (attribute == nullptr) {
            return std::nullopt;
        }
        std::string value;
        if (attribute->type == XML_ATTRIBUTE_DECL) { // the element has it by its declaration
            append(reinterpret_cast<const xmlAttribute*>(attribute)->defaultValue, value);
        } else {
            append(attribute->children, value);
        }
        return value;
    }

private:
    static constexpr std::size_t kMostText = 10'000'000; // libxml2's limit for a single attribute

    static void append(const xmlChar* text, std::string& value) {
        if (text != nullptr) {
            value.append(reinterpret_cast<const char*>(text));
        }
    }

    void append(const xmlNode* nodes, std::string& value) {
        for (const xmlNode* node = nodes; node != nullptr; node = node->next) {
            const xmlEntity* entity = node->type == XML_ENTITY_REF_NODE
                                          ? xmlGetDocEntity(node->doc, node->name)
                                          : nullptr;
            if (entity != nullptr) {
                appendEntity(*entity, value);
            } else {
                append(node->content, value);
            }
        }
    }

    /// Even an entity without text costs something: its parts may be many.
    void appendEntity(const xmlEntity& entity, std::string& value) {
        const std::size_t before = value.size();
        spend(1);
        append(entity.children, value);
        spend(value.size() - before);
    }

    void spend(std::size_t bytes) {
        if (bytes > left_) {
            throw TooMuchText();
        }
        left_ -= bytes;
    }

    std::size_t left_ = kMostText;
};

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

std::optional<SlpError> parseResult(const xmlNode& result, AttributeReader& attributes,
                                    ResultMap& results) {
    const std::optional<std::string> oid = attributes.read(result, "oid");
    const std::optional<std::string> href = attributes.read(result, "href");
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

std::optional<SlpError> parseResponseElement(xmlNode& response, AttributeReader& attributes,
                                             ResultMap& results) {
    std::string status = attributes.read(response, "status").value_or("");
    if (status != "ok") {
        return SlpError{failure::kRefusedByServer, std::move(status)};
    }
    for (xmlNode* child = xmlFirstElementChild(&response); child != nullptr;
         child = xmlNextElementSibling(child)) {
        if (!isNamed(child, "result")) {
            return formatError("SlpResponse included other elements than results");
        }
        if (auto error = parseResult(*child, attributes, results)) {
            return error;
        }
    }
    return std::nullopt;
}

using XmlParser = std::unique_ptr<xmlParserCtxt, FreeWith<xmlFreeParserCtxt>>;

/// Hands a document to the parser piece by piece and breaks off where its cost would grow with the
/// square of its length, which would keep the worker busy for minutes while nothing could stop it:
/// libxml2 compares each attribute or namespace of an element with all others of the element, so
/// several hundred are the most. Declarations must end within the first piece: they may hold such
/// elements in an entity, which is parsed without further reading, or attributes that every element
/// gets unasked.
struct Feed {
    static constexpr int kMostAttributeSlots =
        5000; // of the parser's tables: five for an attribute
    static constexpr int kMostNamespaceSlots = 2000; // and two for a namespace
    static constexpr std::size_t kPiece = 2000;

    std::string_view rest;
    const xmlParserCtxt& parser;
    bool begun = false;

    [[nodiscard]] bool isTooCostly() const noexcept {
        return parser.maxatts > kMostAttributeSlots || parser.nsMax > kMostNamespaceSlots ||
               (begun && parser.inSubset != 0);
    }

    static int read(void* self, char* to, int room) noexcept {
        auto& feed = *static_cast<Feed*>(self);
        if (!feed.rest.empty() && feed.isTooCostly()) {
            return -1;
        }
        const std::string_view piece =
            feed.rest.substr(0, std::min(kPiece, static_cast<std::size_t>(room)));
        std::copy(piece.begin(), piece.end(), to);
        feed.rest.remove_prefix(piece.size());
        feed.begun = true;
        return static_cast<int>(piece.size());
    }
};

} // namespace

XmlDocument readSlpDocument(std::string_view text) {
    silenceXmlErrors(); // the handlers are per thread, and this may be the thread's first document
    if (!std::in_range<int>(text.size())) {
        return nullptr;
    }
    const XmlParser parser(xmlNewParserCtxt());
    if (!parser) {
        return nullptr;
    }
    Feed feed{text, *parser};
    return XmlDocument(xmlCtxtReadIO(parser.get(), Feed::read, nullptr, &feed, "", nullptr, 0));
}

std::optional<SlpError> parseSlpResponse(xmlNode* root, ResultMap& results) {
    if (!isNamed(root, "SimpleLocationProtocol")) {
        return formatError("SimpleLocationProtocol element faulty or does not exist");
    }
    xmlNode* response = xmlFirstElementChild(root);
    if (!isNamed(response, "SlpResponse")) {
        return formatError("SlpResponse element faulty or does not exist");
    }
    AttributeReader attributes;
    try {
        return parseResponseElement(*response, attributes, results);
    } catch (const AttributeReader::TooMuchText&) {
        return formatError("could not parse document");
    }
}

} // namespace orvexd
