#include "OutputFile.h"

#include "Failure.h"
#include "FileDescriptor.h"
#include "Printable.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <gio/gunixoutputstream.h>
#include <optional>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace orvexd::ctl {
namespace {

constexpr mode_t kNewFile = 0666; // less what the umask takes

[[noreturn]] void throwErrno(const char* doing, const std::string& path) {
    const int number = errno;
    throw Failure{ExitStatus::Local, std::string("Cannot ") + doing + " " + printable(path) + ": " +
                                         g_strerror(number) + "."};
}

std::optional<struct stat> lookAt(const std::string& path) {
    struct stat status {};
    if (stat(path.c_str(), &status) == 0) {
        return status;
    }
    return std::nullopt;
}

/// The file that a name stands for: the new bytes go there, and the links to it stay.
std::string withoutLinks(const std::string& path) {
    const TextRef resolved{realpath(path.c_str(), nullptr)};
    return resolved == nullptr ? path : resolved.get();
}

/// A new file beside `path`, with the rights and the owner of the old one.
int createBeside(const std::string& path, const std::optional<struct stat>& old,
                 std::string& name) {
    name = path + ".XXXXXX";
    const int fd = g_mkstemp_full(name.data(), O_WRONLY | O_CLOEXEC, kNewFile);
    if (fd < 0) {
        const int number = errno;
        name.clear();
        errno = number;
        throwErrno("create a file beside", path);
    }
    if (old) {
        // Whoever may not give files away keeps them.
        (void)!fchown(fd, old->st_uid, old->st_gid);
        (void)fchmod(fd, old->st_mode & 07777U);
    }
    return fd;
}

} // namespace

OutputFile::OutputFile(const std::string& path) : path_(withoutLinks(path)) {
    const auto old = lookAt(path_);
    const bool isOrdinary = !old || S_ISREG(old->st_mode);
    if (isOrdinary && old && access(path_.c_str(), W_OK) != 0) {
        throwErrno("write", path_);
    }
    const int fd = isOrdinary ? createBeside(path_, old, temporary_) : openFile(path_, O_WRONLY);
    stream_.reset(g_unix_output_stream_new(fd, TRUE));
}

OutputFile::OutputFile(OutputFile&& other) noexcept
    : path_(std::move(other.path_)),
      temporary_(std::exchange(other.temporary_, {})),
      stream_(std::move(other.stream_)) {}

OutputFile::~OutputFile() {
    if (!temporary_.empty()) {
        (void)unlink(temporary_.c_str());
    }
}

void OutputFile::finish() {
    const ObjectRef<GOutputStream> stream = std::move(stream_);
    if (stream == nullptr) {
        return;
    }
    // The new name must not come before the bytes, whatever ends the machine.
    if (!temporary_.empty() &&
        fsync(g_unix_output_stream_get_fd(G_UNIX_OUTPUT_STREAM(stream.get()))) != 0) {
        throwErrno("write", path_);
    }
    ErrorSlot error;
    if (g_output_stream_close(stream.get(), nullptr, error.out()) == FALSE) {
        throw Failure::fromFile("write " + path_, *error);
    }
}

void OutputFile::commit() {
    if (temporary_.empty()) {
        return;
    }
    if (rename(temporary_.c_str(), path_.c_str()) != 0) {
        throwErrno("replace", path_);
    }
    temporary_.clear();
}

void OutputFile::keepPartial() noexcept {
    if (!temporary_.empty() && rename(temporary_.c_str(), (path_ + ".partial").c_str()) == 0) {
        temporary_.clear();
    }
}

} // namespace orvexd::ctl
