#pragma once

#include "support/FreeWith.h"

#include <libxml/parser.h>
#include <libxml/tree.h>
#include <libxml/xmlerror.h>
#include <memory>

namespace orvexd {

using XmlDocument = std::unique_ptr<xmlDoc, FreeWith<xmlFreeDoc>>;

/// Frees text that libxml2 allocated; `xmlFree` is a variable and thus no template argument.
struct XmlTextFree {
    void operator()(xmlChar* text) const noexcept { xmlFree(text); }
};
using XmlText = std::unique_ptr<xmlChar, XmlTextFree>;

/// The attribute or content text as plain characters; null stays null.
inline const char* asText(const XmlText& text) noexcept {
    return reinterpret_cast<const char*>(text.get());
}

/// Plain characters as libxml2 takes them.
inline const xmlChar* asXml(const char* text) noexcept {
    return reinterpret_cast<const xmlChar*>(text);
}

/// A node's local name as plain characters; never null for an element.
inline const char* nodeName(const xmlNode& node) noexcept {
    return reinterpret_cast<const char*>(node.name);
}

// libxml2 prescribes a C variadic function here.
inline void ignoreXmlText(void* /*context*/, const char* /*format*/, ...) {
} // NOLINT(cert-dcl50-cpp)

inline void ignoreXmlError(void* /*context*/, xmlError* /*error*/) {}

/// Keeps libxml2 from printing on standard error. The handlers are per thread (libxml2, "Thread
/// safety"), so every thread that parses or builds documents calls this once.
inline void silenceXmlErrors() noexcept {
    xmlSetGenericErrorFunc(nullptr, &ignoreXmlText);
    xmlSetStructuredErrorFunc(nullptr, &ignoreXmlError);
}

} // namespace orvexd
