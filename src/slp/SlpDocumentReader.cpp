// The reading of a document, within limits of what it may cost.

#include "slp/SlpDocument.h"

#include <algorithm>
#include <cstring>
#include <libxml/SAX2.h>
#include <libxml/catalog.h>
#include <memory>
#include <utility>

namespace orvexd {

namespace {

using XmlParser = std::unique_ptr<xmlParserCtxt, FreeWith<xmlFreeParserCtxt>>;

std::size_t lengthOf(const xmlChar* text) {
    return text == nullptr ? 0 : std::strlen(reinterpret_cast<const char*>(text));
}

std::size_t lengthOf(const char* text) {
    return text == nullptr ? 0 : std::strlen(text);
}

std::size_t square(std::size_t number) {
    return number * number;
}

/// What the parsing of one document costs, in steps of about a nanosecond. The parser's callbacks
/// count them; the factors were measured with libxml2 2.9.14 and hold for the worst of documents.
class ParseWork {
public:
    explicit ParseWork(xmlParserCtxt& parser) noexcept : parser_(parser) {
        parser._private = this; // the parsers of entities inherit it
        watch(*parser.sax);
    }

    [[nodiscard]] bool isStopped() const noexcept { return isStopped_; }

    /// Counts work of the given context, which is `parser` or parses an entity for it, and stops it
    /// when all is too much.
    void spend(std::size_t steps, xmlParserCtxt& context) noexcept {
        left_ -= std::min(left_, steps);
        if (left_ == 0) {
            stop(context);
        }
    }

private:
    static constexpr std::size_t kMostSteps = 160'000'000;
    static constexpr std::size_t kCall = 100; ///< a node
    static constexpr std::size_t kAttribute = 200;
    static constexpr std::size_t kMessage = 500;

    static ParseWork& of(void* context) noexcept {
        return *static_cast<ParseWork*>(static_cast<xmlParserCtxt*>(context)->_private);
    }

    /// Ends the loops over the content. Some function may still set the state anew, so the next
    /// callback halts the parser. `xmlStopParser` must not be called in other places: it frees the
    /// input under functions that still read it.
    void stop(xmlParserCtxt& context) noexcept {
        isStopped_ = true;
        if (!inDeclarations_) { // they are short, and blanks in a parameter entity would never end
            context.instate = XML_PARSER_EOF;
        }
    }

    /// In a callback for a piece of the content, `xmlStopParser` is safe.
    [[nodiscard]] bool haltsHere(xmlParserCtxt& context) const noexcept {
        if (isStopped_ && !inDeclarations_) {
            xmlStopParser(&context);
        }
        return isStopped_;
    }

    static void watch(xmlSAXHandler& handler) noexcept;

    /// Names are kept in a table with chains that grow with it.
    void spendOnNames(std::size_t names, xmlParserCtxt& context) noexcept {
        constexpr int kChains = 4608;
        constexpr std::size_t kLink = 150;
        spend(names * static_cast<std::size_t>(xmlDictSize(context.dict) / kChains) * kLink,
              context);
    }

    void spendOnElement(const xmlChar* name, bool hasNamespace, std::size_t namespaces,
                        std::size_t attributes, xmlParserCtxt& context) noexcept {
        inForce_ += namespaces;
        spendOnNames(1 + 2 * (namespaces + attributes), context);
        spend(kCall + kAttribute * (namespaces + attributes) + square(attributes) +
                  square(namespaces) / 2 + 4 * attributes * lengthOf(name) + inForce_ / 3,
              context);
        if (hasNamespace) {
            spendOnSearch(nullptr, context);
        }
    }

    /// The namespaces of an element and all around it are searched.
    void spendOnSearch(const xmlChar* prefix, xmlParserCtxt& context) noexcept {
        spend(depth_ + inForce_ * (3 + lengthOf(prefix)), context);
    }

    /// @param attribute name, prefix, namespace, begin and end of the value.
    void spendOnAttribute(const xmlChar* const* attribute, xmlParserCtxt& context) noexcept {
        const xmlChar* prefix = attribute[1];
        if (prefix != nullptr) {
            spendOnSearch(prefix, context);
        }
        if (hasDeclaredIds_ || (prefix != nullptr && xmlStrEqual(attribute[0], asXml("id")) != 0)) {
            constexpr std::size_t kLink = 20; // a chain may hold all identifiers
            spend(kLink * ++identifiers_, context);
        }
    }

