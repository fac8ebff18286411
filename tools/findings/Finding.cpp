#include "findings/Finding.h"

#include "support/FreeWith.h"

#include <array>
#include <cstdio>
#include <json-glib/json-glib.h>
#include <memory>

namespace orvexd::findings {

namespace {

using BuilderRef = std::unique_ptr<JsonBuilder, FreeWith<g_object_unref>>;
using ParserRef = std::unique_ptr<JsonParser, FreeWith<g_object_unref>>;
using NodeRef = std::unique_ptr<JsonNode, FreeWith<json_node_unref>>;
using TextRef = std::unique_ptr<char, FreeWith<g_free>>;

constexpr std::array<std::string_view, 4> kWords = {"unknown", "fine", "doubtful", "broken"};

/// Servers and files may have written it; JSON is UTF-8.
TextRef valid(const std::string& text) {
    return TextRef(g_utf8_make_valid(text.data(), static_cast<gssize>(text.size())));
}

void add(JsonBuilder* builder, const char* name, const std::string& value) {
    json_builder_set_member_name(builder, name);
    json_builder_add_string_value(builder, valid(value).get());
}

std::string member(JsonObject* object, const char* name) {
    const char* text = json_object_get_string_member_with_default(object, name, "");
    return text == nullptr ? "" : text;
}

/// Terminals obey some characters, and lines end at others.
bool isHarmless(gunichar letter) {
    const GUnicodeType type = g_unichar_type(letter);
    return g_unichar_isprint(letter) != FALSE && type != G_UNICODE_LINE_SEPARATOR &&
           type != G_UNICODE_PARAGRAPH_SEPARATOR;
}

void appendEscaped(std::string& out, gunichar letter) {
    std::array<gunichar2, 2> units{static_cast<gunichar2>(letter), 0};
    std::size_t count = 1;
    if (constexpr gunichar kFirstOfPairs = 0x10000; letter >= kFirstOfPairs) {
        const gunichar rest = letter - kFirstOfPairs;
        units = {static_cast<gunichar2>(0xd800U + (rest >> 10U)),
                 static_cast<gunichar2>(0xdc00U + (rest & 0x3ffU))};
        count = 2;
    }
    for (std::size_t i = 0; i < count; ++i) {
        std::array<char, 8> text{};
        (void)std::snprintf(text.data(), text.size(), "\\u%04x",
                            static_cast<unsigned>(units.at(i)));
        out += text.data();
    }
}

/// JSON in which every character that does not print is \uNNNN. It can be in strings only.
std::string escaped(const char* json) {
    std::string out;
    for (const char* at = json; *at != '\0';) {
        const char* const next = g_utf8_next_char(at);
        if (const gunichar letter = g_utf8_get_char(at); isHarmless(letter)) {
            out.append(at, next);
        } else {
            appendEscaped(out, letter);
        }
        at = next;
    }
    return out;
}

std::string textOf(JsonBuilder* builder) {
    const NodeRef root(json_builder_get_root(builder));
    return escaped(TextRef(json_to_string(root.get(), FALSE)).get());
}

State stateOf(std::string_view word) {
    for (std::size_t i = 0; i < kWords.size(); ++i) {
        if (kWords.at(i) == word) {
            return static_cast<State>(i);
        }
    }
    return State::Unknown;
}

/// The object that the line holds, which is the parser's; null when it holds none.
JsonObject* objectIn(JsonParser* parser, const std::string& line) {
    if (json_parser_load_from_data(parser, line.data(), static_cast<gssize>(line.size()),
                                   nullptr) == FALSE) {
        return nullptr;
    }
    JsonNode* root = json_parser_get_root(parser);
    return root != nullptr && JSON_NODE_HOLDS_OBJECT(root) ? json_node_get_object(root) : nullptr;
}

} // namespace

std::string_view wordOf(State state) {
    return kWords.at(static_cast<std::size_t>(state));
}

std::string toJson(const Finding& finding) {
    const BuilderRef builder(json_builder_new());
    json_builder_begin_object(builder.get());
    add(builder.get(), "check", finding.check);
    add(builder.get(), "state", std::string(wordOf(finding.state)));
    add(builder.get(), "why", finding.why);
    add(builder.get(), "advice", finding.advice);
    json_builder_end_object(builder.get());
    return textOf(builder.get());
}

std::string sourceToJson(const std::string& source) {
    const BuilderRef builder(json_builder_new());
    json_builder_begin_object(builder.get());
    add(builder.get(), "source", source);
    json_builder_end_object(builder.get());
    return textOf(builder.get());
}

std::optional<std::string> sourceFromJson(const std::string& line) {
    const ParserRef parser(json_parser_new());
    JsonObject* object = objectIn(parser.get(), line);
    return object != nullptr && json_object_has_member(object, "source") != FALSE
               ? std::optional(member(object, "source"))
               : std::nullopt;
}

std::optional<Finding> fromJson(const std::string& line) {
    const ParserRef parser(json_parser_new());
    JsonObject* object = objectIn(parser.get(), line);
    if (object == nullptr || json_object_has_member(object, "check") == FALSE) {
        return std::nullopt;
    }
    return Finding{member(object, "check"), stateOf(member(object, "state")), member(object, "why"),
                   member(object, "advice")};
}

} // namespace orvexd::findings
