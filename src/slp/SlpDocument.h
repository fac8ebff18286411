#pragma once

#include "slp/ResponseHead.h"
#include "support/XmlHandles.h"

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace orvexd {

/// Content ids of the response parts by the number that their request has in the SLP message.
using ResultMap = std::map<int, std::vector<std::string>>;

/// Parses the bytes of an SLP document; null when they are none. Nothing is printed.
XmlDocument readSlpDocument(std::string_view text);

/// Adds what the document says to `results`.
/// @param root root element of the document, may be null.
/// @return what is wrong with the document, if anything; the results in front of the fault have
/// been added then.
std::optional<SlpError> parseSlpResponse(xmlNode* root, ResultMap& results);

} // namespace orvexd
