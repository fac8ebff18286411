#include "WatchPoints.h"

#include <deque>
#include <system_error>

namespace trilba {

namespace fs = std::filesystem;

namespace {

constexpr int kMostLinks = 40; // as many as the kernel follows

/// Follows a path as the kernel does, one name after the other.
class Walk {
public:
    explicit Walk(const fs::path& path) { goBy(fs::absolute(path, ignored_)); }

    std::vector<WatchPoint> points() {
        while (!ahead_.empty() && step()) {
        }
        return points_;
    }

private:
    void goBy(const fs::path& path) {
        if (path.is_absolute()) {
            here_ = "/";
        }
        const fs::path names = path.relative_path();
        ahead_.insert(ahead_.begin(), names.begin(), names.end());
    }

    /// @return false at the end of the way.
    bool step() {
        const fs::path name = ahead_.front();
        ahead_.pop_front();
        if (name.empty() || name == ".") {
            return true;
        }
        if (name == "..") {
            here_ = here_.parent_path();
            return true;
        }
        return enter(name);
    }

    bool enter(const fs::path& name) {
        const fs::file_type type = fs::symlink_status(here_ / name, ignored_).type();
        if (type == fs::file_type::directory && !ahead_.empty()) {
            here_ /= name;
            return true;
        }
        points_.push_back({here_, name});
        if (type != fs::file_type::symlink || ++links_ > kMostLinks) {
            return false;
        }
        goBy(fs::read_symlink(here_ / name, ignored_));
        return true;
    }

    std::error_code ignored_; // the walk ends at what cannot be read
    fs::path here_;
    std::deque<fs::path> ahead_;
    int links_ = 0;
    std::vector<WatchPoint> points_;
};

} // namespace

std::vector<WatchPoint> watchPoints(const fs::path& path) {
    return Walk(path).points();
}

} // namespace trilba
