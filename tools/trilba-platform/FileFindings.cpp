#include "FileFindings.h"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>

namespace trilba::tool {

namespace {

namespace fs = std::filesystem;

constexpr std::uintmax_t kLargestFile = 1024UL * 1024; // as the library has it

FileFindings unusable(const std::string& why) {
    return {true, {{0, true, why}}};
}

} // namespace

FileFindings findIn(const std::string& path, bool ignoresConnections) {
    std::error_code error;
    const fs::file_status status = fs::status(path, error);
    if (status.type() == fs::file_type::not_found) {
        return {};
    }
    if (error) {
        return unusable(error.message());
    }
    if (status.type() != fs::file_type::regular) {
        return unusable("is not a regular file");
    }
    if (fs::file_size(path, error) > kLargestFile) {
        return unusable("is larger than 1 MiB");
    }
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        return unusable(std::string("cannot be read: ") + std::strerror(errno));
    }
    const std::string text{std::istreambuf_iterator<char>(file), {}};
    return {true, checkFile(text, ignoresConnections)};
}

} // namespace trilba::tool
