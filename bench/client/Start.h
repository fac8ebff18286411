#pragma once

#include "Bus.h"

#include <string>
#include <vector>

namespace orvexd::bench {

/// Starts a program that takes the daemon's name, and ends it again.
/// @return from just before exec to the bus's word that the name has an owner.
Clock::duration timeStart(const Bus& bus, const std::vector<std::string>& command);

} // namespace orvexd::bench
