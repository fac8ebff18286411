#pragma once

#include "http/IExchangeOwner.h"
#include "request/RequestData.h"

#include <cstdint>
#include <functional>
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

/// The owner of an exchange that writes down what it is told, a line for each call.
class RecordingOwner : public IExchangeOwner {
public:
    std::string proxyForServer() override {
        if (proxyFault != 0) {
            throw proxyFault;
        }
        return proxy;
    }

    void postRequestData(std::uint32_t connectionId, std::uint32_t requestId) override {
        log.push_back("request data " + requestKey(connectionId, requestId));
        if (onRequestData) {
            onRequestData(connectionId, requestId);
        }
    }

    void announceConnectionStatus() override {
        log.emplace_back("announce status");
        if (onAnnouncement) {
            onAnnouncement();
        }
    }

    void onExchangeFailed(int code, const std::string& errorText,
                          const std::string& keyList) override {
        log.push_back("failed " + std::to_string(code) + " [" + errorText + "] [" + keyList + "]");
    }

    void onExchangeFinished() override {
        log.emplace_back("finished");
        if (onFinished) {
            onFinished();
        }
    }

    std::string proxy;
    int proxyFault = 0; ///< thrown instead of an answer
    std::vector<std::string> log;
    std::function<void(std::uint32_t, std::uint32_t)> onRequestData;
    std::function<void()> onAnnouncement;
    std::function<void()> onFinished;
};

} // namespace orvexd::test
