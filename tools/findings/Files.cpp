#include "findings/Files.h"

#include <array>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <glib.h>
#include <string_view>
#include <unistd.h>

namespace orvexd::findings {

namespace {

constexpr std::size_t kLargestFile = std::size_t{1} << 20U;
constexpr mode_t kPermissions = 07777;

/// ProtectHome= and PrivateTmp= of the unit.
constexpr std::array<std::string_view, 5> kHiddenFolders = {"/home", "/root", "/run/user", "/tmp",
                                                            "/var/tmp"};

std::string resolved(const std::string& path) {
    std::array<char, PATH_MAX> real{};
    return realpath(path.c_str(), real.data()) != nullptr ? real.data() : path;
}

} // namespace

bool FileFacts::isForOthers() const noexcept {
    return (mode & (S_IRGRP | S_IWGRP | S_IROTH | S_IWOTH)) != 0;
}

std::string FileFacts::modeText() const {
    std::array<char, 8> text{};
    (void)std::snprintf(text.data(), text.size(), "%04o", mode & kPermissions);
    return text.data();
}

std::string FileFacts::reason() const {
    return g_strerror(error);
}

FileFacts factsOf(const std::string& path) {
    struct stat status = {};
    if (stat(path.c_str(), &status) != 0) {
        return {errno};
    }
    return {0, status.st_mode, status.st_uid, status.st_mtim.tv_sec};
}

std::optional<std::string> textOf(const std::string& path) {
    // Opening a FIFO or a device must not hold the caller.
    // NOLINTNEXTLINE(cppcoreguidelines-pro-type-vararg): open is declared so
    const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    if (file < 0) {
        return std::nullopt;
    }
    std::string text;
    std::array<char, 4096> block{};
    ssize_t count = 0;
    while (text.size() <= kLargestFile && (count = read(file, block.data(), block.size())) > 0) {
        text.append(block.data(), static_cast<std::size_t>(count));
    }
    const int failure = count < 0 ? errno : 0;
    close(file);
    errno = failure;
    return failure == 0 ? std::optional(text) : std::nullopt;
}

std::string hiddenFolderOf(const std::string& path) {
    const std::string real = resolved(path);
    for (const std::string_view folder : kHiddenFolders) {
        if (real.starts_with(folder) && real.size() > folder.size() && real[folder.size()] == '/') {
            return std::string(folder);
        }
    }
    return {};
}

} // namespace orvexd::findings
