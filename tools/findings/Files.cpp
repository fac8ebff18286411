#include "findings/Files.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <fcntl.h>
#include <glib.h>
#include <string_view>
#include <unistd.h>
#include <vector>

namespace orvexd::findings {

namespace {

constexpr std::size_t kLargestFile = std::size_t{1} << 20U;
constexpr mode_t kPermissions = 07777;

/// ProtectHome= and PrivateTmp= of the unit.
constexpr std::array<std::string_view, 5> kHiddenFolders = {"/home", "/root", "/run/user", "/tmp",
                                                            "/var/tmp"};

constexpr int kMostLinks = 40; // as the kernel's

/// Names of a path in front of others that are still to go.
void putInFront(std::vector<std::string>& names, std::string_view path) {
    std::vector<std::string> first;
    while (!path.empty()) {
        const std::size_t end = std::min(path.find('/'), path.size());
        if (end > 0 && path.substr(0, end) != ".") {
            first.emplace_back(path.substr(0, end));
        }
        path.remove_prefix(std::min(end + 1, path.size()));
    }
    names.insert(names.begin(), first.begin(), first.end());
}

/// The folders that are passed on the way to a file, in their order, those of links, too.
std::vector<std::string> foldersOn(const std::string& path) {
    std::vector<std::string> folders;
    std::vector<std::string> names;
    std::string at; // "" is the root
    int links = 0;
    putInFront(names, path);
    while (!names.empty() && links <= kMostLinks) {
        folders.push_back(at);
        const std::string name = names.front();
        names.erase(names.begin());
        std::string next = at;
        if (name == "..") {
            next.resize(std::min(at.rfind('/'), at.size()));
        } else {
            next.append("/").append(name);
        }
        std::array<char, PATH_MAX> target{};
        const ssize_t size = readlink(next.c_str(), target.data(), target.size());
        if (size <= 0 || name == "..") {
            at = next;
            continue;
        }
        ++links;
        at = target.front() == '/' ? "" : at;
        putInFront(names, {target.data(), static_cast<std::size_t>(size)});
    }
    return folders;
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
    const std::vector<std::string> folders = foldersOn(path);
    const auto found = std::find_first_of(folders.begin(), folders.end(), kHiddenFolders.begin(),
                                          kHiddenFolders.end());
    return found == folders.end() ? std::string() : *found;
}

std::string closedFolderOf(const std::string& path) {
    const std::vector<std::string> folders = foldersOn(path);
    const auto found = std::find_if(folders.begin(), folders.end(), [](const std::string& folder) {
        return factsOf(folder + "/.").error == EACCES;
    });
    return found == folders.end() ? std::string() : *found;
}

} // namespace orvexd::findings
