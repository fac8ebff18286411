// Takes the fuzzer's place where there is none: runs a target over the files, and the files of the
// directories, that are named on the command line.

#include "support/Target.h"

#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int __attribute__((weak)) LLVMFuzzerInitialize(int* argc, char*** argv);

namespace {

std::vector<std::filesystem::path> filesOf(const std::filesystem::path& path) {
    if (!std::filesystem::is_directory(path)) {
        return {path};
    }
    std::vector<std::filesystem::path> files;
    for (const auto& entry : std::filesystem::directory_iterator(path)) {
        files.push_back(entry.path());
    }
    return files;
}

void run(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    file.exceptions(std::ios::badbit | std::ios::failbit);
    const std::vector<char> bytes{std::istreambuf_iterator<char>(file), {}};
    std::fprintf(stderr, "%s\n", path.c_str()); // the last one named is the one that failed
    (void)LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
}

} // namespace

int main(int argc, char** argv) try {
    if (LLVMFuzzerInitialize != nullptr) {
        (void)LLVMFuzzerInitialize(&argc, &argv);
    }
    std::size_t inputs = 0;
    for (int index = 1; index < argc; ++index) {
        for (const auto& path : filesOf(argv[index])) {
            run(path);
            ++inputs;
        }
    }
    std::fprintf(stderr, "%zu inputs\n", inputs);
    return inputs > 0 ? 0 : 1;
} catch (const std::exception& error) {
    std::fprintf(stderr, "%s\n", error.what());
    return 1;
}
