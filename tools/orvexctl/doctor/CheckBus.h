#pragma once

#include "doctor/Facts.h"
#include "findings/Finding.h"

namespace orvexd::ctl {

/// The bus and the service: policy and activation file, the group, whether this user may call, who
/// owns the name, how the unit is and how it ended.
void checkBus(const Facts& facts, const findings::Checked& report);

} // namespace orvexd::ctl
