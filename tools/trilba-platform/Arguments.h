#pragma once

#include <chrono>
#include <string>

namespace trilba::tool {

/// What the command line says.
struct Arguments {
    bool json = false;
    bool watch = false;
    bool version = false;
    std::string file;             ///< empty: as the library finds it
    std::chrono::seconds wait{5}; ///< for the first answer
    std::string fault;            ///< what is wrong with the command line; empty: nothing
};

Arguments readArguments(int argc, char** argv);

} // namespace trilba::tool
