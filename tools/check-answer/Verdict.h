#pragma once

#include "Recording.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace orvexd::check {

/// What the daemon makes of an answer: its own parser is asked.
struct Verdict {
    /// What a request gets.
    struct Request {
        std::vector<std::size_t> parts; ///< bytes of each whole part
        bool isComplete = false;
    };

    int code = 0; ///< 0 for a good answer, else one of the failure codes
    std::string text;
    std::vector<Request> requests; ///< in the order of their oids, from 1

    /// The number that clients read from errorSignal.
    [[nodiscard]] int signalCode() const noexcept;
};

/// @param requests that the message had.
/// @param piece bytes that one read brings; 0: each delimiter comes with all that is behind it up
///   to the next one, which is the best that can happen.
[[nodiscard]] Verdict judge(const Recording& recording, std::uint32_t requests, std::size_t piece);

} // namespace orvexd::check
