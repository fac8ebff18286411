#include "SignalText.h"

#include "ConnectionStatus.h"
#include "JsonLine.h"
#include "Printable.h"

#include <iterator>
#include <sstream>
#include <vector>

namespace orvexd::ctl {
namespace {

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

std::vector<std::string> wordsOf(const std::string& text) {
    std::istringstream list{text};
    return {std::istream_iterator<std::string>{list}, {}};
}

void addArguments(JsonLine& json, const SignalEvent& event) {
    if (isStatus(event)) {
        json.addNumber("status", numberAt(event, 0));
        json.addText("words", connectionStatusWords(numberAt(event, 0)));
    } else if (isAboutRequest(event)) {
        json.addNumber("connection", numberAt(event, 0));
        json.addNumber("request", numberAt(event, 1));
    } else if (isError(event)) {
        json.addNumber("code", numberAt(event, 0));
        json.addText("message", textAt(event, 1));
        json.addTexts("requests", wordsOf(textAt(event, 2)));
    } else {
        json.addText("arguments", argumentsText(event));
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
    JsonLine json;
    json.addText("time", event.time);
    json.addText("sender", event.sender);
    json.addText("signal", event.name);
    addArguments(json, event);
    return json.text();
}

} // namespace orvexd::ctl
