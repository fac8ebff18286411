#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace orvexd::test {

/// What one request has gone through, as its client sees it, and what may come next. An operation
/// returns nullptr, or the rule that is broken. The gateway's fuzz target judges with it, and so
/// does tests/stress, which writes the members down once more.
///
/// Numbers and texts are not the daemon's, so that one that changes there is noticed.
struct RequestFate {
    std::uint32_t chunkSize;     ///< bytes that its client wants at a time
    std::uint32_t openCalls = 0; ///< of getData, without an answer
    bool prepared;
    bool asked = false;      ///< for its data
    bool whole = false;      ///< the last chunk has come
    bool lost = false;       ///< named by a lost connection ...
    bool notAllowed = false; ///< ... by one that its policy does not allow ...
    bool failed = false;     ///< ... by a failed exchange
    /// It has its end: the whole answer, an error, its client's own doing, or the silence when a
    /// later failure sweeps its answer away. Whoever knows of one of the last two writes it here.
    bool ended = false;
    bool gone = false; ///< unknown to the daemon, before it had an end

    const char* onAsked() {
        const char* broken = asked ? "asked for its data twice" : nullptr;
        asked = true;
        return broken;
    }

    /// sendData returns.
    const char* onSent(int result, bool connectionIsOpen) {
        if (!connectionIsOpen) {
            return result == 1001 ? nullptr : "a closed connection sends data";
        }
        gone = gone || (result == 41 && !ended);
        return result == 0 || result == 41 || result == 57 ? nullptr
                                                           : "sendData has another result";
    }

    /// An error answers getData.
    const char* onRefused(int code) {
        --openCalls;
        gone = gone || !ended;
        return code == 41 ? nullptr : "getData was refused with another code";
    }

    const char* onChunk(std::size_t size, std::uint32_t code) {
        const char* broken = whole                          ? "a chunk behind the last one"
                             : lost || notAllowed || failed ? "a chunk behind an error"
                             : openCalls == 0               ? "a chunk that no getData waits for"
                             : code < 2301 || code > 2303   ? "a delivery code"
                             : size > chunkSize             ? "a chunk that is larger than wanted"
                                                            : nullptr;
        --openCalls;
        whole = code == 2303;
        ended = ended || whole;
        return broken;
    }

    /// An errorSignal names it.
    const char* onNamed(std::string_view message) {
        const bool isNotAllowed = message == "Current network connection not allowed";
        bool& kind = isNotAllowed ? notAllowed : message == "Connection error" ? lost : failed;
        // Only what a lost connection has cancelled is still there for another error.
        const char* broken = kind                        ? "named twice by errors of one kind"
                             : notAllowed || failed      ? "named after an error that ended it"
                             : isNotAllowed && !prepared ? "not allowed but attached"
                             : isNotAllowed && asked     ? "not allowed but being exchanged"
                                                         : nullptr;
        kind = ended = true;
        return broken;
    }
};

} // namespace orvexd::test
