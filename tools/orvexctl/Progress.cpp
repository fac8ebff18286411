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

Progress::Progress(bool shown) : shown_{shown}, start_{std::chrono::steady_clock::now()} {
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

void Progress::draw() {
    using std::chrono::duration_cast;
    const auto elapsed = std::chrono::steady_clock::now() - start_;
    const auto minutes = static_cast<int>(duration_cast<std::chrono::minutes>(elapsed).count());
    const auto seconds =
        static_cast<int>(duration_cast<std::chrono::seconds>(elapsed).count() % 60);
    const TextRef clock{g_strdup_printf("  %d:%02d", minutes, seconds)};
    const std::string name = key_.empty() ? "" : "request " + key_ + "  ";
    const std::string up = "  up " + sizeText(sent_);
    const std::string total = total_ ? " of " + sizeText(*total_) : "";
    const std::string rest = "  down " + sizeText(received_) + clock.get();
    // A line that wraps is not redrawn in place, and the last column belongs to the cursor: on a
    // narrow terminal, what is the same all the time goes first.
    const std::string line =
        fitting({name + state_ + up + total + rest, state_ + up + total + rest, state_ + up + rest},
                columns() - 1);
    // ESC [ K clears what is left of a longer line before.
    std::fprintf(stderr, "\r%s\033[K", line.c_str());
    std::fflush(stderr);
}

} // namespace orvexd::ctl
