#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <sys/stat.h>
#include <sys/types.h>

namespace orvexd::findings {

/// What stat(2) says about a file, links followed.
struct FileFacts {
    int error = 0; ///< errno of stat; 0 when it worked
    mode_t mode = 0;
    uid_t owner = 0;
    std::int64_t modified = 0; ///< seconds of the wall clock

    [[nodiscard]] bool exists() const noexcept { return error == 0; }
    [[nodiscard]] bool isRegular() const noexcept { return S_ISREG(mode); }
    /// Whether group or others may read or write it.
    [[nodiscard]] bool isForOthers() const noexcept;
    /// Whether everybody may read it.
    [[nodiscard]] bool isForAll() const noexcept { return (mode & S_IROTH) != 0; }
    /// As four octal digits.
    [[nodiscard]] std::string modeText() const;
    /// Why there are no facts.
    [[nodiscard]] std::string reason() const;
};

[[nodiscard]] FileFacts factsOf(const std::string& path);

/// The whole of a regular file of up to 1 MiB; nothing when it cannot be read, with errno set.
[[nodiscard]] std::optional<std::string> textOf(const std::string& path);

/// The folder on the way to `path` that the service's sandbox hides; empty for none. A link on the
/// way has a way of its own.
[[nodiscard]] std::string hiddenFolderOf(const std::string& path);

/// The folder on the way to `path` that this process may not pass; empty for none.
[[nodiscard]] std::string closedFolderOf(const std::string& path);

} // namespace orvexd::findings
