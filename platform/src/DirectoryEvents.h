#pragma once

#include "Handles.h"

#include <filesystem>
#include <functional>
#include <map>
#include <utility>
#include <vector>

namespace trilba {

/// Reports what happens to the names in some directories, by inotify(7). It is a source on the
/// default main context, which wakes nobody while nothing happens; there is no thread. Use it only
/// on the thread that runs that context.
class DirectoryEvents {
public:
    /// Is called with the name that was made, changed, moved or removed. It is called with the
    /// directory itself when that was changed or removed, or when events were lost. It must not
    /// call `watch` or destroy the object.
    using Handler = std::function<void(const std::filesystem::path& changed)>;

    explicit DirectoryEvents(Handler handler) : handler_(std::move(handler)) {}
    DirectoryEvents(const DirectoryEvents&) = delete;
    DirectoryEvents& operator=(const DirectoryEvents&) = delete;
    ~DirectoryEvents() = default;

    /// Watches exactly these directories from now on. Events that are not read yet are dropped. No
    /// reports come of a directory that does not exist, or for which the system has no watch left.
    void watch(const std::vector<std::filesystem::path>& directories);

private:
    void read();

    Handler handler_;
    std::map<int, std::filesystem::path> directories_; // by watch descriptor
    Descriptor queue_;
    Source source_; // goes before the queue that it polls
};

} // namespace trilba
