#pragma once

#include <array>
#include <csignal>
#include <cstdlib>
#include <functional>
#include <string>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace orvexd::test {

/// How a process ended.
struct Ending {
    int status = -1;    ///< exit status, -1 after a signal
    std::string report; ///< what it and its children wrote into the report
};

/// Runs `work` in a child of its own and waits for it and for what it leaves behind. `work` gets a
/// file descriptor to report to; its result is the exit status. The child ends by _exit.
inline Ending runInChild(const std::function<int(int report)>& work) {
    std::array<int, 2> pipeEnds{};
    if (pipe(pipeEnds.data()) != 0) {
        return {};
    }
    prctl(PR_SET_CHILD_SUBREAPER, 1L); // a detached grandchild becomes ours
    const pid_t child = fork();
    if (child == 0) {
        close(pipeEnds[0]);
        alarm(30); // never left behind
        _exit(work(pipeEnds[1]));
    }
    close(pipeEnds[1]);
    Ending ending;
    std::array<char, 512> piece{};
    for (ssize_t size = 0; (size = read(pipeEnds[0], piece.data(), piece.size())) > 0;) {
        ending.report.append(piece.data(), static_cast<std::size_t>(size));
    }
    close(pipeEnds[0]);
    int raw = 0;
    if (waitpid(child, &raw, 0) == child && WIFEXITED(raw)) {
        ending.status = WEXITSTATUS(raw);
    }
    while (waitpid(-1, nullptr, 0) > 0) { // grandchildren
    }
    prctl(PR_SET_CHILD_SUBREAPER, 0L);
    return ending;
}

inline void report(int descriptor, const std::string& text) {
    [[maybe_unused]] const ssize_t written = write(descriptor, text.data(), text.size());
}

} // namespace orvexd::test
