#pragma once

#include <string>
#include <string_view>

namespace trilba {

/// What os-release(5) tells about the system.
struct OsRelease {
    std::string platformId; ///< "ID-VERSION_ID", or "ID" of a system without versions
    std::string firmwareId; ///< `BUILD_ID`, otherwise `IMAGE_VERSION`, otherwise `VERSION_ID`

    /// Reads the text of such a file.
    static OsRelease parse(std::string_view text);

    /// The one of this system, read once. Any thread.
    static const OsRelease& ofThisSystem();
};

} // namespace trilba
