#pragma once

#include "core/DeliveryCode.h"
#include "core/IServiceEvents.h"
#include "core/MainLoopPost.h"
#include "support/MainLoopRecord.h"

#include <cstdint>
#include <memory>
#include <string>

namespace orvexd {

/// The five posts to the service. Any thread may issue them; they arrive on the main loop in the
/// order in which they were issued, never inside the handler that runs at that moment.
class ServicePosts {
public:
    explicit ServicePosts(IServiceEvents& service) noexcept : service_(service) {}

    void postConnectionStatus(std::uint32_t status) const;
    void postRequestData(std::uint32_t connectionId, std::uint32_t requestId) const;
    void postChunk(std::uint32_t connectionId, std::uint32_t requestId, DeliveryCode code,
                   std::string bytes) const;
    void postRequestFinished(std::uint32_t connectionId, std::uint32_t requestId) const;
    void postError(int code, std::string message, std::string keyList) const;

private:
    std::unique_ptr<MainLoopPost> makePost(MainLoopPost::Callback callback) const;

    IServiceEvents& service_;
    Lifetime lifetime_; ///< posts that outlive this object are dropped
};

} // namespace orvexd
