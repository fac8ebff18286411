#pragma once

#include "Bus.h"

#include <cstdint>
#include <string>
#include <vector>

namespace orvexd::bench {

/// How one request is sent and its answer fetched.
struct ExchangePlan {
    std::size_t upload = 0;      ///< bytes of the request's data
    std::size_t piece = 65536;   ///< bytes of one sendData
    std::uint64_t perSecond = 0; ///< of sendData; 0: as fast as each is answered
    /// getData is called when everything is sent, not at once: for a daemon that does not hold
    /// calls, so that one round trip follows the other.
    bool fetchLate = false;
};

/// When what happened, counted from the prepare call.
struct ExchangeTimes {
    Clock::duration asked{};    ///< the daemon asked for the data
    Clock::duration uploaded{}; ///< the last sendData was answered
    Clock::duration done{};     ///< the last chunk was there
    std::size_t received = 0;   ///< bytes of the answer
    std::size_t chunks = 0;
    /// Nanoseconds at each sixteenth of the upload, and of the answer.
    std::vector<std::int64_t> uploadMarks;
    std::vector<std::int64_t> answerMarks;
};

/// One exchange on `connection` from prepare to the last chunk.
/// @param answerSize bytes that the answer will have, for the marks only.
ExchangeTimes runExchange(const Bus& bus, dbus_uint32_t connection, const ExchangePlan& plan,
                          std::size_t answerSize);

} // namespace orvexd::bench
