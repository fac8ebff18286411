#pragma once

#include "support/Threads.h"

#include <map>
#include <string>

namespace orvexd {

/// An ordered map of settings that any thread may read while the main loop's thread writes.
/// Lookups return copies. The internal mutex is never held across a call to other code.
template <typename Key, typename Value> class MapWrapper {
public:
    /// Stores the pair; a later value for the same key replaces the earlier one.
    void set(const Key& key, const Value& value) {
        const Lock guard(mutex_);
        entries_.insert_or_assign(key, value);
    }

    /// @return the value, or an empty one when the key is absent.
    [[nodiscard]] Value get(const Key& key) const { return get(key, Value{}); }

    /// @return the value, or `fallback` when the key is absent; a present empty value is returned
    /// as it is.
    [[nodiscard]] Value get(const Key& key, const Value& fallback) const {
        const Lock guard(mutex_);
        const auto entry = entries_.find(key);
        return entry == entries_.end() ? fallback : entry->second;
    }

    /// Removes every entry.
    void clear() {
        const Lock guard(mutex_);
        entries_.clear();
    }

private:
    mutable Mutex mutex_;
    std::map<Key, Value> entries_; // guarded by mutex_
};

/// Settings by name, as the configuration file and the class maps hold them.
using Parameters = MapWrapper<std::string, std::string>;

} // namespace orvexd
