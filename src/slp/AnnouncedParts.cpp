#include "slp/AnnouncedParts.h"

#include "protocol/Codes.h"
#include "request/RequestData.h"

#include <algorithm>
#include <vector>

namespace orvexd {

namespace {

/// What an announced part id costs: an entry, and a copy of its text, in each of three tables.
std::size_t costOf(const std::string& id) {
    constexpr std::size_t kEntries = 320;
    return kEntries + 3 * id.size();
}

} // namespace

std::optional<SlpError> AnnouncedParts::read(std::string_view text) {
    const std::size_t room = charge_.room();
    const XmlDocument document = readSlpDocument(text, room);
    if (!document) {
        isTooLarge_ = !mayBeParsed(text, room) && mayBeParsed(text);
        return SlpError{failure::kFormat, "could not parse document"};
    }
    auto error = parseSlpResponse(xmlDocGetRootElement(document.get()), results_);
    count(); // the results in front of a fault, too
    if (!error && hasRoom()) {
        announce();
    }
    return error;
}

void AnnouncedParts::count() {
    resultCost_ = 0;
    for (const auto& [oid, ids] : results_) {
        for (const std::string& id : ids) {
            resultCost_ += costOf(id);
        }
    }
    charge_.set(resultCost_ + nextPartCost_);
}

void AnnouncedParts::announce() {
    positions_.clear();
    for (std::size_t position = 0; position < requests_.size(); ++position) {
        RequestData& request = *requests_[position];
        const auto result = results_.find(static_cast<int>(request.messageIndex()));
        const std::vector<std::string> none;
        const std::vector<std::string>& ids = result == results_.end() ? none : result->second;
        request.setExpectedPartIds(ids);
        for (const std::string& id : ids) {
            positions_.try_emplace(id, position); // the first request in transfer order gets a part
        }
    }
}

std::optional<std::size_t> AnnouncedParts::accept(const std::string& id) {
    const auto found = positions_.find(id);
    const bool isExpected = found != positions_.end() && requests_[found->second]->acceptPartId(id);
    return isExpected ? std::optional(found->second) : std::nullopt;
}

void AnnouncedParts::add(std::size_t position, const std::string& id) {
    nextPartCost_ += costOf(id);
    charge_.add(costOf(id));
    if (!hasRoom()) {
        return;
    }
    requests_[position]->addExpectedPartId(id);
    const auto [entry, added] = positions_.try_emplace(id, position);
    if (!added) {
        entry->second = std::min(entry->second, position);
    }
}

void AnnouncedParts::finish() noexcept {
    for (const auto& request : requests_) {
        request->forgetPartIds();
    }
}

} // namespace orvexd
