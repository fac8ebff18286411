#include "FileWatcher.h"

#include <algorithm>
#include <utility>

namespace trilba {

namespace fs = std::filesystem;

namespace {

// GIO withholds repeated changes of a file for this long (ms); less than the quiet time, so that a
// file that is still being written does not look quiet.
constexpr int kRateLimitMs = 20;
constexpr int kMostAttempts = 8; // to find the way to the file unchanged while setting watches

gint64 microseconds(std::chrono::microseconds span) {
    return span.count();
}

/// GIO delivers to the thread-default context, which a caller may have changed.
class DefaultContextScope {
public:
    DefaultContextScope() { g_main_context_push_thread_default(nullptr); }
    DefaultContextScope(const DefaultContextScope&) = delete;
    DefaultContextScope& operator=(const DefaultContextScope&) = delete;
    DefaultContextScope(DefaultContextScope&&) = delete;
    DefaultContextScope& operator=(DefaultContextScope&&) = delete;
    ~DefaultContextScope() { g_main_context_pop_thread_default(nullptr); }
};

Monitor monitorOf(const fs::path& directory) {
    const DefaultContextScope scope;
    // The local file system by name: the default one may be an extension that talks on a bus.
    const File file(g_vfs_get_file_for_path(g_vfs_get_local(), directory.c_str()));
    return Monitor(g_file_monitor_directory(file.get(), G_FILE_MONITOR_NONE, nullptr, nullptr));
}

} // namespace

FileWatcher::Watch::Watch(const fs::path& directory, FileWatcher& owner)
    : monitor_(monitorOf(directory)) {
    if (!monitor_)
        return;
    g_file_monitor_set_rate_limit(monitor_.get(), kRateLimitMs);
    // Without the move flag a rename is told as two events with one file each: no second file.
    const auto onChanged =
        +[](GFileMonitor*, GFile* file, GFile*, GFileMonitorEvent, gpointer self) noexcept {
            static_cast<FileWatcher*>(self)->onEvent(file);
        };
    handler_ = g_signal_connect(monitor_.get(), "changed", G_CALLBACK(onChanged), &owner);
}

FileWatcher::Watch::~Watch() {
    if (!monitor_)
        return;
    g_signal_handler_disconnect(monitor_.get(), handler_);
    g_file_monitor_cancel(monitor_.get());
}

FileWatcher::FileWatcher(std::string path, std::function<void()> onChange)
    : path_(std::move(path)), onChange_(std::move(onChange)) {
    watchAgain();
}

void FileWatcher::lookAgainIn(std::chrono::milliseconds delay) {
    tellAt(g_get_monotonic_time() + microseconds(delay));
}

/// Sets the watches for the way to the file as it is now. A directory may appear between the look
/// and the watch, hence the second look.
void FileWatcher::watchAgain() {
    for (int attempt = 0; attempt < kMostAttempts; ++attempt) {
        auto points = watchPoints(path_);
        if (points == points_ && !directoryGone_)
            return;
        watches_.clear();
        points_ = std::move(points);
        directoryGone_ = false;
        for (const WatchPoint& point : points_)
            watches_.emplace_back(point.directory, *this);
    }
}

void FileWatcher::onEvent(GFile* file) {
    const fs::path changed(g_file_peek_path(file));
    const auto isDirectory = [&](const WatchPoint& p) { return changed == p.directory; };
    const auto isName = [&](const WatchPoint& p) { return changed == p.directory / p.name; };
    const bool directory = std::any_of(points_.begin(), points_.end(), isDirectory);
    if (!directory && std::none_of(points_.begin(), points_.end(), isName))
        return;
    directoryGone_ = directoryGone_ || directory;
    const gint64 now = g_get_monotonic_time();
    if (latest_ == 0)
        latest_ = now + microseconds(kLongestDelay);
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
    // The watcher may be gone when the call returns; an event during it starts a timer of its own.
    const Source ended = std::move(timer_);
    const auto onChange = onChange_;
    latest_ = 0;
    watchAgain();
    onChange();
}

} // namespace trilba
