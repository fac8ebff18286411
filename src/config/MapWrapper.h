#pragma once

#include <map>
#include <mutex>
#include <utility>

namespace orvexd {

/// An ordered map of settings that any thread may read while the main loop's thread writes.
/// Lookups return copies. The internal mutex is never held across a call to other code.
template <typename Key, typename Value> class MapWrapper {
public:
    /// Stores the pair; a later value for the same key replaces the earlier one.
    void set(const Key& key, const Value& value) {
        const std::lock_guard guard(mutex_);
        entries_.insert_or_assign(key, value);
    }

    /// @return the value, or an empty one when the key is absent.
    Value get(const Key& key) const { return get(key, Value{}); }

    /// @return the value, or `fallback` when the key is absent; a present empty value is returned
    /// as it is.
    Value get(const Key& key, const Value& fallback) const {
        const std::lock_guard guard(mutex_);
        const auto entry = entries_.find(key);
        return entry == entries_.end() ? fallback : entry->second;
    }

    /// Removes every entry.
    void clear() {
        const std::lock_guard guard(mutex_);
        entries_.clear();
    }

private:
    mutable std::mutex mutex_;
    std::map<Key, Value> entries_; // guarded by mutex_
};

} // namespace orvexd
