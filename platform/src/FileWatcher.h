#pragma once

#include "DirectoryEvents.h"
#include "Handles.h"
#include "WatchPoints.h"

#include <chrono>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

namespace trilba {

/// Tells when a file may have changed: written in place, replaced, created or removed, also
/// together with its directory. It consists of sources on the default main context, and has no
/// timer while nothing happens.
///
/// Several events close to each other are told once, when they have ended. So a file that is just
/// being rewritten is seldom read. A change is told at the latest `kLongestDelay` after it began.
///
/// Use it only on the thread that runs the default main loop.
class FileWatcher {
public:
    static constexpr std::chrono::milliseconds kQuiet{50};         ///< events have ceased
    static constexpr std::chrono::milliseconds kLongestDelay{300}; ///< ... or keep coming

    /// Begins to watch. `onChange` runs on the default main context and may destroy the watcher.
    FileWatcher(std::string path, std::function<void()> onChange);
    FileWatcher(const FileWatcher&) = delete;
    FileWatcher& operator=(const FileWatcher&) = delete;
    ~FileWatcher() = default;

    /// Calls `onChange` once after `delay`, or with the next change if that comes earlier.
    void lookAgainIn(std::chrono::milliseconds delay);

private:
    void watchAgain();
    void onEvent(const std::filesystem::path& changed);
    void tellAt(gint64 time);
    void tell();

    std::string path_;
    std::function<void()> onChange_;
    std::vector<WatchPoint> points_;
    DirectoryEvents events_;     // of the directories of points_
    bool directoryGone_ = false; // a watched directory was removed; another may have its name now
    gint64 latest_ = 0;          // when to tell at the latest, as timer_; 0: no event is waiting
    Source timer_;               // ready time in µs of the monotonic clock; null: nothing to tell
};

} // namespace trilba
