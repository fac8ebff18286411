#include "findings/Finding.h"

#include "support/FreeWith.h"

#include <array>
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

State stateOf(std::string_view word) {
    for (std::size_t i = 0; i < kWords.size(); ++i) {
        if (kWords.at(i) == word) {
            return static_cast<State>(i);
        }
    }
    return State::Unknown;
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
    const NodeRef root(json_builder_get_root(builder.get()));
    return TextRef(json_to_string(root.get(), FALSE)).get();
}

std::optional<Finding> fromJson(const std::string& line) {
    const ParserRef parser(json_parser_new());
    if (json_parser_load_from_data(parser.get(), line.data(), static_cast<gssize>(line.size()),
                                   nullptr) == FALSE) {
        return std::nullopt;
    }
    JsonNode* root = json_parser_get_root(parser.get());
    if (root == nullptr || !JSON_NODE_HOLDS_OBJECT(root)) {
        return std::nullopt;
    }
    JsonObject* object = json_node_get_object(root);
    return Finding{member(object, "check"), stateOf(member(object, "state")), member(object, "why"),
                   member(object, "advice")};
}

} // namespace orvexd::findings
