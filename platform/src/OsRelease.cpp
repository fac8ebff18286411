#include "OsRelease.h"

#include "Handles.h"

#include <array>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <sstream>

namespace trilba {

namespace {

using Values = std::map<std::string, std::string, std::less<>>;

/// A value as a shell reads it: quotes and backslashes are taken away.
std::string unquoted(const std::string& value) {
    const Text text(g_shell_unquote(value.c_str(), nullptr));
    return text ? text.get() : std::string();
}

Values valuesOf(std::string_view text) {
    Values values;
    std::istringstream lines{std::string(text)};
    for (std::string line; std::getline(lines, line);) {
        const auto equals = line.find('=');
        if (equals != std::string::npos && !line.starts_with('#')) {
            values[line.substr(0, equals)] = unquoted(line.substr(equals + 1));
        }
    }
    return values;
}

std::string firstOf(const Values& values, std::initializer_list<const char*> names) {
    for (const char* name : names) {
        const auto found = values.find(name);
        if (found != values.end() && !found->second.empty()) {
            return found->second;
        }
    }
    return {};
}

OsRelease readFromSystem() {
    for (const char* path : std::array{"/etc/os-release", "/usr/lib/os-release"}) {
        if (std::ifstream file(path); file) {
            const std::string text{std::istreambuf_iterator<char>(file), {}};
            return OsRelease::parse(text);
        }
    }
    return OsRelease::parse("");
}

} // namespace

OsRelease OsRelease::parse(std::string_view text) {
    const Values values = valuesOf(text);
    std::string platform = firstOf(values, {"ID"});
    platform = platform.empty() ? "linux" : platform; // as os-release(5) has it
    const std::string version = firstOf(values, {"VERSION_ID"});
    return {version.empty() ? platform : platform + "-" + version,
            firstOf(values, {"BUILD_ID", "IMAGE_VERSION", "VERSION_ID"})};
}

const OsRelease& OsRelease::ofThisSystem() {
    // Never destroyed: a thread may still ask while the process ends.
    static const OsRelease& instance =
        *std::make_unique<const OsRelease>(readFromSystem()).release();
    return instance;
}

} // namespace trilba
