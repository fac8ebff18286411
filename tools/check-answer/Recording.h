#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace orvexd::check {

/// An answer as somebody has recorded it: heads, if there are any, and the body as libcurl would
/// hand it on, without the framing of chunks.
class Recording {
public:
    /// @param bytes of the file.
    /// @param contentType given when the bytes are a body alone; a head is made of it.
    Recording(std::string bytes, const std::string& contentType);
    ~Recording() = default;
    Recording(const Recording&) = delete;
    Recording& operator=(const Recording&) = delete;

    /// Each with the empty line that ends it; none when the text does not begin with one.
    [[nodiscard]] const std::vector<std::string_view>& heads() const noexcept { return heads_; }
    [[nodiscard]] std::string_view body() const noexcept { return body_; }

    /// Whether the file held the body in chunks, which are put together in `body`.
    [[nodiscard]] bool wasChunked() const noexcept { return wasChunked_; }

    /// The number of the line, from 1, in which a byte of a head or of the body stands, counted in
    /// the file; in a body that was chunked, from the body's beginning.
    [[nodiscard]] std::size_t lineOf(const char* place) const noexcept;

private:
    void takeHeads();
    void joinChunks();

    std::string text_;
    std::string joined_;
    std::size_t madeUp_ = 0; ///< bytes at the front of the text that are not in the file
    std::vector<std::string_view> heads_;
    std::string_view body_;
    bool wasChunked_ = false;
};

} // namespace orvexd::check
