#include "DirectoryEvents.h"

#include <array>
#include <cstring>
#include <glib-unix.h>
#include <sys/inotify.h>

namespace trilba {

namespace fs = std::filesystem;

namespace {

constexpr std::uint32_t kNames =
    IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_MODIFY | IN_CLOSE_WRITE | IN_ATTRIB;
constexpr std::uint32_t kItself = IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;
constexpr std::uint32_t kGone = IN_DELETE_SELF | IN_MOVE_SELF | IN_UNMOUNT | IN_IGNORED;

} // namespace

void DirectoryEvents::watch(const std::vector<fs::path>& directories) {
    source_.reset();
    directories_.clear();
    queue_ = Descriptor(inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
    if (!queue_) {
        return;
    }
    for (const fs::path& directory : directories) {
        const int watch = inotify_add_watch(queue_.get(), directory.c_str(), kNames | kItself);
        if (watch >= 0) {
            directories_[watch] = directory;
        }
    }
    const auto onReadable = +[](gint, GIOCondition, gpointer self) noexcept -> gboolean {
        static_cast<DirectoryEvents*>(self)->read();
        return G_SOURCE_CONTINUE;
    };
    source_.reset(g_unix_fd_source_new(queue_.get(), G_IO_IN));
    g_source_set_callback(source_.get(), G_SOURCE_FUNC(onReadable), this, nullptr);
    g_source_attach(source_.get(), nullptr);
}

/// Reads as much as fits into the buffer. The main loop calls again for the rest.
void DirectoryEvents::read() {
    std::array<char, 4096> buffer{};
    const ssize_t size = ::read(queue_.get(), buffer.data(), buffer.size());
    std::size_t position = 0;
    while (size > 0 && position < static_cast<std::size_t>(size)) {
        inotify_event event{};
        std::memcpy(&event, buffer.data() + position, sizeof event);
        const char* name = buffer.data() + position + sizeof event; // ends with NUL when len > 0
        position += sizeof event + event.len;
        if ((event.mask & IN_Q_OVERFLOW) != 0) {
            // Events were lost: any name may have changed, and any directory may be a new one.
            for (const auto& [watch, directory] : directories_) {
                handler_(directory);
            }
            continue;
        }
        const auto directory = directories_.find(event.wd);
        if (directory == directories_.end()) {
            continue;
        }
        const bool isGone = (event.mask & kGone) != 0;
        handler_(isGone || event.len == 0 ? directory->second : directory->second / name);
    }
}

} // namespace trilba
