// The functions that look for words in the text of heads and header blocks.
//
// Input: a line with the name to look for, then the text.
//
// Properties: nothing outside the text is read; the values are those of a reading that goes from
// character to character.

#include "slp/ResponseHead.h"
#include "support/Check.h"
#include "support/ExactCopy.h"
#include "support/Input.h"
#include "support/Target.h"

#include <string>
#include <string_view>

namespace orvexd::fuzz {
namespace {

std::string lower(std::string_view text) {
    std::string result(text);
    for (char& c : result) {
        if (c >= 'A' && c <= 'Z') {
            c = static_cast<char>(c - 'A' + 'a');
        }
    }
    return result;
}

/// Position behind the first occurrence of `name`, in any case; npos when there is none.
std::size_t behind(std::string_view text, std::string_view name) {
    const std::size_t match = lower(text).find(lower(name));
    return match == std::string::npos ? match : match + name.size();
}

std::string plainParameter(std::string_view line, std::string_view name) {
    std::size_t at = behind(line, name);
    while (at < line.size() && line[at] != '=') {
        ++at;
    }
    std::string value;
    for (; at < line.size(); ++at) {
        const char c = line[at];
        if (c == ';' || c == ' ' || c == '\n' || c == '\r') {
            break;
        }
        if (c != '=' && c != '\'' && c != '"') {
            value += c;
        }
    }
    return value;
}

std::string plainHeader(std::string_view block, std::string_view name) {
    std::string value;
    for (std::size_t at = behind(block, name); at < block.size(); ++at) {
        const char c = block[at];
        if (c == '\r') {
            break;
        }
        if (!value.empty() || (c != ' ' && c != ':')) {
            value += c;
        }
    }
    return value;
}

void checkHead(std::string_view text) {
    const ResponseHead head = parseResponseHead(text);
    check(head.error || head.multipart, "a head is usable or faulty");
    if (!head.multipart) {
        return;
    }
    check(text.starts_with("HTTP"), "only HTTP is read");
    const std::string_view line = text.substr(lower(text).find("content-type"));
    const std::string_view first = line.substr(0, line.find('\n'));
    check(head.multipart->startId == plainParameter(first, "start"), "the start id is the line's");
    const std::string boundary = plainParameter(first, "boundary");
    check(head.multipart->boundary == boundary.substr(0, boundary.find('\0')),
          "the boundary is the line's up to a NUL");
}

} // namespace
} // namespace orvexd::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace orvexd;
    fuzz::Input input(data, size);
    const std::string name = fuzz::lower(input.line());
    const fuzz::ExactCopy nameCopy(name);
    const fuzz::ExactCopy text(input.rest());
    fuzz::check(headerValue(text.view(), nameCopy.view()) == fuzz::plainHeader(text.view(), name),
                "a header's value");
    fuzz::check(contentTypeParameter(text.view(), nameCopy.view()) ==
                    fuzz::plainParameter(text.view(), name),
                "a parameter's value");
    fuzz::checkHead(text.view());
    return 0;
}
