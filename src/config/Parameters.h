#pragma once

#include "config/MapWrapper.h"

#include <string>

namespace orvexd {

/// Settings by name, as the configuration file and the class maps hold them.
using Parameters = MapWrapper<std::string, std::string>;

} // namespace orvexd