    // NOLINTNEXTLINE(readability-function-size): libxml2's
    static void startElement(void* self, const xmlChar* name, const xmlChar* prefix,
                             const xmlChar* uri, int namespaceCount, const xmlChar** namespaces,
                             int attributeCount, int defaultCount,
                             const xmlChar** attributes) noexcept {
        auto& context = *static_cast<xmlParserCtxt*>(self);
        ParseWork& work = of(self);
        const auto namespacesHere = static_cast<std::size_t>(namespaceCount);
        const auto attributesHere = static_cast<std::size_t>(attributeCount);
        ++work.depth_;
        work.spendOnElement(name, uri != nullptr, namespacesHere, attributesHere, context);
        for (std::size_t number = 0; number < namespacesHere; ++number) {
            work.spend(2 * lengthOf(namespaces[2 * number + 1]), context);
        }
        for (std::size_t number = 0; number < attributesHere; ++number) {
            work.spendOnAttribute(attributes + 5 * number, context);
        }
        if (!work.haltsHere(context)) {
            xmlSAX2StartElementNs(self, name, prefix, uri, namespaceCount, namespaces,
                                  attributeCount, defaultCount, attributes);
        }
    }

    static void endElement(void* self, const xmlChar* name, const xmlChar* prefix,
                           const xmlChar* uri) noexcept {
        ParseWork& work = of(self);
        const xmlNode* node = static_cast<xmlParserCtxt*>(self)->node;
        for (const xmlNs* ns = node == nullptr ? nullptr : node->nsDef; ns != nullptr;
             ns = ns->next) {
            work.inForce_ -= std::min(work.inForce_, std::size_t{1});
        }
        work.depth_ -= std::min(work.depth_, std::size_t{1});
        if (!work.haltsHere(*static_cast<xmlParserCtxt*>(self))) {
            xmlSAX2EndElementNs(self, name, prefix, uri);
        }
    }

    static void characters(void* self, const xmlChar* text, int length) noexcept {
        constexpr std::size_t kPiece = 30;
        auto& context = *static_cast<xmlParserCtxt*>(self);
        of(self).spend(kPiece, context);
        of(self).spendOnNames(1, context); // short texts are kept with the names
        if (!of(self).haltsHere(context)) {
            xmlSAX2Characters(self, text, length);
        }
    }

    static void comment(void* self, const xmlChar* text) noexcept {
        auto& context = *static_cast<xmlParserCtxt*>(self);
        of(self).spend(kCall, context);
        if (!of(self).haltsHere(context)) {
            xmlSAX2Comment(self, text);
        }
    }

    /// Every instruction may name a catalog, and those form a list that is walked for each.
    static void instruction(void* self, const xmlChar* target, const xmlChar* data) noexcept {
        auto& context = *static_cast<xmlParserCtxt*>(self);
        ParseWork& work = of(self);
        work.spend(kCall, context);
        work.spendOnNames(1, context);
        if (xmlStrEqual(target, XML_CATALOG_PI) != 0) {
            work.spend(4 * ++work.catalogs_, context);
        }
        if (!work.haltsHere(context)) {
            xmlSAX2ProcessingInstruction(self, target, data);
        }
    }

    static void cdata(void* self, const xmlChar* text, int length) noexcept {
        auto& context = *static_cast<xmlParserCtxt*>(self);
        of(self).spend(kCall, context);
        if (!of(self).haltsHere(context)) {
            xmlSAX2CDataBlock(self, text, length);
        }
    }

    static void reference(void* self, const xmlChar* name) noexcept {
        auto& context = *static_cast<xmlParserCtxt*>(self);
        of(self).spend(kCall, context);
        of(self).spendOnNames(1, context);
        if (!of(self).haltsHere(context)) {
            xmlSAX2Reference(self, name);
        }
    }

    static void attributeDeclaration(void* self, const xmlChar* element, const xmlChar* name,
                                     int type, int kind, const xmlChar* value,
                                     xmlEnumeration* tree) noexcept {
        of(self).hasDeclaredIds_ |=
            type == XML_ATTRIBUTE_ID || type == XML_ATTRIBUTE_IDREF || type == XML_ATTRIBUTE_IDREFS;
        xmlSAX2AttributeDecl(self, element, name, type, kind, value, tree);
    }

    /// The parser stands in front of the declarations.
    static void beginDeclarations(void* self, const xmlChar* name, const xmlChar* publicId,
                                  const xmlChar* systemId) noexcept {
        of(self).inDeclarations_ = true;
        xmlSAX2InternalSubset(self, name, publicId, systemId);
    }

