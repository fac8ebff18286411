#pragma once

#include "trilba/core/ISystemLocationSettings.h"

namespace trilba::core {

/// The choices in the `[Location]` group of the platform file.
class SystemLocationSettings final : public ISystemLocationSettings {
public:
    [[nodiscard]] bool isNetworkPositioningPermitted() override;
    [[nodiscard]] bool isNetworkPositioningStated() override;
    [[nodiscard]] bool isNetworkPositioningEnabled() override;
};

} // namespace trilba::core
