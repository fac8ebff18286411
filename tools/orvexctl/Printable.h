#pragma once

#include <string>
#include <string_view>

namespace orvexd::ctl {

/// Text from outside as a terminal may get it: control and formatting characters and bytes that are
/// not UTF-8 are written as \xNN, so that a server's message cannot move the cursor or hide what
/// stands before it.
std::string printable(std::string_view text);

} // namespace orvexd::ctl
