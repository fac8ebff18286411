#pragma once

#include <filesystem>
#include <vector>

namespace trilba {

/// A name in an existing directory. When the name appears, changes or goes, a path may lead to
/// something else.
struct WatchPoint {
    std::filesystem::path directory; ///< free of symbolic links
    std::filesystem::path name;

    bool operator==(const WatchPoint&) const = default;
};

/// The places to watch for `path`: every symbolic link on the way and the file itself, or the first
/// name on the way that is missing. All of their directories exist.
std::vector<WatchPoint> watchPoints(const std::filesystem::path& path);

} // namespace trilba
