#pragma once

#include "support/FreeWith.h"

#include <libxml/parser.h>
#include <libxml/tree.h>
#include <libxml/xmlerror.h>
#include <memory>

namespace orvexd {

/// A parsed or built document with all its nodes. Nodes and attributes point into it and end with
/// it.
using XmlDocument = std::unique_ptr<xmlDoc, FreeWith<xmlFreeDoc>>;

/// Frees text that libxml2 allocated. `xmlFree` is a variable, so it cannot be a template argument
/// of FreeWith.
struct XmlTextFree {
    void operator()(xmlChar* text) const noexcept { xmlFree(text); }
};
/// Text that libxml2 allocated for its caller; UTF-8, NUL-terminated.
using XmlText = std::unique_ptr<xmlChar, XmlTextFree>;

/// The text as plain characters, valid as long as its owner; null stays null.
inline const char* asText(const XmlText& text) noexcept {
    return reinterpret_cast<const char*>(text.get());
}

/// NUL-terminated characters as libxml2 takes them. libxml2 expects UTF-8 and takes other bytes as
/// they are.
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
