#pragma once

#include "slp/SlpDocument.h"
#include "support/MemoryBudget.h"

#include <cstddef>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace orvexd {

class RequestData;

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
