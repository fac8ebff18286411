#include "Watcher.h"

#include <csignal>
#include <cstdio>
#include <glib-unix.h>
#include <utility>

namespace trilba::tool {

namespace {

using Loop = std::unique_ptr<GMainLoop, FreeWith<g_main_loop_unref>>;

constexpr std::chrono::milliseconds kLook{20}; // whether there is an answer
constexpr int kCannotPrint = 2;

Source timerOf(std::chrono::milliseconds interval, GSourceFunc run, gpointer data) {
    Source timer(g_timeout_source_new(static_cast<guint>(interval.count())));
    g_source_set_callback(timer.get(), run, data, nullptr);
    g_source_attach(timer.get(), nullptr);
    return timer;
}

gboolean carryOn(gpointer /*data*/) noexcept {
    return G_SOURCE_CONTINUE; // the loop looks around again
}

gboolean quit(gpointer loop) noexcept {
    g_main_loop_quit(static_cast<GMainLoop*>(loop));
    return G_SOURCE_CONTINUE;
}

} // namespace

Watcher::Watcher(Arguments arguments)
    : arguments_(std::move(arguments)), manager_(network::IConnectionManager::create(nullptr)) {}

int Watcher::run() {
    awaitAnswer();
    print();
    if (arguments_.watch && !cannotPrint_) {
        watch();
    }
    return cannotPrint_ ? kCannotPrint : status_;
}

void Watcher::awaitAnswer() {
    const gint64 latest =
        g_get_monotonic_time() + std::chrono::microseconds(arguments_.wait).count();
    const Source timer = timerOf(kLook, &carryOn, nullptr);
    while (!describe(*manager_).hasAnswered && g_get_monotonic_time() < latest) {
        g_main_context_iteration(nullptr, TRUE);
    }
}

void Watcher::watch() {
    const Loop loop(g_main_loop_new(nullptr, FALSE));
    g_unix_signal_add(SIGINT, &quit, loop.get());
    g_unix_signal_add(SIGTERM, &quit, loop.get());
    onDescriptionChange(*manager_, [this, &loop] {
        print();
        if (cannotPrint_) {
            g_main_loop_quit(loop.get());
        }
    });
    g_main_loop_run(loop.get());
}

Report Watcher::report() {
    Description description = describe(*manager_);
    FileFindings findings =
        findIn(description.path, description.source == SourceName::NetworkManager);
    return {std::move(description), std::move(findings)};
}

/// Prints what differs from what was printed last.
void Watcher::print() {
    const Report now = report();
    const std::string text = arguments_.json ? now.json() : now.text();
    status_ = now.status();
    if (text == printed_) {
        return;
    }
    const bool isFirst = printed_.empty();
    printed_ = text;
    if (!isFirst && !arguments_.json) {
        std::fputs("\n", stdout);
    }
    if (std::fputs(text.c_str(), stdout) < 0 || std::fflush(stdout) != 0) {
        cannotPrint_ = true;
    }
}

} // namespace trilba::tool
