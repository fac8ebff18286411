#pragma once

#include "support/Threads.h"

#include <map>
#include <string>

namespace orvexd {

/// An ordered map of settings. The main loop's thread writes while any thread may read, so look-ups
/// return copies. The mutex inside is a leaf: it is never held across a call to other code.
template <typename Key, typename Value> class MapWrapper {
public:
    /// Stores the pair. A later value for the same key replaces the earlier one.
    /// @throws std::bad_alloc, as all operations that copy.
    void set(const Key& key, const Value& value) {
        const Lock guard(mutex_);
        entries_.insert_or_assign(key, value);
    }

    /// @return the value, or an empty one when the key is absent.
    [[nodiscard]] Value get(const Key& key) const { return get(key, Value{}); }

    /// @return the value, or `fallback` when the key is absent. The fallback does not replace an
    /// empty value that is present.
    [[nodiscard]] Value get(const Key& key, const Value& fallback) const {
        const Lock guard(mutex_);
        const auto entry = entries_.find(key);
        return entry == entries_.end() ? fallback : entry->second;
    }

    /// Removes every entry. The daemon keeps its entries; tests begin anew with this.
    void clear() {
        const Lock guard(mutex_);
        entries_.clear();
    }

private:
    mutable Mutex mutex_;
    std::map<Key, Value> entries_; // guarded by mutex_
};

/// Settings by name, as the configuration file and the class maps hold them. Keys are paths such as
/// "orvexd/connect_timeout", compared byte by byte.
using Parameters = MapWrapper<std::string, std::string>;

} // namespace orvexd
