#pragma once

#include "Failure.h"
#include "GioHandles.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

namespace orvexd::ctl {

/// A request's bytes, from a file or from standard input, in pieces of bounded size. Reads only
/// when asked, so no more than one piece is in memory.
class DataSource {
public:
    static constexpr gsize kPieceSize = 65536;

    /// @param path "-" is standard input. @throws Failure when the file cannot be opened.
    explicit DataSource(const std::string& path);

    /// Number of bytes in all, when it is known beforehand.
    [[nodiscard]] std::optional<std::uint64_t> size() const noexcept { return size_; }

    /// Gets the next bytes, at most kPieceSize; none at all at the end. One call at a time.
    void read(GCancellable* cancellable, std::function<void(Outcome<BytesRef>)> handler);

private:
    std::string name_;
    ObjectRef<GInputStream> stream_;
    std::optional<std::uint64_t> size_;
};

} // namespace orvexd::ctl
