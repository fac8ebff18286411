#pragma once

#include "Handles.h"

#include <filesystem>
#include <functional>
#include <map>
#include <utility>
#include <vector>

namespace trilba {

/// Reports what happens to the names in some directories, by inotify(7): a source on the default
/// main context that wakes nobody while nothing happens, and no thread. To be used on the thread
/// that runs that context only.
class DirectoryEvents {
public:
    /// The name that was made, changed, moved or removed; the directory itself when it was changed
    /// or has gone, or when events were lost. It must not call `watch` or destroy the object.
    using Handler = std::function<void(const std::filesystem::path& changed)>;

    explicit DirectoryEvents(Handler handler) : handler_(std::move(handler)) {}
    DirectoryEvents(const DirectoryEvents&) = delete;
    DirectoryEvents& operator=(const DirectoryEvents&) = delete;
    ~DirectoryEvents() = default;

    /// Watches exactly these from here on; events that are still to be read are forgotten. A
    /// directory that does not exist, or that the system has no watch left for, stays without
    /// reports.
    void watch(const std::vector<std::filesystem::path>& directories);

private:
    void read();

    Handler handler_;
    std::map<int, std::filesystem::path> directories_; // by watch descriptor
    Descriptor queue_;
    Source source_; // goes before the queue that it polls
};

} // namespace trilba
