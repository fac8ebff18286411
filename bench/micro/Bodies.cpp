#include "Bodies.h"

#include <random>

namespace orvexd::bench {

namespace {

constexpr std::string_view kBoundary = "answer_0123456789abcdefghijklmnopqrstuvwxyz";

std::string delimiter() {
    return "\r\n--" + std::string(kBoundary);
}

/// Any bytes, none of which are rare: a search for a single one stops often.
std::string someBytes(std::size_t count) {
    std::mt19937 random(1); // NOLINT(*-msc51-cpp): the same bytes in every run
    std::string bytes(count, '\0');
    for (char& byte : bytes) {
        byte = static_cast<char>(random());
    }
    return bytes;
}

} // namespace

Response makeResponse(std::size_t parts, std::size_t bytes) {
    Response response;
    response.parts = parts;
    response.head =
        "HTTP/1.1 200 OK\r\nContent-Type: multipart/related; type=\"text/xml\"; boundary=\"" +
        std::string(kBoundary) + "\"; start=\"start\"\r\n\r\n";
    std::string document = "<SimpleLocationProtocol version=\"2.0\"><SlpResponse status=\"ok\">\n";
    for (std::size_t i = 0; i < parts; ++i) {
        document.append("<result oid=\"1\" href=\"cid:a")
            .append(std::to_string(i))
            .append("\"/>\n");
    }
    document += "</SlpResponse></SimpleLocationProtocol>\n";
    response.body =
        delimiter() + "\r\nContent-Type: text/xml\r\nContent-Id: start\r\n\r\n" + document;
    const std::string data = someBytes(bytes);
    for (std::size_t i = 0; i < parts; ++i) {
        response.body.append(delimiter())
            .append("\r\nContent-Type: application/octet-stream\r\n"
                    "Content-Transfer-Encoding: binary\r\nContent-Id: a")
            .append(std::to_string(i))
            .append("\r\n\r\n")
            .append(data);
    }
    response.body.append(delimiter()).append("--\r\n");
    return response;
}

std::string makeText(std::size_t bytes, std::size_t line) {
    std::string text(bytes, 't');
    for (std::size_t at = line; line > 0 && at < bytes; at += line) {
        text[at] = '\n';
    }
    return text;
}

} // namespace orvexd::bench