    /// The parser stands behind the declarations. Nothing is loaded from elsewhere.
    static void endDeclarations(void* self, const xmlChar* name, const xmlChar* publicId,
                                const xmlChar* systemId) noexcept {
        of(self).inDeclarations_ = false;
        if (!of(self).haltsHere(*static_cast<xmlParserCtxt*>(self))) {
            xmlSAX2ExternalSubset(self, name, publicId, systemId);
        }
    }

    /// Each reference may put in the whole entity, level by level of what that refers to. No more
    /// is put in after the end.
    static xmlEntity* entity(void* self, const xmlChar* name) noexcept {
        constexpr std::size_t kReference = 200;
        constexpr std::size_t kByte = 15;
        auto& context = *static_cast<xmlParserCtxt*>(self);
        ParseWork& work = of(self);
        xmlEntity* found = xmlSAX2GetEntity(self, name);
        const std::size_t length = found == nullptr ? 0 : lengthOf(found->content);
        work.spend(kReference + lengthOf(name) + kByte * length, context);
        return work.isStopped_ ? nullptr : found;
    }

    /// Parameter entities make the declarations longer.
    static xmlEntity* parameterEntity(void* self, const xmlChar* name) noexcept {
        auto& context = *static_cast<xmlParserCtxt*>(self);
        ParseWork& work = of(self);
        xmlEntity* found = xmlSAX2GetParameterEntity(self, name);
        work.declared_ += 1 + (found == nullptr ? 0 : lengthOf(found->content));
        if (work.declared_ > kMostDeclarations) {
            work.stop(context);
        }
        return work.isStopped_ ? nullptr : found;
    }

    /// The parser goes on after a fault although no document can come of it. A fault in an entity
    /// is left to the parser, which raises another one for the document.
    static void fault(void* self, xmlError* error) noexcept {
        auto& context = *static_cast<xmlParserCtxt*>(self);
        ParseWork& work = of(self);
        work.spend(kMessage + 3 * (lengthOf(error->message) + lengthOf(error->str1) +
                                   lengthOf(error->str2) + lengthOf(error->str3)),
                   context);
        if (work.isStopped_ || (error->level == XML_ERR_FATAL && &context == &work.parser_)) {
            work.stop(context);
        }
        if (work.left_ == 0 && error->domain == XML_FROM_NAMESPACE) {
            context.disableSAX = 1; // the loop over the attributes makes no further messages then
        }
    }

    xmlParserCtxt& parser_;
    std::size_t left_ = kMostSteps;
    bool isStopped_ = false;
    std::size_t depth_ = 0;
    std::size_t inForce_ = 0; ///< namespaces
    std::size_t identifiers_ = 0;
    std::size_t catalogs_ = 0;
    std::size_t declared_ = 0; ///< bytes of parameter entities that were put in
    bool hasDeclaredIds_ = false;
    bool inDeclarations_ = false;
};

void ParseWork::watch(xmlSAXHandler& handler) noexcept {
    handler.startElementNs = startElement;
    handler.endElementNs = endElement;
    handler.characters = characters;
    handler.ignorableWhitespace = characters; // the same, or the parser looks for blanks first
    handler.comment = comment;
    handler.processingInstruction = instruction;
    handler.cdataBlock = cdata;
    handler.reference = reference;
    handler.internalSubset = beginDeclarations;
    handler.externalSubset = endDeclarations;
    handler.attributeDecl = attributeDeclaration;
    handler.getEntity = entity;
    handler.getParameterEntity = parameterEntity;
    handler.serror = fault;
}

} // namespace

XmlDocument readSlpDocument(std::string_view text) {
    silenceXmlErrors(); // the handlers are per thread, and this may be the thread's first document
    if (!std::in_range<int>(text.size()) || !mayBeParsed(text)) {
        return nullptr;
    }
    const XmlParser parser(xmlNewParserCtxt());
    if (!parser) {
        return nullptr;
    }
    ParseWork work(*parser);
    work.spend(2 * text.size(), *parser);
    if (work.isStopped()) {
        return nullptr;
    }
    // To recover is to go on with the callbacks after a fault; they halt the parser then.
    XmlDocument document(xmlCtxtReadMemory(parser.get(), text.data(), static_cast<int>(text.size()),
                                           "", nullptr, XML_PARSE_RECOVER));
    return work.isStopped() || parser->wellFormed == 0 ? nullptr : std::move(document);
}

} // namespace orvexd
