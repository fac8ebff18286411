// The SLP document of a request. Its names and values are bytes that clients chose.
//
// Input: for each request a line each with the element's name, its type and its version.
//
// Properties: the requests are numbered in order; a document that any XML reader accepts gives the
// values back; nothing is left on the heap.

#include "config/MapWrapper.h"
#include "request/RequestData.h"
#include "slp/SlpComposer.h"
#include "slp/SlpDocument.h"
#include "slp/TextSearch.h"
#include "support/Check.h"
#include "support/Input.h"
#include "support/Target.h"

#include <glib.h>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace orvexd::fuzz {
namespace {

constexpr std::size_t kMaxRequests = 20;

std::vector<std::shared_ptr<RequestData>> readQueue(Input input) {
    std::vector<std::shared_ptr<RequestData>> queue;
    do {
        auto parameters = std::make_shared<ConnectionParameters>();
        parameters->elementName = input.line();
        parameters->type = input.line();
        parameters->version = input.line();
        const auto id = static_cast<std::uint32_t>(queue.size() + 1);
        queue.push_back(std::make_shared<RequestData>(1, id, true, std::move(parameters)));
    } while (!input.empty() && queue.size() < kMaxRequests);
    return queue;
}

bool isName(std::string_view text) {
    return !text.empty() && text.size() < 100 &&
           text.find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ") ==
               std::string_view::npos;
}

/// Text that an XML document can hold.
bool isText(std::string_view text) {
    if (g_utf8_validate(text.data(), static_cast<gssize>(text.size()), nullptr) == FALSE) {
        return false;
    }
    const std::string copy(text);
    for (const char* at = copy.c_str(); *at != '\0'; at = g_utf8_next_char(at)) {
        const gunichar letter = g_utf8_get_char(at);
        const bool isControl = letter < 0x20 && letter != '\t' && letter != '\n' && letter != '\r';
        if (isControl || letter == 0xfffe || letter == 0xffff) {
            return false;
        }
    }
    return copy.find('\0') == std::string::npos;
}

void expectAttribute(xmlNode* element, const char* name, const std::string& value) {
    const XmlText text(xmlGetProp(element, asXml(name)));
    check(text && asText(text) == value, "a value comes back");
}

/// Reads the document as the server would.
void checkDocument(std::string_view text, const std::vector<std::shared_ptr<RequestData>>& queue) {
    const XmlDocument document = readSlpDocument(text);
    check(document != nullptr, "the document is one");
    xmlNode* element =
        xmlFirstElementChild(xmlFirstElementChild(xmlDocGetRootElement(document.get())));
    for (const auto& request : queue) {
        check(element != nullptr && nodeName(*element) == request->parameters().elementName,
              "each request has its element");
        expectAttribute(element, "type", request->parameters().type);
        expectAttribute(element, "version", request->parameters().version);
        expectAttribute(element, "oid", std::to_string(request->messageIndex()));
        expectAttribute(element, "href", "cid:" + request->contentId());
        element = xmlNextElementSibling(element);
    }
    check(element == nullptr, "there are no other elements");
}

} // namespace
} // namespace orvexd::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace orvexd;
    const auto queue = fuzz::readQueue(fuzz::Input(data, size));
    std::string prefix;
    (void)composeSlpHeaderPart("boundary", queue, Parameters(), prefix);
    bool isPlain = true;
    for (std::size_t index = 0; index < queue.size(); ++index) {
        const RequestData& request = *queue[index];
        fuzz::check(request.messageIndex() == index + 1, "requests are numbered in order");
        fuzz::check(request.contentId() == "part" + std::to_string(index + 1), "parts are named");
        const ConnectionParameters& parameters = request.parameters();
        isPlain = isPlain && fuzz::isName(parameters.elementName) &&
                  fuzz::isText(parameters.type) && fuzz::isText(parameters.version);
    }
    fuzz::check(prefix.starts_with("\r\n--boundary\r\n"), "the delimiter comes first");
    const std::size_t blank = findBytes(prefix, kBlankLine);
    fuzz::check(blank != std::string::npos, "an empty line ends the header lines");
    if (isPlain) {
        fuzz::checkDocument(std::string_view(prefix).substr(blank + kBlankLine.size()), queue);
    }
    return 0;
}
