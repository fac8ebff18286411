#pragma once

#include "protocol/Codes.h"

#include <algorithm>
#include <cstddef>
#include <deque>
#include <ostream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace orvexd {

inline std::ostream& operator<<(std::ostream& out, RequestState state) {
    return out << static_cast<unsigned>(state);
}

inline std::ostream& operator<<(std::ostream& out, DeliveryCode code) {
    return out << static_cast<unsigned>(code);
}

namespace test {

/// One delivery to a client.
struct Chunk {
    DeliveryCode code;
    std::string bytes;

    bool operator==(const Chunk&) const = default;
    friend std::ostream& operator<<(std::ostream& out, const Chunk& chunk) {
        return out << chunk.code << " [" << chunk.bytes << "]";
    }
};

/// The rules of a request record in their plainest form: whole strings, parallel lists, no
/// cleverness. Unit tests and fuzzing hold the real record against it.
struct RequestModel {
    std::size_t chunkSize = 0;
    bool waitingForGetData = true;
    bool cancelled = false;
    bool headerEmitted = false;
    std::string header;
    std::string outgoing;
    bool last = false;
    bool accepting = false;
    bool started = false;
    std::vector<std::string> expected;
    std::vector<std::string> outstanding;
    std::deque<std::string> buffers{""};
    std::deque<int> codes{2301};
    std::size_t completed = 0;
    int state = 0;
    std::vector<Chunk> chunks;

    void writeHeader(const std::string& boundary, const std::string& contentType,
                     const std::string& encoding, const std::string& contentId) {
        header += "\r\n--" + boundary + "\r\nContent-Type: " + contentType +
                  "\r\nContent-Transfer-Encoding: " + encoding + "\r\nContent-Id: " + contentId +
                  "\r\n";
    }

    void append(std::string_view bytes, bool isLast) {
        if (!headerEmitted) {
            outgoing += header + "\r\n";
            headerEmitted = true;
        }
        outgoing += bytes;
        last = isLast;
    }

    /// The bytes of one take, and whether it finished the part.
    std::pair<std::string, bool> take(std::size_t maxBytes) {
        started = true;
        if (outgoing.size() > maxBytes) {
            std::string taken = outgoing.substr(0, maxBytes);
            outgoing.erase(0, maxBytes);
            return {taken, false};
        }
        if (last) {
            accepting = false;
        }
        return {std::exchange(outgoing, ""), last};
    }

    void setExpected(const std::vector<std::string>& ids) { expected = outstanding = ids; }

    void addExpected(const std::string& id) {
        expected.push_back(id);
        outstanding.push_back(id);
    }

    bool accept(const std::string& id) {
        if (std::find(expected.begin(), expected.end(), id) == expected.end()) {
            return false;
        }
        const auto found = std::find(outstanding.begin(), outstanding.end(), id);
        if (found != outstanding.end()) {
            outstanding.erase(found);
        }
        return true;
    }

    void add(std::string_view bytes, bool complete) {
        if (!cancelled) {
            if (buffers.empty()) {
                return;
            }
            buffers.back() += bytes;
            if (complete) {
                codes.back() = 2302;
                if (buffers.back().ends_with("\r\n")) {
                    buffers.back().resize(buffers.back().size() - 2);
                }
            }
        }
        if (!complete) {
            state = 4;
        } else if (++completed == expected.size()) {
            state = 6;
        } else {
            state = 5;
            if (!cancelled) {
                buffers.emplace_back();
                codes.push_back(2301);
            }
        }
        deliver();
    }

    /// Whether the client waits in the middle of a part of which nothing is stored.
    bool isClientAtEnd() const {
        return !cancelled && !waitingForGetData && buffers.size() == 1 && buffers.front().empty() &&
               codes.front() == 2301;
    }

    /// There is no room for the bytes: a client that waits gets a chunk, and the rest is lost.
    void addWithoutRoom(std::string_view bytes) {
        if (isClientAtEnd()) {
            chunks.push_back(
                {static_cast<DeliveryCode>(2301), std::string(bytes.substr(0, chunkSize))});
            waitingForGetData = true;
            state = 4;
        }
    }

    bool deliver() {
        if (cancelled) {
            state = state == 6 ? 7 : state;
            return true;
        }
        if (waitingForGetData || buffers.empty()) {
            return false;
        }
        int code = codes.front();
        if (buffers.front().size() > chunkSize || code == 2301) {
            code = 2301;
        } else if (state == 6 && buffers.size() == 1) {
            code = 2303;
        }
        chunks.push_back({static_cast<DeliveryCode>(code), buffers.front().substr(0, chunkSize)});
        waitingForGetData = true;
        buffers.front().erase(0, chunkSize);
        if (code != 2301) {
            buffers.pop_front();
            codes.pop_front();
        }
        if (state == 6 && buffers.empty()) {
            state = 7;
        }
        return true;
    }

    void next() {
        waitingForGetData = false;
        if (!buffers.empty() && buffers.front().empty() && codes.front() == 2301) {
            return;
        }
        deliver();
    }

    void setCancelled(bool flag) {
        cancelled = flag;
        if (flag) {
            buffers.clear();
            codes.clear();
        }
    }
};

} // namespace test
} // namespace orvexd
