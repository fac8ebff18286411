#pragma once

#include "support/XmlHandles.h"

#include <string_view>

namespace orvexd {

/// Parses a document as `xmlReadMemory` without options does, but gives up when that is much more
/// work than the document is long: libxml2 compares each attribute of an element with all others,
/// searches all namespaces in force for each prefix, and copies what a declaration gives to every
/// element. A few hundred kilobytes would keep the worker busy for minutes, and nothing stops it.
/// @return null when the text is no document or when its limits, named in orvexd(8), are passed.
XmlDocument parseWithinLimits(std::string_view text);

} // namespace orvexd
