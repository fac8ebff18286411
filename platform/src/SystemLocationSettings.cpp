#include "SystemLocationSettings.h"

#include "PlatformFile.h"

#include <memory>

namespace trilba::core {

ISystemLocationSettings* ISystemLocationSettings::create() {
    return std::make_unique<SystemLocationSettings>().release();
}

bool SystemLocationSettings::isNetworkPositioningPermitted() {
    return PlatformFile::now()->networkPositioning.value_or(true);
}

bool SystemLocationSettings::isNetworkPositioningStated() {
    return PlatformFile::now()->networkPositioning.has_value();
}

bool SystemLocationSettings::isNetworkPositioningEnabled() {
    return isNetworkPositioningPermitted();
}

} // namespace trilba::core
