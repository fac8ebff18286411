#pragma once

#include "Description.h"
#include "FileFindings.h"

#include <string>

namespace trilba::tool {

/// Everything that is printed at once.
struct Report {
    Description description;
    FileFindings file;

    /// For people, of several lines.
    [[nodiscard]] std::string text() const;

    /// For programs, of one line.
    [[nodiscard]] std::string json() const;

    /// 0 when nothing is wrong, 1 after warnings, 2 after faults.
    [[nodiscard]] int status() const;
};

} // namespace trilba::tool
