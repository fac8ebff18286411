#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

namespace orvexd::ctl {

/// The command line of "orvexctl request".
struct RequestOptions {
    std::string element;
    std::string type;
    std::string version;
    std::string contentType;
    std::string encoding = "binary";
    std::uint32_t policy = 2;
    std::uint32_t openDuration = 0;
    std::uint32_t chunkSize = 64 * 1024; ///< bytes
    bool attach = false;
    std::string input = "-";
    std::string output = "-";
    std::string outputPattern;         ///< takes the place of output when not empty
    std::chrono::seconds timeout{120}; ///< longest time without progress; zero means no limit
    bool keepPartial = false;
    bool quiet = false;
    bool verbose = false;

    /// @throws Failure when the words are wrong; ends the process after --help.
    static RequestOptions parse(const std::vector<std::string>& words);
};

} // namespace orvexd::ctl
