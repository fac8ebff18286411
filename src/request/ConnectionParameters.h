#pragma once

#include "support/Statistics.h"

#include <cstdint>
#include <string>

namespace orvexd {

/// What a client gave when it connected. All requests of the connection share one record, which
/// nobody changes once it is made. The five strings are the client's bytes as they came.
struct ConnectionParameters {
    std::string elementName;      ///< element that stands for a request in the SLP message
    std::string type;             ///< "type" attribute of that element
    std::string version;          ///< "version" attribute of that element
    std::string transferEncoding; ///< Content-Transfer-Encoding of the request's part
    std::string contentType;      ///< Content-Type of the request's part
    std::uint32_t chunkSize = 0;  ///< largest number of response bytes in one delivery
    [[no_unique_address]] Counted<Statistic::Connections> counted = {};
};

} // namespace orvexd
