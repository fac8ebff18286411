#include "http/HexDump.h"

#include <algorithm>

namespace orvexd {

namespace {

constexpr std::size_t kBytesPerLine = 16;
constexpr std::size_t kHexColumns = 48;

void appendLine(std::string& dump, std::string_view line) {
    constexpr std::string_view kDigits = "0123456789ABCDEF";
    std::string hex;
    std::string characters;
    for (const char c : line) {
        const auto byte = static_cast<unsigned char>(c);
        hex += kDigits[byte >> 4U];
        hex += kDigits[byte & 0xfU];
        hex += ' ';
        characters += byte >= ' ' && byte <= '~' ? c : '.';
    }
    hex.resize(kHexColumns, ' ');
    dump.append(hex).append(" [").append(characters).append("]\n");
}

} // namespace

std::string hexDump(std::string_view bytes) {
    std::string dump;
    for (std::size_t at = 0; at < bytes.size(); at += kBytesPerLine) {
        appendLine(dump, bytes.substr(at, kBytesPerLine));
    }
    return dump;
}

} // namespace orvexd
