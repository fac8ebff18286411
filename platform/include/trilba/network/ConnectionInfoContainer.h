#pragma once

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

namespace trilba::network {

/// One connection of the device, as the platform file or a live source describes it.
struct ConnectionInfo {
    std::string name;
    int kind = 0;         ///< the platform's kind of bearer; 1 and 2 are known to the daemon
    bool active = false;  ///< carries traffic now
    bool flagged = false; ///< use of it is restricted
};

/// Connections in the platform's order; the first active one is the one in use.
/// A plain value without locks: keep one per thread or guard it.
class ConnectionInfoContainer {
public:
    using const_iterator = std::vector<ConnectionInfo>::const_iterator;

    void clear() noexcept { entries_.clear(); }
    void add(ConnectionInfo entry) { entries_.push_back(std::move(entry)); }

    [[nodiscard]] std::size_t size() const noexcept { return entries_.size(); }
    [[nodiscard]] bool empty() const noexcept { return entries_.empty(); }

    /// @throws std::out_of_range when `index` is not below `size()`.
    [[nodiscard]] const ConnectionInfo& at(std::size_t index) const { return entries_.at(index); }

    [[nodiscard]] const_iterator begin() const noexcept { return entries_.begin(); }
    [[nodiscard]] const_iterator end() const noexcept { return entries_.end(); }

private:
    std::vector<ConnectionInfo> entries_;
};

} // namespace trilba::network
