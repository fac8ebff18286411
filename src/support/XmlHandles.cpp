#include "support/XmlHandles.h"

#include <libxml/xmlerror.h>

namespace orvexd {

namespace {

// libxml2 prescribes a C variadic function here.
void ignoreText(void* /*context*/, const char* /*format*/, ...) {} // NOLINT(cert-dcl50-cpp)

void ignoreError(void* /*context*/, xmlError* /*error*/) {}

} // namespace

void silenceXmlErrors() noexcept {
    xmlSetGenericErrorFunc(nullptr, ignoreText);
    xmlSetStructuredErrorFunc(nullptr, ignoreError);
}

} // namespace orvexd
