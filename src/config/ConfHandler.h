#pragma once

#include "config/MapWrapper.h"

#include <string>

namespace orvexd {

/// The file store: what the XML configuration file holds, one for the process.
///
/// main() loads the file after it has made the service. The objects have copied their settings by
/// then, from a store that was still empty, so the built-in values are in force. The file only has
/// to be well formed.
class ConfHandler {
public:
    ConfHandler() = delete;

    /// The store itself. It lives from its first use to the end of the process.
    static Parameters& confItems();

    /// Value of `key` in the file store, empty when absent.
    [[nodiscard]] static std::string get(const std::string& key);
    /// Stores a pair, as an item of the file does. Main loop's thread.
    static void setParameter(const std::string& key, const std::string& value);

    /// Reads the items of the XML file `path` into the store. A missing file changes nothing, and
    /// neither does one that is not XML. Main loop's thread; blocks for as long as the file system.
    /// @param rootTag name that the root element must have.
    /// @throws std::string when the structure of the document is wrong. The items before the fault
    ///   stay. Nothing catches it: the process ends.
    static void load(const std::string& path, const std::string& rootTag);
};

} // namespace orvexd
