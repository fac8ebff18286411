#include "main/CommandLine.h"

#include <span>
#include <string_view>
#include <trilba/core/Directory.h>
#include <unistd.h>

namespace orvexd {

using trilba::core::Directory;

namespace {

/// Goes to the background; a daemon that cannot serves as well.
void detach() {
    [[maybe_unused]] const int ignored = daemon(0, 0);
}

} // namespace

StartUp applyCommandLine(int argc, char** argv) {
    const std::span<char*> words(argv, argc > 0 ? static_cast<std::size_t>(argc) : 0);
    for (auto word = words.begin(); word != words.end() && *word != nullptr; ++word) {
        const std::string_view option(*word);
        if (option == "--version" || option == "-v") {
            return StartUp::PrintVersion;
        }
        if (option == "--daemon" || option == "-D") {
            detach();
            continue;
        }
        const bool preinstalled = option == "--preinst-dir";
        if (!preinstalled && option != "--storage-dir") {
            continue;
        }
        if (++word == words.end() || *word == nullptr) {
            break;
        }
        if (preinstalled) {
            Directory::setPreinstalledFilesPath(*word);
        } else {
            Directory::setDefaultStoragePath(*word, false);
        }
    }
    return StartUp::Serve;
}

} // namespace orvexd
