#pragma once

#include "Client.h"

#include <chrono>
#include <string>

namespace orvexd::ctl {

/// The command line of "orvexctl request".
struct RequestOptions {
    ConnectionValues connection;
    RequestValues request;
    std::string input = "-";
    std::string output = "-";
    std::string outputPattern;         ///< takes the place of output when not empty
    std::chrono::seconds timeout{120}; ///< longest time without progress; zero means no limit
    bool keepPartial = false;
    bool quiet = false;

    /// @throws Failure when the words are wrong; ends the process after --help.
    static RequestOptions parse(const std::vector<std::string>& words);
};

} // namespace orvexd::ctl
