// What a document would cost its parser, told by its bytes before the parse.
// The scan finds markup where the parser finds it. It refuses faults behind which the parser might
// go on inside a comment, a declaration or a value. Behind others a '<' still begins a tag.

#include "slp/MarkupCursor.h"
#include "slp/SlpDocument.h"

#include <algorithm>
#include <cstdint>
#include <map>
#include <set>

namespace orvexd {

namespace {

using namespace markup;
using Steps = std::uint64_t; ///< of about a nanosecond, measured with libxml2 2.9.14

constexpr Steps kMostSteps = 160'000'000;
constexpr Steps kNode = 100;
constexpr Steps kAttribute = 200;
constexpr Steps kMessage = 300; ///< that nobody gets

// Bytes of libxml2's records on a 64-bit machine, allocator included.
constexpr std::size_t kNodeSize = 160;      ///< with an empty text
constexpr std::size_t kAttributeSize = 256; ///< with the text that it holds
constexpr std::size_t kNamespaceSize = 96;

/// Counts the steps and the memory of a document.
class Scan {
public:
    Scan(std::string_view text, std::size_t mostMemory) : cursor_{text}, memoryLeft_(mostMemory) {
        spend(2 * text.size());
        hold(2 * text.size()); // the parser's copy, and all texts
        while (!cursor_.rest.empty()) {
            takeContent();
        }
    }

private:
    struct Entity {
        std::string_view value;
        Steps steps = 0; ///< once they are counted
    };
    struct Element {
        std::string_view name;
        std::size_t around; ///< number of namespaces in force
    };

    void spend(Steps steps) {
        require(steps <= left_);
        left_ -= steps;
    }

    void hold(std::uint64_t bytes) {
        require(bytes <= memoryLeft_);
        memoryLeft_ -= bytes;
    }

    /// The parser keeps names and short texts in a table with chains that grow with it.
    void look(std::string_view name) {
        constexpr std::size_t kChains = 4608;
        constexpr Steps kLink = 150;
        names_.insert(name);
        spend(names_.size() / kChains * kLink);
    }

    void takeContent() {
        if (cursor_.next() != '<') {
            takeText();
        } else if (cursor_.skip("</")) {
            require(!open_.empty() && cursor_.skip(open_.back().name));
            cursor_.skipBlanks();
            require(cursor_.skip(">"));
            close();
        } else if (cursor_.skip("<![CDATA[")) {
            takeSection("]]>", true);
        } else if (open_.empty() && cursor_.skip("<!DOCTYPE")) {
            takeDeclarations();
        } else if (!skipCommentOrInstruction()) {
            takeTag();
        }
    }

    void takeText() {
        constexpr Steps kEntity = 3000; // a document of its own for each reference to an empty one
        const std::string_view text = cursor_.takeUpTo("<");
        require(findBytes(text, "]]>") == kNone);
        const Steps each = declared_.empty() ? 0 : kEntity + declared_.size() * inForce();
        spend(30 + stepsOf(text) + count(text, '&') * each);
        hold(kNodeSize * (1 + 2 * count(text, '&')));
        if (text.size() <= 3 || (text.size() < 60 && text.find_first_not_of(kBlanks) == kNone)) {
            look(text);
        }
    }

    /// The parser may take a part of a long section, or of a faulty one, as content.
    void takeSection(std::string_view end, bool isSound) {
        constexpr std::size_t kLongest = 10'000'000;
        spend(kNode);
        hold(kNodeSize);
        const std::string_view text = cursor_.takePast(end);
        require((isSound && text.size() <= kLongest) || text.find_first_of("<&]") == kNone);
    }

    bool skipCommentOrInstruction() {
        if (cursor_.skip("<!--")) {
            takeSection("--", true);
            require(cursor_.skip(">"));
            return true;
        }
        if (cursor_.skip("<?")) {
            constexpr std::size_t kLongest = 50'000;
            const std::string_view text = cursor_.rest;
            const std::string_view name = text.substr(0, text.find_first_of("? \t\r\n"));
            look(name);
            spend(kMessage);
            takeSection("?>", beginsName(name) && name.size() <= kLongest);
            return true;
        }
        return false;
    }

    // -- declarations

