#pragma once

#include "support/Threads.h"

#include <cerrno>
#include <cstdlib>
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

/// A number as a text holds it. Its unit is the setting's own.
struct Number {
    long value; ///< the nearest long when the number does not fit
    bool fits;  ///< false: the reader of the setting says what holds instead
};

/// The one reader of numbers in texts, with the rules of strtol(3) to base 10: blanks in front and
/// a sign are accepted, text behind the digits is ignored, and text without digits gives 0. A long
/// has 32 bits on some machines. Any thread; throws nothing.
[[nodiscard]] inline Number readNumber(const std::string& text) {
    errno = 0;
    const long value = std::strtol(text.c_str(), nullptr, 10);
    return {value, errno == 0};
}

} // namespace orvexd
