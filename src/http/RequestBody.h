#pragma once

#include "config/MapWrapper.h"
#include "http/DataSignal.h"

#include <chrono>
#include <cstddef>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace orvexd {

class IExchangeOwner;
class RequestData;

/// The multipart body of one exchange, streamed while the clients still deliver: the SLP header
/// part, each request's part in queue order, the closing delimiter. Nothing of the body is
/// assembled in memory: bytes go from the clients' buffers into libcurl's.
///
/// Worker thread only. A request becomes Sending when its part is the current one and Sent when its
/// part is closed.
class RequestBody {
public:
    using Queue = std::vector<std::shared_ptr<RequestData>>;

    /// The wait for client data unless a type has another one, and the longest wait for data of a
    /// request whose client has left.
    static constexpr std::chrono::milliseconds kDefaultWait{5000};

    /// `queue`, `signal`, `owner` and `parameters` must outlive the body.
    /// @param bodyPrefix the SLP header part, beginning with its delimiter line.
    RequestBody(const Queue& queue, std::string boundary, std::string bodyPrefix,
                DataSignal& signal, IExchangeOwner& owner, const Parameters& parameters);

    /// Fills `buffer` with the next bytes of the body. Waits for client data if there are none, for
    /// as long as `waitTimeout` says. A part whose client is silent ends with what it has.
    /// @return number of bytes, 0 at the end of the body, CURL_READFUNC_ABORT when cancelled.
    /// @throws std::bad_alloc; the body is not used again then.
    [[nodiscard]] std::size_t readBody(std::span<char> buffer);

    /// Largest slice of a part for a buffer of `capacity` bytes. 1024 bytes are kept in reserve for
    /// the carriage returns that normalisation adds.
    [[nodiscard]] static std::size_t sliceLimit(std::size_t capacity) noexcept;

    /// How long the upload waits for client data of a request of `type`: by default 90 s for
    /// "fingerprint" and 5 s for everything else. May be zero or negative: no wait at all.
    /// @param parameters settings named "orvexd/wait_timeout/" and the type, in milliseconds.
    [[nodiscard]] static std::chrono::milliseconds waitTimeout(const std::string& type,
                                                               const Parameters& parameters);

private:
    /// A slice of the body as it was taken. Raw bytes stand in libcurl's buffer already; text waits
    /// in the scratch buffer for its line ends.
    struct Slice {
        std::size_t size = 0;
        bool raw = false;
    };

    bool takeSlice(DataSignal::Reader& reader, std::span<char> buffer, std::size_t limit,
                   Slice& slice);
    Slice takePrefix(std::size_t limit);
    Slice takePart(RequestData& part, std::span<char> buffer, std::size_t limit);
    Slice closeBody();
    void advanceToNextPart();
    void announceOnce(const RequestData& part);
    void awaitData(DataSignal::Reader& reader, RequestData& part);
    std::size_t takeCarry(std::span<char> buffer) noexcept;

    const Queue& queue_;
    const std::string boundary_;
    std::string bodyPrefix_;
    std::size_t prefixTaken_ = 0;
    DataSignal& signal_;
    IExchangeOwner& owner_;
    const Parameters& parameters_;

    int currentPart_ = -1; ///< -1 while the prefix is being sent
    bool partsClosed_ = false;
    bool bodyComplete_ = false;
    std::vector<char> scratch_; ///< text of one slice before its line ends are normalised
    std::string carry_;         ///< normalised text that did not fit into libcurl's buffer
    std::size_t carryTaken_ = 0;
};

} // namespace orvexd