    void takeDeclarations() {
        const std::string_view text = cursor_.rest;
        require(takeQuotedTexts().find('<') == kNone);
        if (cursor_.skip("[")) {
            while (cursor_.skipBlanks(), !cursor_.skip("]")) {
                takeDeclaration();
            }
            cursor_.skipBlanks();
        }
        declared_ = text.substr(0, text.size() - cursor_.rest.size());
        require(cursor_.skip(">") && declared_.size() + 9 <= kMostDeclarations &&
                count(declared_, '%') * (1 + longestParameter_) <= kMostDeclarations);
        for (auto& [name, entity] : entities_) {
            spend(expand(entity));
        }
        if (findBytes(declared_, "<!ATTLIST") != kNone) {
            defaults_ = (count(declared_, '"') + count(declared_, '\'')) / 2;
            defaultSteps_ = defaults_ * declared_.size() / 2 + stepsOf(declared_);
            hasIds_ = findBytes(declared_, "ID") != kNone;
            longestUri_ = declared_.size();
        }
    }

    /// Takes a reference to a parameter entity, a comment, an instruction or a declaration.
    void takeDeclaration() {
        if (cursor_.skip("%")) {
            cursor_.takeName();
            require(cursor_.skip(";"));
        } else if (cursor_.skip("<!ENTITY")) {
            takeEntity();
        } else if (!skipCommentOrInstruction()) {
            require(cursor_.skip("<!ATTLIST") || cursor_.skip("<!ELEMENT") ||
                    cursor_.skip("<!NOTATION"));
            require(takeQuotedTexts().find('<') == kNone && cursor_.skip(">"));
        }
    }

    /// @return all from the first quoted text to the last.
    std::string_view takeQuotedTexts() {
        takeUnquotedText();
        const std::string_view text = cursor_.rest;
        while (cursor_.next() == '"' || cursor_.next() == '\'') {
            cursor_.takeQuoted();
            takeUnquotedText();
        }
        return text.substr(0, text.size() - cursor_.rest.size());
    }

    void takeUnquotedText() { require(cursor_.takeUpTo("\"'[>").find_first_of("<%") == kNone); }

    /// libxml2 2.9.14 may skip the blanks of a parameter entity for ever when it finds there that
    /// entities refer to each other in a circle, so none of them may refer to another.
    void takeEntity() {
        cursor_.skipBlanks();
        const bool isParameter = cursor_.skip("%");
        cursor_.skipBlanks();
        const std::string_view name = cursor_.takeName();
        Cursor texts{takeQuotedTexts()};
        require(cursor_.skip(">") && !texts.rest.empty());
        const std::string_view value = texts.takeQuoted();
        if (isParameter) {
            require(value.find_first_of("&%") == kNone);
            longestParameter_ = std::max(longestParameter_, value.size());
        } else {
            entities_.try_emplace(name, Entity{value});
        }
    }

    /// Any entity may be one that a parameter entity declares with its text.
    [[nodiscard]] Steps leastSteps(std::string_view value) const {
        constexpr Steps kByte = 15;
        return kMessage + kByte * std::max(value.size(), longestParameter_);
    }

    /// What it costs to put an entity in with all that it refers to. The parser does not notice
    /// each circle and would never come back, nor would who reads an attribute.
    Steps expand(Entity& entity) {
        if (entity.steps == 0) {
            entity.steps = kMostSteps + 1; // for those that refer to themselves
            Steps steps = leastSteps(entity.value);
            forEachReference(entity.value, [&](std::string_view name, std::string_view rest) {
                require(!isAmpersand(name) || rest.empty() || rest[0] == '#');
                const auto found = entities_.find(name);
                steps += found == entities_.end() ? leastSteps("") : expand(found->second);
                require(steps <= kMostSteps);
            });
            entity.steps = steps;
        }
        return entity.steps;
    }

    [[nodiscard]] Steps stepsOf(std::string_view text) const {
        Steps steps = 0;
        forEachReference(text, [&](std::string_view name, std::string_view /*rest*/) {
            const auto found = entities_.find(name);
            steps += 5 * entities_.size() +
                     (found == entities_.end() ? leastSteps("") : found->second.steps);
        });
        return steps;
    }

    // -- elements

    void takeTag() {
        cursor_.take(1);
        open_.push_back({takeName(), prefixes_.size()});
        searched_ = {open_.back().name};
        locals_.clear();
        std::size_t attributes = 0;
        while (cursor_.skipBlanks() && cursor_.next() != '>' && cursor_.next() != '/') {
            require(++attributes <= kMostAttributes);
            takeAttribute();
        }
        spendOnElement(attributes);
        const bool isEmpty = cursor_.skip("/");
        require(cursor_.skip(">"));
        if (isEmpty) {
            close();
        }
    }

