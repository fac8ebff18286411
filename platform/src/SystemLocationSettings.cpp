#include "SystemLocationSettings.h"

#include "Answers.h"

#include <memory>

namespace trilba::core {

ISystemLocationSettings* ISystemLocationSettings::create() {
    return std::make_unique<SystemLocationSettings>().release();
}

bool SystemLocationSettings::isNetworkPositioningPermitted() {
    return answersNow()->networkPositioning.value_or(true);
}

bool SystemLocationSettings::isNetworkPositioningStated() {
    return answersNow()->networkPositioning.has_value();
}

bool SystemLocationSettings::isNetworkPositioningEnabled() {
    return isNetworkPositioningPermitted();
}

} // namespace trilba::core
