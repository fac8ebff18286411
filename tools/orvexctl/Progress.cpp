#include "Progress.h"

#include "GioHandles.h"

#include <algorithm>
#include <cstdio>
#include <initializer_list>
#include <sys/ioctl.h>
#include <unistd.h>

namespace orvexd::ctl {
namespace {

constexpr std::chrono::milliseconds kRedrawPeriod{200};

std::string sizeText(std::uint64_t bytes) {
    return TextRef{g_format_size_full(bytes, G_FORMAT_SIZE_IEC_UNITS)}.get();
}

/// "5 % of 2.0 GiB"
std::string shareText(std::uint64_t part, std::uint64_t whole) {
    const double share = whole == 0 ? 1.0 : static_cast<double>(part) / static_cast<double>(whole);
    return std::to_string(static_cast<unsigned>(100 * share)) + " % of " + sizeText(whole);
}

/// Characters that a line of the terminal on standard error holds.
long columns() {
    constexpr long kUsual = 80;
    winsize size{};
    const bool known = ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0;
    return known ? size.ws_col : kUsual;
}

/// @return the first candidate that fits, else the beginning of the last one.
std::string fitting(std::initializer_list<std::string> candidates, long width) {
    for (const std::string& candidate : candidates) {
        if (g_utf8_strlen(candidate.c_str(), -1) <= width) {
            return candidate;
        }
    }
    const TextRef start{g_utf8_substring(std::data(candidates)[candidates.size() - 1].c_str(), 0,
                                         std::max(width, 0L))};
    return start.get();
}

} // namespace

Progress::Progress(bool shown) : shown_{shown}, start_{Clock::now()}, measured_{start_} {
    if (shown_) {
        redraw_.every(kRedrawPeriod, [this] { draw(); });
    }
}

Progress::~Progress() {
    if (!shown_) {
        return;
    }
    draw();
    std::fputc('\n', stderr);
}

void Progress::setKey(std::string key) {
    key_ = std::move(key);
}

void Progress::setState(std::string state) {
    state_ = std::move(state);
}

/// Takes the rate of the last second; of less when nothing longer is known.
void Progress::measure(Clock::time_point now) {
    using Milliseconds = std::chrono::milliseconds;
    const auto passed = std::chrono::duration_cast<Milliseconds>(now - measured_).count();
    const std::uint64_t bytes = sent_ + received_;
    if (passed > 0 && (!rate_ || passed >= 1000)) {
        rate_ = (bytes - measuredBytes_) * 1000 / static_cast<std::uint64_t>(passed);
    }
    if (passed >= 1000) {
        measured_ = now;
        measuredBytes_ = bytes;
    }
}

void Progress::draw() {
    using std::chrono::duration_cast;
    const auto now = Clock::now();
    measure(now);
    const auto minutes =
        static_cast<int>(duration_cast<std::chrono::minutes>(now - start_).count());
    const auto seconds =
        static_cast<int>(duration_cast<std::chrono::seconds>(now - start_).count() % 60);
    const TextRef clock{g_strdup_printf("  %d:%02d", minutes, seconds)};
    const std::string name = key_.empty() ? "" : "request " + key_ + "  ";
    const std::string up = "  up " + (total_ ? shareText(sent_, *total_) : sizeText(sent_));
    const std::string down = "  down " + sizeText(received_);
    const std::string rate = rate_ ? "  " + sizeText(*rate_) + "/s" : "";
    const std::string time = clock.get();
    // A line that wraps is not redrawn in place, and the last column belongs to the cursor: on a
    // narrow terminal, what is the same all the time goes first.
    const std::string line = fitting({name + state_ + up + down + rate + time,
                                      state_ + up + down + rate + time, state_ + up + down + time},
                                     columns() - 1);
    // ESC [ K clears what is left of a longer line before.
    std::fprintf(stderr, "\r%s\033[K", line.c_str());
    std::fflush(stderr);
}

} // namespace orvexd::ctl
