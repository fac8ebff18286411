#include "slp/SlpComposer.h"

#include "protocol/Names.h"
#include "request/RequestData.h"
#include "support/Deployment.h"
#include "support/XmlHandles.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <trilba/core/SystemInfo.h>

namespace orvexd {

namespace {

constexpr const char* kSoftwareId = "oem.ubuntu";

std::string softwareVersion() {
    return std::to_string(version::kMajor) + '.' + std::to_string(version::kMinor) + '.' +
           std::to_string(version::kBuild);
}

/// A null parent (out of memory) gets no child.
xmlNode* addChild(xmlNode* parent, const std::string& name) {
    return parent == nullptr ? nullptr : xmlNewChild(parent, nullptr, asXml(name.c_str()), nullptr);
}

/// A null element (out of memory) gets no attribute.
void setAttribute(xmlNode* element, const char* name, const std::string& value) {
    if (element != nullptr) {
        xmlSetProp(element, asXml(name), asXml(value.c_str()));
    }
}

xmlNode* addRoot(xmlDoc* document, const Parameters& parameters) {
    if (document == nullptr) {
        return nullptr;
    }
    xmlNode* root = xmlNewNode(nullptr, asXml("SimpleLocationProtocol"));
    xmlDocSetRootElement(document, root);
    setAttribute(root, "version", parameters.get("orvexd/slp/version", "2.0"));
    setAttribute(root, "xmlns", parameters.get("orvexd/slp/xmlns", deployment::kSlpNamespace));
    return root;
}

xmlNode* addSlpRequest(xmlNode* root, const Parameters& parameters) {
    xmlNode* request = addChild(root, "SlpRequest");
    setAttribute(request, "type", parameters.get("orvexd/slpreq/type", "terminal"));
    std::string platformId;
    trilba::core::SystemInfo::getPlatformId(platformId);
    setAttribute(request, "platform", parameters.get("orvexd/slpreq/platform", platformId));
    setAttribute(request, "swId", parameters.get("orvexd/slpreq/swId", kSoftwareId));
    setAttribute(request, "swVersion",
                 parameters.get("orvexd/slpreq/swVersion", softwareVersion()));
    for (const char* identity : std::array{"imsi", "imei", "fwId"}) {
        const std::string value = parameters.get(identity);
        if (!value.empty()) {
            setAttribute(request, identity, value);
        }
    }
    return request;
}

/// Adds the element of the request that is number `index`, counted from 1, of its message.
void addRequest(xmlNode* slpRequest, RequestData& request, std::uint32_t index) {
    const ConnectionParameters& parameters = request.parameters();
    const std::string number = std::to_string(index);
    const std::string contentId = "part" + number;
    xmlNode* element = addChild(slpRequest, parameters.elementName);
    setAttribute(element, "type", parameters.type);
    setAttribute(element, "version", parameters.version);
    setAttribute(element, "oid", number);
    setAttribute(element, "href", "cid:" + contentId);
    request.setMessageIndex(index);
    request.setContentId(contentId);
}

void appendDocument(xmlDoc* document, std::string& text) {
    if (document == nullptr) {
        return;
    }
    xmlChar* dump = nullptr;
    int size = 0;
    xmlDocDumpFormatMemory(document, &dump, &size, 1);
    const XmlText owned(dump);
    if (owned) {
        text.append(asText(owned));
    }
}

} // namespace

int composeSlpHeaderPart(std::string_view boundary,
                         std::span<const std::shared_ptr<RequestData>> queue,
                         const Parameters& parameters, std::string& bodyPrefix) {
    silenceXmlErrors(); // clients choose names and values; libxml2 would print what it dislikes
    bodyPrefix.append("\r\n--").append(boundary).append("\r\n");
    bodyPrefix.append("Content-Type: text/xml; charset=UTF-8\r\n"
                      "Content-Transfer-Encoding: 8bit\r\n"
                      "Content-Id: slpHeaderPart\r\n");
    const XmlDocument document(xmlNewDoc(asXml("1.0")));
    xmlNode* slpRequest = addSlpRequest(addRoot(document.get(), parameters), parameters);
    std::uint32_t index = 0;
    for (const std::shared_ptr<RequestData>& request : queue) {
        addRequest(slpRequest, *request, ++index);
    }
    bodyPrefix.append("\r\n");
    appendDocument(document.get(), bodyPrefix);
    return 0;
}

} // namespace orvexd
