#pragma once

#include "GioHandles.h"

#include <cstdint>
#include <optional>
#include <string>

namespace orvexd::ctl {

/// A request's bytes, from a file or from standard input.
class DataSource {
public:
    /// @param path "-" is standard input. @throws Failure when the file cannot be opened.
    explicit DataSource(const std::string& path);

    /// Number of bytes in all, when it is known beforehand.
    [[nodiscard]] std::optional<std::uint64_t> size() const noexcept { return size_; }

    /// For messages.
    [[nodiscard]] const std::string& name() const noexcept { return name_; }

    [[nodiscard]] GInputStream* stream() const noexcept { return stream_.get(); }

    /// Whether there is nothing to read at this moment, though more may come.
    [[nodiscard]] bool isDry() const;

private:
    std::string name_;
    ObjectRef<GInputStream> stream_;
    std::optional<std::uint64_t> size_;
};

} // namespace orvexd::ctl
