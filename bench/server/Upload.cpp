#include "Upload.h"

#include <algorithm>
#include <charconv>

namespace orvexd::bench {

namespace {

constexpr std::string_view kHeadEnd = "\r\n\r\n";
constexpr std::string_view kLineEnd = "\r\n";
constexpr std::string_view kDocumentEnd = "</SimpleLocationProtocol>";

std::size_t countOf(std::string_view text, std::string_view needle) {
    std::size_t count = 0;
    for (std::size_t at = text.find(needle); at != std::string_view::npos;
         at = text.find(needle, at + needle.size())) {
        ++count;
    }
    return count;
}

} // namespace

bool Upload::feed(std::string_view bytes) {
    while (!bytes.empty() && place_ != Place::Done) {
        switch (place_) {
        case Place::Head:
            bytes = feedHead(bytes);
            break;
        case Place::ChunkSize:
            bytes = feedChunkSize(bytes);
            break;
        case Place::Chunk:
            bytes = feedChunk(bytes);
            break;
        case Place::ChunkEnd:
            bytes = feedChunkEnd(bytes);
            break;
        case Place::Done:
            break;
        }
    }
    return place_ == Place::Done;
}

std::string_view Upload::feedHead(std::string_view bytes) {
    const std::size_t before = line_.size();
    line_.append(bytes);
    const std::size_t end = line_.find(kHeadEnd);
    if (end == std::string::npos) {
        return {};
    }
    headBytes_ = end + kHeadEnd.size();
    line_.clear();
    place_ = Place::ChunkSize;
    return bytes.substr(end + kHeadEnd.size() - before);
}

std::string_view Upload::feedChunkSize(std::string_view bytes) {
    const std::size_t before = line_.size();
    line_.append(bytes.substr(0, 32)); // more than any size line has
    const std::size_t end = line_.find(kLineEnd);
    if (end == std::string::npos) {
        return bytes.substr(line_.size() - before);
    }
    chunkLeft_ = 0;
    std::from_chars(line_.data(), line_.data() + end, chunkLeft_, 16);
    lastChunk_ = chunkLeft_ == 0;
    endLeft_ = kLineEnd.size();
    line_.clear();
    place_ = lastChunk_ ? Place::ChunkEnd : Place::Chunk;
    return bytes.substr(end + kLineEnd.size() - before);
}

std::string_view Upload::feedChunk(std::string_view bytes) {
    const auto size = static_cast<std::size_t>(std::min<std::uint64_t>(chunkLeft_, bytes.size()));
    bodyBytes_ += size;
    chunkLeft_ -= size;
    if (!documentRead_) {
        collectDocument(bytes.substr(0, size));
    }
    if (chunkLeft_ == 0) {
        place_ = Place::ChunkEnd;
    }
    return bytes.substr(size);
}

std::string_view Upload::feedChunkEnd(std::string_view bytes) {
    const std::size_t size = std::min(endLeft_, bytes.size());
    endLeft_ -= size;
    if (endLeft_ == 0) {
        place_ = lastChunk_ ? Place::Done : Place::ChunkSize;
    }
    return bytes.substr(size);
}

void Upload::collectDocument(std::string_view bytes) {
    const std::size_t from = document_.size() - std::min(document_.size(), kDocumentEnd.size());
    document_.append(bytes);
    const std::size_t end = document_.find(kDocumentEnd, from);
    if (end == std::string::npos) {
        return;
    }
    documentRead_ = true;
    documentBytes_ = end + kDocumentEnd.size();
    requests_ = countOf(std::string_view(document_).substr(0, end), "href=\"cid:part");
    document_ = std::string();
}

} // namespace orvexd::bench
