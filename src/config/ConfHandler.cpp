#include "config/ConfHandler.h"

#include "support/XmlHandles.h"

#include <unistd.h>

namespace orvexd {

namespace {

std::string content(xmlNode* node) {
    const XmlText text(xmlNodeGetContent(node));
    return text ? std::string(asText(text)) : std::string();
}

bool isNamed(const xmlNode* node, const char* name) {
    return node != nullptr && std::string(nodeName(*node)) == name;
}

void storeItem(xmlNode* item) {
    if (!isNamed(item, "item")) {
        throw std::string("Parse XML error -- malformed document, invalid tag-name: ") +
            nodeName(*item);
    }
    xmlNode* key = xmlFirstElementChild(item);
    xmlNode* value = key != nullptr ? xmlNextElementSibling(key) : nullptr;
    if (!isNamed(key, "key") || !isNamed(value, "value")) {
        throw std::string("Parse XML error -- malformed document key or value not found from "
                          "item-node: ") +
            nodeName(*item);
    }
    ConfHandler::setParameter(content(key), content(value));
}

} // namespace

Parameters& ConfHandler::confItems() {
    static Parameters items;
    return items;
}

std::string ConfHandler::get(const std::string& key) {
    return confItems().get(key);
}

void ConfHandler::setParameter(const std::string& key, const std::string& value) {
    confItems().set(key, value);
}

void ConfHandler::load(const std::string& path, const std::string& rootTag) {
    if (access(path.c_str(), F_OK) != 0) {
        return;
    }
    const XmlDocument document(xmlReadFile(path.c_str(), nullptr, 0));
    if (!document) {
        return;
    }
    xmlNode* root = xmlDocGetRootElement(document.get());
    if (!isNamed(root, rootTag.c_str())) {
        throw "Invalid root tag name: " + path;
    }
    for (xmlNode* item = xmlFirstElementChild(root); item != nullptr;
         item = xmlNextElementSibling(item)) {
        storeItem(item);
    }
}

} // namespace orvexd
