#pragma once

#include "http/RecordingOwner.h"
#include "request/RequestData.h"

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace orvexd::test {

using RequestPointer = std::shared_ptr<RequestData>;
using Queue = std::vector<RequestPointer>;

struct PartKind {
    std::string type = "position";
    std::string transferEncoding = "binary";
    std::string contentType = "application/octet-stream";
};

/// A request of connection 1, as the gateway core makes it.
inline RequestPointer makeRequest(std::uint32_t requestId, bool prepared = true,
                                  const PartKind& kind = {}) {
    auto parameters = std::make_shared<ConnectionParameters>();
    parameters->elementName = "Element";
    parameters->type = kind.type;
    parameters->version = "1.0";
    parameters->transferEncoding = kind.transferEncoding;
    parameters->contentType = kind.contentType;
    parameters->chunkSize = 1024;
    return std::make_shared<RequestData>(1, requestId, prepared, std::move(parameters));
}

/// The lines in front of a part's data, as they stand on the wire.
inline std::string partHead(const std::string& boundary, const std::string& contentId,
                            const PartKind& kind = {}) {
    return "\r\n--" + boundary + "\r\nContent-Type: " + kind.contentType +
           "\r\nContent-Transfer-Encoding: " + kind.transferEncoding +
           "\r\nContent-Id: " + contentId + "\r\n\r\n";
}

} // namespace orvexd::test
