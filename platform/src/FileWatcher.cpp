#include "FileWatcher.h"

#include <algorithm>
#include <utility>

namespace trilba {

namespace fs = std::filesystem;

namespace {

constexpr int kMostAttempts = 8; // to find the way to the file unchanged while setting watches

gint64 microseconds(std::chrono::microseconds span) {
    return span.count();
}

} // namespace

FileWatcher::FileWatcher(std::string path, std::function<void()> onChange)
    : path_(std::move(path)),
      onChange_(std::move(onChange)),
      events_([this](const fs::path& changed) { onEvent(changed); }) {
    watchAgain();
}

void FileWatcher::lookAgainIn(std::chrono::milliseconds delay) {
    tellAt(g_get_monotonic_time() + microseconds(delay));
}

/// Sets the watches for the path to the file as it is now. It looks at the path twice, because a
/// directory may appear between the first look and the watch.
void FileWatcher::watchAgain() {
    for (int attempt = 0; attempt < kMostAttempts; ++attempt) {
        auto points = watchPoints(path_);
        if (points == points_ && !directoryGone_) {
            return;
        }
        points_ = std::move(points);
        directoryGone_ = false;
        std::vector<fs::path> directories;
        for (const WatchPoint& point : points_) {
            directories.push_back(point.directory);
        }
        events_.watch(directories);
    }
}

void FileWatcher::onEvent(const fs::path& changed) {
    const auto isDirectory = [&](const WatchPoint& p) { return changed == p.directory; };
    const auto isName = [&](const WatchPoint& p) { return changed == p.directory / p.name; };
    const bool directory = std::any_of(points_.begin(), points_.end(), isDirectory);
    if (!directory && std::none_of(points_.begin(), points_.end(), isName)) {
        return;
    }
    directoryGone_ = directoryGone_ || directory;
    const gint64 now = g_get_monotonic_time();
    if (latest_ == 0) {
        latest_ = now + microseconds(kLongestDelay);
    }
    tellAt(std::min(now + microseconds(kQuiet), latest_));
}

void FileWatcher::tellAt(gint64 time) {
    if (!timer_) {
        const auto onTime = +[](gpointer self) noexcept -> gboolean {
            static_cast<FileWatcher*>(self)->tell();
            return G_SOURCE_REMOVE;
        };
        timer_.reset(g_timeout_source_new(0));
        g_source_set_callback(timer_.get(), onTime, this, nullptr);
        g_source_attach(timer_.get(), nullptr);
    }
    g_source_set_ready_time(timer_.get(), time);
}

void FileWatcher::tell() {
    // The call may destroy the watcher. An event during the call starts a timer of its own.
    const Source ended = std::move(timer_);
    const auto onChange = onChange_;
    latest_ = 0;
    watchAgain();
    onChange();
}

} // namespace trilba
