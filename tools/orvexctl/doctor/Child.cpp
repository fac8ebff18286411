#include "doctor/Child.h"

#include "GioHandles.h"
#include "Timer.h"
#include "findings/Privileges.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <gio/gunixinputstream.h>
#include <poll.h>
#include <sys/prctl.h>
#include <unistd.h>

namespace orvexd::ctl {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t kLongestLine = std::size_t{1} << 20U;

/// What the child does before it becomes another program.
struct Setup {
    pid_t parent;
    bool confined;

    static void run(gpointer self) noexcept {
        const auto& setup = *static_cast<const Setup*>(self);
        // NOLINTNEXTLINE(cppcoreguidelines-pro-type-vararg): prctl is declared so
        (void)prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != setup.parent) {
            _exit(1); // the parent has ended meanwhile, and no signal comes any more
        }
        if (setup.confined) {
            findings::dropCapabilitiesForGood();
        }
    }
};

std::vector<std::string> pairsOf(const Child::Environment& environment) {
    std::vector<std::string> pairs;
    pairs.reserve(environment.size());
    for (const auto& [name, value] : environment) {
        pairs.emplace_back(name).append("=").append(value);
    }
    return pairs;
}

/// As C wants a list of texts; it lives as long as the texts.
std::vector<char*> pointersTo(std::vector<std::string>& texts) {
    std::vector<char*> pointers;
    pointers.reserve(texts.size() + 1);
    for (std::string& text : texts) {
        pointers.push_back(text.data());
    }
    pointers.push_back(nullptr);
    return pointers;
}

/// Hands on whole lines.
class Lines {
public:
    explicit Lines(const Child::LineTaker& take) : take_{take} {}

    void add(std::string_view bytes) {
        rest_.append(bytes);
        for (std::size_t end = 0; (end = rest_.find('\n')) != std::string::npos;) {
            take_(rest_.substr(0, end));
            rest_.erase(0, end + 1);
        }
    }
    void finish() {
        if (!rest_.empty()) {
            take_(rest_);
        }
    }
    [[nodiscard]] bool isTooLong() const { return rest_.size() > kLongestLine; }

private:
    const Child::LineTaker& take_;
    std::string rest_;
};

/// @return false when the time was up before the end of what is written there.
bool readLines(int pipe, Clock::time_point latest, const Child::LineTaker& take) {
    Lines lines{take};
    std::array<char, 4096> block{};
    for (;;) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(latest - Clock::now()).count();
        pollfd readable{pipe, POLLIN, 0};
        const int ready = left > 0 ? poll(&readable, 1, static_cast<int>(left)) : 0;
        if (ready < 0 && errno == EINTR) {
            continue;
        }
        const ssize_t count = ready > 0 ? read(pipe, block.data(), block.size()) : -1;
        if (count == 0) {
            lines.finish();
            return true;
        }
        if (count < 0 || lines.isTooLong()) {
            return false;
        }
        lines.add({block.data(), static_cast<std::size_t>(count)});
    }
}

/// Waits for the end of a child that has closed its output. One that does not end is killed.
bool endsWithin(GSubprocess* child, Clock::time_point latest) {
    bool isOver = false;
    bool isLate = false;
    Timer timer;
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(latest - Clock::now());
    timer.once(std::max(left, std::chrono::milliseconds{1}), [&] {
        isLate = true;
        g_subprocess_force_exit(child);
    });
    g_subprocess_wait_async(
        child, nullptr,
        [](GObject* source, GAsyncResult* result, gpointer over) {
            (void)g_subprocess_wait_finish(G_SUBPROCESS(source), result, nullptr);
            *static_cast<bool*>(over) = true;
        },
        &isOver);
    while (!isOver) {
        g_main_context_iteration(nullptr, TRUE);
    }
    return !isLate;
}

} // namespace

Child::End Child::run(std::chrono::milliseconds patience, const LineTaker& take) const {
    const Clock::time_point latest = Clock::now() + patience;
    const int quiet = silent_ ? G_SUBPROCESS_FLAGS_STDERR_SILENCE : G_SUBPROCESS_FLAGS_NONE;
    const ObjectRef<GSubprocessLauncher> launcher{g_subprocess_launcher_new(
        static_cast<GSubprocessFlags>(G_SUBPROCESS_FLAGS_STDOUT_PIPE | quiet))};
    std::vector<std::string> words = words_;
    std::vector<std::string> pairs = pairsOf(environment_);
    Setup setup{getpid(), confined_};
    g_subprocess_launcher_set_environ(launcher.get(), pointersTo(pairs).data());
    g_subprocess_launcher_set_child_setup(launcher.get(), &Setup::run, &setup, nullptr);
    const ObjectRef<GSubprocess> child{
        g_subprocess_launcher_spawnv(launcher.get(), pointersTo(words).data(), nullptr)};
    if (!child) {
        return End::NotStarted;
    }
    const int pipe =
        g_unix_input_stream_get_fd(G_UNIX_INPUT_STREAM(g_subprocess_get_stdout_pipe(child.get())));
    const bool isRead = readLines(pipe, latest, take);
    if (!isRead) {
        g_subprocess_force_exit(child.get());
    }
    if (!endsWithin(child.get(), latest) || !isRead) {
        return End::TooLate;
    }
    return g_subprocess_get_successful(child.get()) != FALSE ? End::Success : End::Failure;
}

std::string Child::output(std::chrono::milliseconds patience) const {
    std::string text;
    const End end = run(patience, [&](const std::string& line) { text.append(line) += '\n'; });
    return end == End::Success || end == End::Failure ? text : std::string();
}

} // namespace orvexd::ctl
