#pragma once

#include "config/MapWrapper.h"

#include <string>

namespace orvexd {

/// The file store: what the XML configuration file holds, process-wide.
class ConfHandler {
public:
    ConfHandler() = delete;

    static Parameters& confItems();

    /// Value of `key` in the file store, empty when absent.
    static std::string get(const std::string& key);
    static void setParameter(const std::string& key, const std::string& value);

    /// Reads the items of the XML file `path` into the file store. A missing file, or one that is
    /// not XML, changes nothing.
    /// @throws std::string when the document's structure is wrong; the items before the fault stay.
    static void load(const std::string& path, const std::string& rootTag);
};

} // namespace orvexd
