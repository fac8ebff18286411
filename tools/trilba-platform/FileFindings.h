#pragma once

#include "FileCheck.h"

#include <string>
#include <vector>

namespace trilba::tool {

/// What a look at the platform file has found.
struct FileFindings {
    bool exists = false;
    std::vector<Finding> findings;
};

/// Reads and checks the file at `path`. A missing file is nothing to find fault with.
FileFindings findIn(const std::string& path, bool ignoresConnections);

} // namespace trilba::tool
