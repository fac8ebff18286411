#pragma once

#include "Settings.h"

#include <chrono>
#include <memory>
#include <string>

namespace trilba {

/// The file that describes the device. Any thread. The library mutex is not held while the file is
/// read.
class PlatformFile {
public:
    /// An editor may have truncated an empty file and not written it yet. For this long after its
    /// last modification such a file counts as half-written, and then as a file without keys.
    static constexpr std::chrono::milliseconds kEmptyCountsAsHalfWritten{200};

    struct Reading {
        std::shared_ptr<const Settings> settings; ///< never null
        bool lookAgain; ///< the file has just become empty: read it again in a moment
    };

    /// Environment variable TRILBA_PLATFORM_CONF, or /etc/trilba/platform.conf when that is unset
    /// or empty.
    static std::string path();

    /// Whether the environment names the file.
    static bool isNamed();

    /// What the file at `path` says now. Missing file: the defaults. A file that cannot be read or
    /// parsed: what this file said when it was last good; when it never was, the defaults with the
    /// file as the source.
    static Reading read(const std::string& path);
};

} // namespace trilba
