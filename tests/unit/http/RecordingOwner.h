#pragma once

#include "http/IExchangeOwner.h"

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace orvexd::test {

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
        log.push_back("request data " + std::to_string(connectionId) + ":" +
                      std::to_string(requestId));
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

    void postMemoryShort() override { log.emplace_back("memory short"); }

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
