#include "slp/PartHeader.h"

#include "slp/TextSearch.h"

#include <algorithm>

namespace orvexd {

std::string headerValue(std::string_view block, std::string_view name) {
    const std::size_t match = findIgnoringCase(block, name);
    if (match == std::string_view::npos) {
        return {};
    }
    std::string_view value = block.substr(match + name.size());
    value.remove_prefix(std::min(value.find_first_not_of(" :"), value.size()));
    return std::string(value.substr(0, value.find('\r')));
}

} // namespace orvexd
