#pragma once

#include "Settings.h"

#include <string>
#include <string_view>
#include <vector>

namespace trilba {

/// Something about one line of a platform file.
struct Finding {
    int line;     ///< counts from 1; 0: the file as a whole
    bool isFault; ///< the library does not use the file; otherwise it ignores or misses something
    std::string text;
};

/// What is wrong with the text of a platform file, in the order of its lines. There is a fault if,
/// and only if, `parseSettings` does not use the text.
/// @param ignoresConnections  another source tells the connections
std::vector<Finding> checkFile(std::string_view text, bool ignoresConnections);

} // namespace trilba
