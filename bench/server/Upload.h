#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace orvexd::bench {

/// Reads one chunked POST as it arrives: its head, how many requests the SLP document names, how
/// many bytes the body has, where it ends.
class Upload {
public:
    /// @return true when the last chunk has arrived.
    bool feed(std::string_view bytes);

    std::size_t requests() const noexcept { return requests_; }
    std::uint64_t headBytes() const noexcept { return headBytes_; }
    std::uint64_t bodyBytes() const noexcept { return bodyBytes_; } ///< without the chunks' framing
    std::uint64_t documentBytes() const noexcept { return documentBytes_; }

private:
    enum class Place { Head, ChunkSize, Chunk, ChunkEnd, Done };

    std::string_view feedHead(std::string_view bytes);
    std::string_view feedChunkSize(std::string_view bytes);
    std::string_view feedChunk(std::string_view bytes);
    std::string_view feedChunkEnd(std::string_view bytes);
    void collectDocument(std::string_view bytes);

    Place place_ = Place::Head;
    std::string line_;     // the head, or a chunk's size line, while it is incomplete
    std::string document_; // the body up to the end of the SLP document
    bool documentRead_ = false;
    std::uint64_t chunkLeft_ = 0;
    std::size_t endLeft_ = 0;
    bool lastChunk_ = false;
    std::size_t requests_ = 0;
    std::uint64_t headBytes_ = 0;
    std::uint64_t bodyBytes_ = 0;
    std::uint64_t documentBytes_ = 0;
};

} // namespace orvexd::bench
