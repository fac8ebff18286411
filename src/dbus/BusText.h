#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace orvexd {

/// `text` as the bus takes it: libdbus ends the process on a string that is not valid UTF-8. The
/// text ends at its first NUL, and each byte that is no UTF-8 becomes U+FFFD; of the result the
/// characters that fit into 14 MiB are left. Valid texts up to that size stay as they are.
std::string toBusText(const std::string& text);

/// Splits a blank-separated list into lists of at most 16 MiB, so that each fits into one message;
/// a shorter list, an empty one included, is the only element.
std::vector<std::string> splitKeyList(const std::string& keys);

} // namespace orvexd
