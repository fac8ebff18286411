#pragma once

#include "GioHandles.h"

#include <string>

namespace orvexd::ctl {

/// A file that is written as a whole or not at all. The bytes go to a file beside it, which takes
/// its name when they are complete: until then an old file stays as it was, also when it is the
/// source of the bytes. What is no ordinary file (a device, a pipe) is written directly.
class OutputFile {
public:
    /// @throws Failure when the file beside it cannot be made, or the device not be opened.
    explicit OutputFile(const std::string& path);
    /// What is not complete is removed.
    ~OutputFile();
    OutputFile(OutputFile&& other) noexcept;
    OutputFile& operator=(OutputFile&&) = delete;
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;

    /// Takes the bytes; closed by `finish`.
    [[nodiscard]] GOutputStream* stream() const noexcept { return stream_.get(); }
    [[nodiscard]] const std::string& path() const noexcept { return path_; }

    /// All bytes are written: they have reached the file system when this returns.
    /// @throws Failure when they cannot be kept.
    void finish();

    /// Gives the bytes the name of the file. After `finish`. @throws Failure
    void commit();

    /// Gives what there is the name of the file with ".partial" behind it. Does not throw: this is
    /// for bytes of a request that has failed already.
    void keepPartial() noexcept;

private:
    std::string path_;
    std::string temporary_; ///< empty when there is none (any more)
    ObjectRef<GOutputStream> stream_;
};

} // namespace orvexd::ctl
