#pragma once

#include "slp/ResponseHead.h"
#include "support/MemoryBudget.h"
#include "support/XmlHandles.h"

#include <cstddef>
#include <limits>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace orvexd {

class RequestData;

/// Content ids of the response parts by the number that their request has in the SLP message.
using ResultMap = std::map<int, std::vector<std::string>>;

/// The most attributes and namespace declarations that one element may have.
inline constexpr std::size_t kMostAttributes = 12'000;

/// The most bytes of an internal subset, its parameter entities put in.
inline constexpr std::size_t kMostDeclarations = 32'000;

/// Memory for documents where nobody counts it.
inline constexpr std::size_t kAnyMemory = std::numeric_limits<std::size_t>::max();

/// Whether libxml2 takes less than half a second and `mostMemory` bytes to parse a document or to
/// find that it is none. Some texts that are none, and a few that would be one, are not cheap
/// because their cost is hard to tell.
/// @param markup the document as characters that XML allows; each byte up to 127 is an ASCII one.
[[nodiscard]] bool isCheap(std::string_view markup, std::size_t mostMemory);

/// As `isCheap`, for a document in any encoding that can be looked through.
[[nodiscard]] bool mayBeParsed(std::string_view text, std::size_t mostMemory = kAnyMemory);

/// Parses a document as `xmlReadMemory` without options does, unless it may not be parsed: libxml2
/// compares each attribute of an element with all others, searches all namespaces in force for each
/// prefix, and copies what a declaration gives to every element. A few hundred kilobytes would keep
/// the worker busy for minutes, and nothing stops it. Nothing is printed. Any thread.
/// @return null when the text is no document or passes the limits that orvexd(8) names.
[[nodiscard]] XmlDocument readSlpDocument(std::string_view text,
                                          std::size_t mostMemory = kAnyMemory);

/// Adds what the document says to `results`.
/// @param root root element of the document, may be null.
/// @return what is wrong with the document, if anything; the results in front of the fault have
/// been added then.
[[nodiscard]] std::optional<SlpError> parseSlpResponse(xmlNode* root, ResultMap& results);

/// Which response parts the server has announced, and to which request each belongs. What is known
/// of them counts in the memory budget.
///
/// Worker thread only. Operations throw nothing but std::bad_alloc.
class AnnouncedParts {
public:
    /// @param requests the exchange's requests in transfer order; must outlive this object.
    /// @param budget must outlive this object.
    AnnouncedParts(std::span<const std::shared_ptr<RequestData>> requests, MemoryBudget& budget)
        : requests_(requests), charge_(budget) {}

    /// Reads an SLP document. What it announces takes the place of everything announced before,
    /// unless it is faulty.
    /// @return what is wrong with it, if anything.
    [[nodiscard]] std::optional<SlpError> read(std::string_view text);

    /// Takes a part for the first request in transfer order that expects its id.
    /// @return the place of the request; none when nobody expects the part.
    [[nodiscard]] std::optional<std::size_t> accept(const std::string& id);

    /// A request expects a further part.
    /// @param position the request's place.
    void add(std::size_t position, const std::string& id);

    /// Whether the memory budget has had room for all documents and announcements.
    [[nodiscard]] bool hasRoom() const noexcept { return !isTooLarge_ && charge_.hasRoom(); }

    /// Whether every request has been announced a part, and all announced parts have come.
    [[nodiscard]] bool areComplete() const noexcept;

    /// No more parts can come: gives the memory of the requests' ids back. Their answers may be
    /// fetched much later.
    void finish() noexcept;

private:
    void announce();
    void count();

    std::span<const std::shared_ptr<RequestData>> requests_;
    ResultMap results_;
    /// Place of the first request in transfer order that expects an id, by id. Ordered: a server
    /// chooses the ids, and could choose them to collide in a hash table.
    std::map<std::string, std::size_t> positions_;
    std::size_t resultCost_ = 0;
    std::size_t nextPartCost_ = 0;
    bool isTooLarge_ = false;
    Charge charge_;
};

} // namespace orvexd
