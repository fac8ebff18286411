#include "Arguments.h"
#include "Watcher.h"

#include <cstdio>
#include <cstdlib>
#include <exception>

namespace {

int run(int argc, char** argv) {
    const trilba::tool::Arguments arguments = trilba::tool::readArguments(argc, argv);
    if (!arguments.fault.empty()) {
        std::fprintf(stderr, "trilba-platform: %s\n", arguments.fault.c_str());
        return 2;
    }
    if (arguments.version) {
        std::puts("trilba-platform " TRILBA_PLATFORM_VERSION);
        return 0;
    }
    if (!arguments.file.empty()) {
        setenv("TRILBA_PLATFORM_CONF", arguments.file.c_str(), 1);
    }
    return trilba::tool::Watcher(arguments).run();
}

} // namespace

int main(int argc, char** argv) {
    try {
        return run(argc, argv);
    } catch (const std::exception& fault) {
        std::fprintf(stderr, "trilba-platform: %s\n", fault.what());
        return 2;
    }
}
