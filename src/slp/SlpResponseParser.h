#pragma once

#include "request/Answer.h"
#include "slp/SlpDocument.h"
#include "support/MemoryBudget.h"

#include <cstddef>
#include <memory>
#include <span>
#include <string>
#include <string_view>

namespace orvexd {

class RequestData;

/// Takes the response of one exchange as it arrives, head included, and delivers the bytes of its
/// data parts to the requests to which they belong (multipart/related: RFC 2387; delimiters: RFC
/// 2046, 5.1.1).
///
/// The bytes of a data part go on at once, as a view of the chunk in which they came. The parser
/// keeps only the head until it is complete, the part that holds the SLP document, and a line break
/// at the end of a chunk, which may turn out to belong to the delimiter. It does not recognise a
/// delimiter that is split over two chunks. A part's header block must not be split either.
///
/// Errors do not stop the parsing; a later one replaces an earlier one. Only an answer whose
/// structure is larger than the limits allow is given up, and the rest of it is not read.
///
/// All operations run on the worker thread. They throw nothing but std::bad_alloc, after which the
/// parser is not used again.
class SlpResponseParser {
public:
    /// The most bytes of a response head. libcurl's own limit is 300 KiB for all header lines.
    static constexpr std::size_t kLargestHead = std::size_t{512} * 1024;
    /// The most bytes of the start part.
    static constexpr std::size_t kLargestStartPart = std::size_t{8} * 1024 * 1024;
    /// The most bytes of the header block of a part.
    static constexpr std::size_t kLargestHeaderBlock = std::size_t{64} * 1024;

    /// @param requests the exchange's requests in transfer order; must outlive the parser.
    /// @param budget must outlive the parser.
    explicit SlpResponseParser(std::span<const std::shared_ptr<RequestData>> requests,
                               MemoryBudget& budget = MemoryBudget::process());

    /// How long a piece of an answer waits for room; for ever unless told.
    void setPatience(Patience patience) { patience_ = std::move(patience); }

    /// Takes the next bytes of the response. The cost is linear in the bytes.
    /// @return the chunk's length, whatever it holds: libcurl would end the transfer otherwise.
    std::size_t feed(std::string_view chunk);

    /// The response has ended: completes a part that is still open and checks that every request
    /// got what was announced for it.
    void finish();

    /// Whether the rest of the response is not to be read: the error is final.
    [[nodiscard]] bool isGivenUp() const noexcept { return givenUp_; }
    /// Gives the response up with the error for a broken format.
    void giveUp(std::string text);
    /// Whether a piece of the response was lost because there was no room for it in time. Nothing
    /// behind it is delivered.
    [[nodiscard]] bool hasStalled() const noexcept { return stalled_; }

    /// Whether the response is not what it should be, judged by what has come so far.
    [[nodiscard]] bool hasError() const noexcept { return hasError_; }
    /// Code of the last error, 0 when there was none. Stays when a further head clears the error.
    [[nodiscard]] int errorCode() const noexcept { return error_.code; }
    /// Text of the last error; may hold any bytes of the server.
    [[nodiscard]] std::string errorText() const { return error_.text; }

private:
    [[nodiscard]] bool isStopped() const noexcept { return givenUp_ || stalled_; }
    void stop() noexcept;
    bool keep(std::string_view bytes, std::size_t limit, const char* error);
    void feedHead(std::string_view chunk);
    void feedBody(std::string_view chunk);
    void feedWithoutDelimiter(std::string_view chunk);
    void collectHeaderBlock(std::string_view chunk);
    void parseHead(std::string_view head);

    void openPart() noexcept;
    void startPart(std::string_view piece, bool closesResponse);
    void completePart(std::string_view piece);
    void handlePart(std::string_view piece, bool partComplete);
    void handleNewPart(std::string_view part, std::size_t blankLine, bool partComplete);
    void selectPart(const std::string& id);
    void showPart(const std::string& id) const noexcept;
    void endPart() noexcept;
    void expectNextPart(const std::string& id);
    void deliver(std::string_view bytes, bool partComplete, bool first = false);

    void parseSlpHeaderPart(std::string_view part);

    void recordError(int code, std::string text);

    std::span<const std::shared_ptr<RequestData>> requests_;
    std::string boundary_;         // empty while no head has named one
    std::string delimiter_;        // "--" and the boundary
    std::string closingDelimiter_; // the delimiter and "--"
    std::string startId_;
    std::string pending_; // unfinished head, empty line behind a head, or start part
    std::string held_;    // line break at the end of the last chunk, at most two bytes
    bool insidePart_ =
        false; // the first delimiter has been seen: all that follows belongs to parts
    bool inHeaderPart_ = false;             // that part is the start part
    bool skipping_ = false;                 // that part belongs to nobody
    RequestData* currentRequest_ = nullptr; // the request that the part belongs to
    std::size_t currentPosition_ = 0;       // its place in requests_
    bool hasError_ = false;
    bool givenUp_ = false;
    bool stalled_ = false;
    SlpError error_;
    AnnouncedParts parts_;
    Charge kept_; // what is in pending_
    Patience patience_;
};

} // namespace orvexd
