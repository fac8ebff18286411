#include "SignalText.h"

#include "ConnectionStatus.h"
#include "Printable.h"

#include <json-glib/json-glib.h>
#include <sstream>

namespace orvexd::ctl {
namespace {

using JsonNodeRef = std::unique_ptr<JsonNode, FreeWith<json_node_unref>>;

bool isSignal(const SignalEvent& event, const char* name, const char* signature) {
    return event.name == name &&
           g_variant_is_of_type(event.arguments.get(), G_VARIANT_TYPE(signature));
}

bool isStatus(const SignalEvent& event) {
    return isSignal(event, "connectionStatusChanged", "(u)");
}

bool isError(const SignalEvent& event) {
    return isSignal(event, "errorSignal", "(uss)");
}

/// requestData and cancel: the two ids of a request.
bool isAboutRequest(const SignalEvent& event) {
    return isSignal(event, "requestData", "(uu)") || isSignal(event, "cancel", "(uu)");
}

std::uint32_t numberAt(const SignalEvent& event, gsize index) {
    const VariantRef value{g_variant_get_child_value(event.arguments.get(), index)};
    return g_variant_get_uint32(value.get());
}

std::string textAt(const SignalEvent& event, gsize index) {
    const VariantRef value{g_variant_get_child_value(event.arguments.get(), index)};
    return g_variant_get_string(value.get(), nullptr);
}

std::string argumentsText(const SignalEvent& event) {
    return TextRef{g_variant_print(event.arguments.get(), TRUE)}.get();
}

void addNumber(JsonBuilder* json, const char* name, std::uint32_t value) {
    json_builder_set_member_name(json, name);
    json_builder_add_int_value(json, value);
}

void addText(JsonBuilder* json, const char* name, const std::string& value) {
    json_builder_set_member_name(json, name);
    json_builder_add_string_value(json, value.c_str());
}

void addKeys(JsonBuilder* json, const std::string& keys) {
    json_builder_set_member_name(json, "requests");
    json_builder_begin_array(json);
    std::istringstream list{keys};
    for (std::string key; list >> key;) {
        json_builder_add_string_value(json, key.c_str());
    }
    json_builder_end_array(json);
}

void addArguments(JsonBuilder* json, const SignalEvent& event) {
    if (isStatus(event)) {
        addNumber(json, "status", numberAt(event, 0));
        addText(json, "words", connectionStatusWords(numberAt(event, 0)));
    } else if (isAboutRequest(event)) {
        addNumber(json, "connection", numberAt(event, 0));
        addNumber(json, "request", numberAt(event, 1));
    } else if (isError(event)) {
        addNumber(json, "code", numberAt(event, 0));
        addText(json, "message", textAt(event, 1));
        addKeys(json, textAt(event, 2));
    } else {
        addText(json, "arguments", argumentsText(event));
    }
}

std::string argumentsForPeople(const SignalEvent& event) {
    if (isStatus(event)) {
        return connectionStatusWords(numberAt(event, 0)) + " (" +
               std::to_string(numberAt(event, 0)) + ")";
    }
    if (isAboutRequest(event)) {
        return "request " + std::to_string(numberAt(event, 0)) + ":" +
               std::to_string(numberAt(event, 1));
    }
    if (isError(event)) {
        return "code " + std::to_string(numberAt(event, 0)) + ", \"" + printable(textAt(event, 1)) +
               "\", requests \"" + printable(textAt(event, 2)) + "\"";
    }
    return printable(argumentsText(event));
}

} // namespace

std::string signalAsText(const SignalEvent& event) {
    return event.time + "  " + event.sender + "  " + event.name + "  " + argumentsForPeople(event);
}

std::string signalAsJson(const SignalEvent& event) {
    const ObjectRef<JsonBuilder> json{json_builder_new()};
    json_builder_begin_object(json.get());
    addText(json.get(), "time", event.time);
    addText(json.get(), "sender", event.sender);
    addText(json.get(), "signal", event.name);
    addArguments(json.get(), event);
    json_builder_end_object(json.get());
    const JsonNodeRef root{json_builder_get_root(json.get())};
    return TextRef{json_to_string(root.get(), FALSE)}.get();
}

} // namespace orvexd::ctl
