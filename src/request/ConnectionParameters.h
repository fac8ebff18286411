#pragma once

#include <cstdint>
#include <string>

namespace orvexd {

/// What a client gave when it connected. All requests of the connection share one record, which
/// nobody changes once it is made, so any thread may read it.
///
/// The five strings are the client's bytes as they came. They may hold anything, zero bytes and
/// line breaks included, and go into the message unchecked.
struct ConnectionParameters {
    std::string elementName;      ///< element that stands for a request in the SLP message
    std::string type;             ///< "type" attribute of that element
    std::string version;          ///< "version" attribute of that element
    std::string transferEncoding; ///< Content-Transfer-Encoding of the request's part
    std::string contentType;      ///< Content-Type of the request's part
    std::uint32_t chunkSize = 0;  ///< largest number of response bytes in one delivery
};

} // namespace orvexd
