#include "Printable.h"

#include <glib.h>

namespace orvexd::ctl {
namespace {

constexpr std::string_view kHexDigits = "0123456789abcdef";

void appendEscaped(std::string& out, std::string_view bytes) {
    for (const char byte : bytes) {
        const auto value = static_cast<unsigned char>(byte);
        out.append("\\x") += kHexDigits[value >> 4U];
        out += kHexDigits[value & 0xfU];
    }
}

} // namespace

std::string printable(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    while (!text.empty()) {
        const gunichar letter =
            g_utf8_get_char_validated(text.data(), static_cast<gssize>(text.size()));
        // The two largest values stand for invalid and for truncated sequences.
        const bool valid = letter < static_cast<gunichar>(-2);
        const std::size_t length =
            valid ? static_cast<std::size_t>(g_unichar_to_utf8(letter, nullptr)) : 1;
        const std::string_view bytes = text.substr(0, length);
        if (valid && g_unichar_isprint(letter) != FALSE) {
            out.append(bytes);
        } else {
            appendEscaped(out, bytes);
        }
        text.remove_prefix(length);
    }
    return out;
}

} // namespace orvexd::ctl
