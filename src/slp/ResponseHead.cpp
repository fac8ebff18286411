#include "slp/ResponseHead.h"

#include "config/MapWrapper.h"
#include "protocol/Codes.h"
#include "slp/TextSearch.h"

#include <algorithm>
#include <utility>

namespace orvexd {

namespace {

constexpr long kFirstErrorStatus = 400;
constexpr long kFirstServerError = 500;

/// Looks at the status line. Where a blank is missing, the code or the text is read from the start
/// of the head.
/// @return false when the rest of the head does not matter any more.
bool parseStatus(std::string_view head, std::optional<SlpError>& error) {
    if (!head.starts_with("HTTP")) {
        std::string text = "Malformed response from server: should start with HTTP, instead of: [";
        text.append(head).append("]");
        error = SlpError{failure::kRefusedByServer, std::move(text)};
        return false;
    }
    const std::size_t codeBegin = head.find(' ') + 1; // npos + 1 is 0
    const std::size_t codeEnd = head.find(' ', codeBegin);
    const Number status = readNumber(std::string(head.substr(codeBegin, codeEnd - codeBegin)));
    if (!status.fits) {
        error = SlpError{failure::kRefusedByServer, "No HTTP response code"};
        return false;
    }
    if (status.value >= kFirstErrorStatus) {
        error = SlpError{statusToErrorCode(status.value), std::string(head.substr(codeEnd + 1))};
    }
    return true;
}

std::string_view upTo(std::string_view text, char end) {
    return text.substr(0, text.find(end));
}

bool isDropped(char c) {
    return c == '=' || c == '\'' || c == '"';
}

bool endsValue(char c) {
    return c == ';' || c == ' ' || c == '\n' || c == '\r';
}

} // namespace

ResponseHead parseResponseHead(std::string_view head) {
    ResponseHead result;
    if (!parseStatus(head, result.error)) {
        return result;
    }
    const std::size_t contentType = findIgnoringCase(head, "content-type");
    if (contentType == kNone) {
        result.error = SlpError{failure::kFormat, "No Content-Type header"};
        return result;
    }
    const std::string_view line = upTo(head.substr(contentType), '\n');
    ResponseHead::Multipart multipart{contentTypeParameter(line, "start"),
                                      contentTypeParameter(line, "boundary")};
    // The body is searched for the delimiter as for a NUL-terminated text.
    multipart.boundary.resize(upTo(multipart.boundary, '\0').size());
    if (multipart.startId.empty()) {
        result.error = SlpError{failure::kFormat, "'start' attribute not found"};
    } else if (multipart.boundary.empty()) {
        result.error = SlpError{failure::kFormat, "boundary not found"};
    }
    result.multipart = std::move(multipart);
    return result;
}

int statusToErrorCode(long status) noexcept {
    if (status < kFirstErrorStatus) {
        return failure::kNotAccepting;
    }
    if (status >= kFirstServerError) {
        return failure::kServerError;
    }
    switch (status) {
    case 400:
        return failure::kUnknownRequest;
    case 401:
    case 403:
        return failure::kNotAuthorized;
    default:
        return failure::kTransport;
    }
}

std::string contentTypeParameter(std::string_view line, std::string_view name) {
    const std::size_t match = findIgnoringCase(line, name);
    if (match == kNone) {
        return {};
    }
    const std::size_t equals = line.find('=', match + name.size());
    if (equals == kNone) {
        return {};
    }
    std::string value;
    for (const char c : line.substr(equals)) {
        if (endsValue(c)) {
            break;
        }
        if (!isDropped(c)) {
            value += c;
        }
    }
    return value;
}

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
