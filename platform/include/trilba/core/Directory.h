#pragma once

#include "trilba/Export.h"

#include <string>

namespace trilba::core {

/// The two directories of a positioning daemon, one of each per process. Paths are kept exactly as
/// given: not resolved, not checked, no slash added or taken away. Any thread; answers are copies.
class TRILBA_API Directory {
public:
    /// Replaces the directory of the files that come with the installation.
    static void setPreinstalledFilesPath(const std::string& path);

    /// Fills `path`; before any set with the default that the library was built with
    /// (`ORVEXD_PREINST_DIR`).
    static void getPreinstalledFilesPath(std::string& path);
    [[nodiscard]] static std::string getPreinstalledFilesPath();

    /// Replaces the directory for files that the process writes.
    /// @param create  true: make the directory, and the parents it lacks, as far as the umask
    ///                allows; false: only remember the path.
    /// @return false when the directory was to be made and could not be: nothing is changed then.
    static bool setDefaultStoragePath(const std::string& path, bool create);

    /// Fills `path`; before any set with the default that the library was built with
    /// (`ORVEXD_STORAGE_DIR`).
    /// @param isSet  becomes true when `setDefaultStoragePath` chose the path, false for the
    /// default.
    static void getDefaultStoragePath(std::string& path, bool& isSet);
};

} // namespace trilba::core
