#pragma once

#include <filesystem>
#include <vector>

namespace trilba {

/// A name in an existing directory whose appearing, changing or going may change what is found
/// under a path.
struct WatchPoint {
    std::filesystem::path directory; ///< free of symbolic links
    std::filesystem::path name;

    bool operator==(const WatchPoint&) const = default;
};

/// The places to watch for `path`: every symbolic link on the way, and the file itself, or the
/// first thing that is missing on the way to it. All of these directories exist.
std::vector<WatchPoint> watchPoints(const std::filesystem::path& path);

} // namespace trilba
