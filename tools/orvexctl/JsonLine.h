#pragma once

#include "GioHandles.h"

#include <cstdint>
#include <json-glib/json-glib.h>
#include <string>
#include <vector>

namespace orvexd::ctl {

/// One JSON object on one line.
class JsonLine {
public:
    JsonLine();

    // Members, in this order.
    void addNumber(const char* name, std::uint32_t value);
    void addText(const char* name, const std::string& value);
    void addTruth(const char* name, bool value);
    void addTexts(const char* name, const std::vector<std::string>& values);

    /// Ends the object.
    [[nodiscard]] std::string text();

private:
    ObjectRef<JsonBuilder> builder_;
};

/// Now, as all lines have it: ISO 8601 with microseconds.
std::string timeStamp();

} // namespace orvexd::ctl
