#pragma once

#include "Timer.h"

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

namespace orvexd::ctl {

/// One line on standard error that shows how far a request is, redrawn in place. Prints nothing
/// when it is switched off.
class Progress {
public:
    explicit Progress(bool shown);
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    /// @param key names the request for "orvexctl cancel"; empty until it is known.
    void setKey(std::string key);
    /// What is going on, in a few words.
    void setState(std::string state);
    /// Number of bytes that will go up in all, when known.
    void setTotal(std::optional<std::uint64_t> bytes) { total_ = bytes; }
    void setMoved(std::uint64_t sent, std::uint64_t received) {
        sent_ = sent;
        received_ = received;
    }

private:
    using Clock = std::chrono::steady_clock;

    void draw();
    void measure(Clock::time_point now);

    bool shown_;
    std::string key_;
    std::string state_;
    std::optional<std::uint64_t> total_;
    std::uint64_t sent_ = 0;
    std::uint64_t received_ = 0;
    Clock::time_point start_;
    Clock::time_point measured_;        ///< when the rate was taken last
    std::uint64_t measuredBytes_ = 0;   ///< both directions, until then
    std::optional<std::uint64_t> rate_; ///< bytes a second
    Timer redraw_;
};

} // namespace orvexd::ctl