    void close() {
        prefixes_.resize(open_.back().around);
        open_.pop_back();
    }

    std::string_view takeName() {
        const std::string_view name = cursor_.takeName();
        spend(std::any_of(name.begin(), name.end(), isBeyondAscii) ? 4 * kMessage : 0);
        const std::string_view local = localOf(name);
        look(local);
        if (local.size() < name.size()) {
            look(name.substr(0, name.find(':')));
        }
        return name;
    }

    void takeAttribute() {
        const std::string_view name = takeName();
        cursor_.skipBlanks();
        require(cursor_.skip("="));
        cursor_.skipBlanks();
        const std::string_view value = cursor_.takeQuoted();
        require(value.find('<') == kNone);
        spend(count(value, '>') * kMessage);
        spend(stepsOf(value));
        locals_.push_back(localOf(name));
        if (name == "xmlns" || name.starts_with("xmlns:")) {
            declare(name.substr(std::min<std::size_t>(name.size(), 6)), value);
        } else if (name.find(':') != kNone) {
            searched_.push_back(name);
        }
        if (hasIds_ || name == "xml:id") {
            constexpr Steps kLink = 20; // a chain may hold all identifiers
            spend(kLink * ++identifiers_);
        }
        if (value.size() <= 3) {
            look(value);
        }
    }

    void declare(std::string_view prefix, std::string_view uri) {
        spend(kMessage + 5 * uri.size());
        hold(kNamespaceSize);
        look(uri);
        prefixes_.push_back(prefix);
        longestUri_ = std::max(longestUri_, uri.size());
    }

    /// libxml2 compares each attribute of an element with all others.
    void spendOnElement(Steps written) {
        const Steps namespaces = prefixes_.size() - open_.back().around + defaults_;
        const Steps attributes = written + 2 * defaults_ - namespaces;
        spend(kNode + (written + defaults_) * (kAttribute + 4 * open_.back().name.size()) +
              attributes * attributes + namespaces * namespaces / 2 + defaultSteps_);
        hold(kNodeSize + attributes * kAttributeSize + defaults_ * declared_.size());
        // Equal names are a fault each, and so are those in the same namespace.
        std::sort(locals_.begin(), locals_.end());
        const auto others = std::unique(locals_.begin(), locals_.end());
        const auto repeated = static_cast<Steps>(locals_.end() - others);
        spend(repeated * (kMessage + 3 * longestUri_));
        for (const std::string_view name : searched_) {
            search(name);
        }
    }

    [[nodiscard]] Steps inForce() const { return prefixes_.size() + open_.size() * defaults_; }
    /// The namespaces of an element and all around it are searched for a prefix.
    void search(std::string_view name) {
        const std::size_t colon = std::min(name.find(':'), name.size());
        const std::string_view prefix = colon == name.size() ? "" : name.substr(0, colon);
        const std::string_view local = localOf(name);
        spend(open_.size() + inForce() * (3 + prefix.size()));
        if (colon < name.size() &&
            (colon == 0 || !beginsName(local) || local.find(':') != kNone ||
             std::find(prefixes_.begin(), prefixes_.end(), prefix) == prefixes_.end())) {
            spend(kMessage + 3 * (name.size() + open_.back().name.size()));
        }
    }

    Cursor cursor_;
    Steps left_ = kMostSteps;
    std::uint64_t memoryLeft_;
    std::set<std::string_view> names_;
    std::vector<Element> open_;
    std::vector<std::string_view> prefixes_; ///< of the namespaces in force
    std::vector<std::string_view> searched_; ///< names in the latest tag with a prefix
    std::vector<std::string_view> locals_;   ///< names of its attributes without their prefixes
    std::size_t longestUri_ = 0;
    Steps identifiers_ = 0;
    std::string_view declared_; ///< the document type declaration
    std::map<std::string_view, Entity> entities_;
    std::size_t longestParameter_ = 0;
    Steps defaults_ = 0; ///< attributes that each element may get from its declaration
    Steps defaultSteps_ = 0;
    bool hasIds_ = false;
};

} // namespace

bool isCheap(std::string_view markup, std::size_t mostMemory) {
    try {
        [[maybe_unused]] const Scan passed(markup, mostMemory);
        return true;
    } catch (const Refused&) {
        return false;
    }
}

} // namespace orvexd
