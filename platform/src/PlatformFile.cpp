#include "PlatformFile.h"

#include "LibraryMutex.h"

#include <array>
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <mutex>
#include <optional>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace trilba {

namespace {

constexpr const char* kDefaultPath = "/etc/trilba/platform.conf";
constexpr std::size_t kLargestFile = 1024UL * 1024; // bytes; a larger one is no platform file

class FileDescriptor {
public:
    explicit FileDescriptor(int number) noexcept : number_(number) {}
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    ~FileDescriptor() {
        if (number_ >= 0) {
            close(number_);
        }
    }

    [[nodiscard]] int get() const noexcept { return number_; }

private:
    int number_;
};

enum class Condition { Good, Missing, HalfWritten, Unreadable };

struct Content {
    Condition condition;
    std::string text = {};
};

bool modifiedWithin(const struct stat& status, std::chrono::milliseconds span) {
    using std::chrono::nanoseconds;
    using std::chrono::seconds;
    const auto age = std::chrono::system_clock::now().time_since_epoch() -
                     seconds(status.st_mtim.tv_sec) - nanoseconds(status.st_mtim.tv_nsec);
    return age < span &&
           age > -span; // a file from the future, after the clock was set back, is old
}

Condition conditionOfEmpty(int file) {
    struct stat status = {};
    const bool fresh = fstat(file, &status) == 0 &&
                       modifiedWithin(status, PlatformFile::kEmptyCountsAsHalfWritten);
    return fresh ? Condition::HalfWritten : Condition::Good;
}

Content contentOf(int file) {
    std::string text;
    std::array<char, 4096> block; // NOLINT(cppcoreguidelines-pro-type-member-init): read fills it
    while (text.size() <= kLargestFile) {
        const ssize_t count = ::read(file, block.data(), block.size());
        if (count > 0) {
            text.append(block.data(), static_cast<std::size_t>(count));
        } else if (count == 0) {
            return {text.empty() ? conditionOfEmpty(file) : Condition::Good, std::move(text)};
        } else if (errno != EINTR) {
            break;
        }
    }
    return {Condition::Unreadable};
}

Content contentOf(const std::string& path) {
    // Non-blocking, because opening a FIFO without a writer would hold the caller.
    const FileDescriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    if (file.get() < 0) {
        return {errno == ENOENT || errno == ENOTDIR ? Condition::Missing : Condition::Unreadable};
    }
    struct stat status = {};
    if (fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode)) {
        return {Condition::Unreadable};
    }
    return contentOf(file.get());
}

/// What the file said when it was last good. Readings overlap when several threads ask. The reading
/// that began last is kept, so that a slow older one does not bring back an old state.
class LastGood {
public:
    std::uint64_t begin() {
        const std::lock_guard hold(libraryMutex());
        return ++begun_;
    }

    void keep(std::uint64_t reading, const std::string& path,
              const std::shared_ptr<const Settings>& settings) {
        const std::lock_guard hold(libraryMutex());
        if (reading < kept_) {
            return;
        }
        kept_ = reading;
        path_ = path;
        settings_ = settings;
    }

    std::shared_ptr<const Settings> of(const std::string& path) {
        const std::lock_guard hold(libraryMutex());
        return settings_ && path_ == path ? settings_ : std::make_shared<const Settings>(unread());
    }

private:
    /// Nobody knows what the file says, so no other source may take its place.
    static Settings unread() {
        Settings settings;
        settings.source = SourceWish::File;
        return settings;
    }

    std::uint64_t begun_ = 0;                  // guarded by libraryMutex()
    std::uint64_t kept_ = 0;                   // guarded by libraryMutex()
    std::string path_;                         // guarded by libraryMutex()
    std::shared_ptr<const Settings> settings_; // guarded by libraryMutex()
};

LastGood& lastGood() {
    // Never destroyed: a thread may still ask while the process ends.
    static LastGood& instance = *std::make_unique<LastGood>().release();
    return instance;
}

std::optional<Settings> settingsOf(const Content& content) {
    switch (content.condition) {
    case Condition::Good:
        return parseSettings(content.text);
    case Condition::Missing:
        return Settings{};
    case Condition::HalfWritten:
    case Condition::Unreadable:
        break;
    }
    return std::nullopt;
}

/// What the environment names; empty: nothing.
std::string namedPath() {
    const char* named = std::getenv("TRILBA_PLATFORM_CONF");
    return named == nullptr ? "" : named;
}

} // namespace

std::string PlatformFile::path() {
    const std::string named = namedPath();
    return named.empty() ? kDefaultPath : named;
}

bool PlatformFile::isNamed() {
    return !namedPath().empty();
}

PlatformFile::Reading PlatformFile::read(const std::string& path) {
    const std::uint64_t reading = lastGood().begin();
    const Content content = contentOf(path);
    const bool lookAgain = content.condition == Condition::HalfWritten;
    auto settings = settingsOf(content);
    if (!settings) {
        return {lastGood().of(path), lookAgain};
    }
    auto fresh = std::make_shared<const Settings>(std::move(*settings));
    lastGood().keep(reading, path, fresh);
    return {std::move(fresh), lookAgain};
}

} // namespace trilba
