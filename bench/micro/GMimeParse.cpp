#include "GMimeParse.h"

#include "support/FreeWith.h"

#include <gmime/gmime.h>
#include <memory>

namespace orvexd::bench {

namespace {

template <typename Object> using Reference = std::unique_ptr<Object, FreeWith<g_object_unref>>;

} // namespace

std::string makeGMimeMessage(const Response& response) {
    return "MIME-Version: 1.0\r\n" + response.head.substr(response.head.find("Content-Type")) +
           response.body;
}

bool parseGMime(const Response& response, const std::string& message) {
    static const bool initialised = (g_mime_init(), true);
    (void)initialised;
    const Reference<GMimeStream> stream(
        g_mime_stream_mem_new_with_buffer(message.data(), message.size()));
    const Reference<GMimeParser> parser(g_mime_parser_new_with_stream(stream.get()));
    const Reference<GMimeObject> object(g_mime_parser_construct_part(parser.get(), nullptr));
    return object && GMIME_IS_MULTIPART(object.get()) &&
           g_mime_multipart_get_count(GMIME_MULTIPART(object.get())) ==
               static_cast<int>(response.parts) + 1;
}

} // namespace orvexd::bench
