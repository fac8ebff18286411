#include "doctor/PlatformTool.h"

#include "GioHandles.h"

#include <chrono>
#include <json-glib/json-glib.h>
#include <string_view>

namespace orvexd::ctl {
namespace {

using findings::Checked;

constexpr const char* kTool = "trilba-platform";

/// What the tool prints, one JSON document; empty when it cannot be run.
std::string output(const Child::Environment& environment, bool sandboxed,
                   std::chrono::seconds patience) {
    const TextRef program{g_find_program_in_path(kTool)};
    if (!program) {
        return {};
    }
    Child child{{program.get(), "--json"}, environment};
    child.silence();
    if (sandboxed) {
        child.confine();
    }
    return child.output(patience);
}

std::string textOf(JsonObject* object, const char* name) {
    const char* text = json_object_get_string_member_with_default(object, name, "");
    return text == nullptr ? "" : text;
}

/// Tells the entries of one list. @return how many there are.
guint tellEntries(JsonObject* root, const char* list, const Checked& report) {
    JsonNode* node = json_object_get_member(root, list);
    if (node == nullptr || !JSON_NODE_HOLDS_ARRAY(node)) {
        return 0;
    }
    JsonArray* entries = json_node_get_array(node);
    for (guint i = 0; i < json_array_get_length(entries); ++i) {
        JsonObject* entry = json_array_get_object_element(entries, i);
        const gint64 line = json_object_get_int_member_with_default(entry, "line", 0);
        const std::string where =
            line > 0 ? textOf(root, "file") + ", line " + std::to_string(line) + ": " : "";
        const std::string advice = "See trilba-platform.conf(5).";
        if (textOf(entry, "severity") == "fault") {
            report.broken(where + textOf(entry, "text"), advice);
        } else {
            report.doubtful(where + textOf(entry, "text"), advice);
        }
    }
    return json_array_get_length(entries);
}

} // namespace

bool tellPlatform(const Child::Environment& environment, bool sandboxed,
                  std::chrono::seconds patience, const Checked& report) {
    const std::string text = output(environment, sandboxed, patience);
    const ObjectRef<JsonParser> parser{json_parser_new()};
    if (text.empty() ||
        json_parser_load_from_data(parser.get(), text.data(), static_cast<gssize>(text.size()),
                                   nullptr) == FALSE) {
        return false;
    }
    JsonNode* node = json_parser_get_root(parser.get());
    if (node == nullptr || !JSON_NODE_HOLDS_OBJECT(node)) {
        return false;
    }
    JsonObject* root = json_node_get_object(node);
    if (tellEntries(root, "remarks", report) + tellEntries(root, "findings", report) == 0) {
        report.fine("trilba-platform finds nothing wrong; the source is " + textOf(root, "source") +
                    ".");
    }
    return true;
}

} // namespace orvexd::ctl
