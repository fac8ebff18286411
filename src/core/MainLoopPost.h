#pragma once

#include "core/IServiceEvents.h"
#include "support/MainLoopRecord.h"

#include <cstdint>
#include <string>
#include <utility>

namespace orvexd {

/// The record in which a result travels to the main loop, whichever thread produced it. Fields that
/// a kind does not use stay zero or empty.
class MainLoopPost : public MainLoopRecord {
public:
    using Callback = void (*)(IServiceEvents& service, const MainLoopPost& post);

    MainLoopPost(IServiceEvents& service, Lifetime::Watch serviceAlive, Callback callback) noexcept
        : service_(service), alive_(std::move(serviceAlive)), callback_(callback) {}

    /// Calls the service, unless it is gone.
    void run() override {
        if (!alive_.expired()) {
            callback_(service_, *this);
        }
    }

    std::uint32_t value1 = 0; ///< connection id, status value or error code
    std::uint32_t value2 = 0; ///< request id
    std::uint32_t value3 = 0; ///< delivery code
    std::string text1;        ///< chunk bytes or error message
    std::string text2;        ///< the error's request keys

private:
    IServiceEvents& service_;
    Lifetime::Watch alive_;
    Callback callback_;
};

} // namespace orvexd
