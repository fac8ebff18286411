#pragma once

#include <chrono>
#include <optional>
#include <string>

namespace trilba::live {

/// Decides when a change of the network is told. It reads no clock: whoever uses it says what time
/// it is.
///
/// What is seen first is told at once. Changes close to each other are told once. A loss is told
/// late when another connection may take over: requests that wait for a connection are failed when
/// one is told.
class ChangeTiming {
public:
    using Time = std::chrono::microseconds; ///< of a clock that never goes back

    static constexpr std::chrono::milliseconds kQuiet{50};      ///< nothing more has changed
    static constexpr std::chrono::milliseconds kLongest{300};   ///< ... or keeps changing
    static constexpr std::chrono::milliseconds kHandover{2000}; ///< without any connection

    struct Sight {
        std::string identity;      ///< of the list; see `identityOf`
        bool isConnected = false;  ///< some connection is active
        bool isHandover = false;   ///< another one may become active soon
        bool isIncomplete = false; ///< more is being asked about it; it comes later
    };

    /// The network looks like this now.
    void see(const Sight& sight, Time now);

    /// When to tell; nothing when there is nothing to tell.
    [[nodiscard]] std::optional<Time> due() const;

    /// What was seen last is told now.
    void tell();

private:
    [[nodiscard]] bool isLoss() const { return wasConnected_ && !seen_.isConnected; }

    Sight seen_;
    bool hasTold_ = false;
    bool wasConnected_ = false; // as told last
    bool isChanged_ = false;    // since it was told last
    Time firstChange_{0};
    Time lastChange_{0};
    Time lost_{0};
};

} // namespace trilba::live
