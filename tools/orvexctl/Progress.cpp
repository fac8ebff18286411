#include "Progress.h"

#include "GioHandles.h"

#include <cstdio>

namespace orvexd::ctl {
namespace {

constexpr std::chrono::milliseconds kRedrawPeriod{200};

std::string sizeText(std::uint64_t bytes) {
    return TextRef{g_format_size_full(bytes, G_FORMAT_SIZE_IEC_UNITS)}.get();
}

} // namespace

Progress::Progress(bool shown) : shown_{shown}, start_{std::chrono::steady_clock::now()} {
    if (shown_)
        redraw_.every(kRedrawPeriod, [this] { draw(); });
}

Progress::~Progress() {
    if (!shown_)
        return;
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
    std::string line = key_.empty() ? "" : "request " + key_ + "  ";
    line.append(state_).append("  up ").append(sizeText(sent_));
    if (total_)
        line.append(" of ").append(sizeText(*total_));
    line.append("  down ").append(sizeText(received_));
    // ESC [ K clears what is left of a longer line before.
    std::fprintf(stderr, "\r%s  %d:%02d\033[K", line.c_str(), minutes, seconds);
    std::fflush(stderr);
}

} // namespace orvexd::ctl
