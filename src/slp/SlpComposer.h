#pragma once

#include "config/MapWrapper.h"

#include <memory>
#include <span>
#include <string>
#include <string_view>

namespace orvexd {

class RequestData;

/// Appends the first part of a request body to `bodyPrefix`: its delimiter, its header lines and
/// the XML document that describes the device and lists the exchange's requests. Numbers the
/// requests from 1 in queue order (message index) and names their parts "part1", "part2", …
/// (content id).
///
/// Names and values go into the document as they are; nothing is validated. Line breaks are bare
/// line feeds here and become CR LF on the wire. Worker thread.
/// @param parameters settings that replace the built-in values, and the device's identity.
/// @return always 0.
int composeSlpHeaderPart(std::string_view boundary,
                         std::span<const std::shared_ptr<RequestData>> queue,
                         const Parameters& parameters, std::string& bodyPrefix);

} // namespace orvexd
