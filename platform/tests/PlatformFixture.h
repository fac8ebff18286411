#pragma once

#include "trilba/network/IConnectionManager.h"

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <glib.h>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <thread>

namespace trilba::test {

namespace fs = std::filesystem;

/// Dispatches the default main context until `done`; gives up after `patience`.
inline bool runLoopUntil(const std::function<bool()>& done,
                         std::chrono::milliseconds patience = std::chrono::seconds(10)) {
    bool over = false;
    GSource* deadline = g_timeout_source_new(static_cast<guint>(patience.count()));
    const auto onDeadline = +[](gpointer flag) noexcept -> gboolean {
        *static_cast<bool*>(flag) = true;
        return G_SOURCE_REMOVE;
    };
    g_source_set_callback(deadline, onDeadline, &over, nullptr);
    g_source_attach(deadline, nullptr);
    while (!done() && !over) {
        g_main_context_iteration(nullptr, TRUE);
    }
    g_source_destroy(deadline);
    g_source_unref(deadline);
    return done();
}

/// Counts what it is told and runs `then` each time.
class CountingObserver : public network::IConnectionManagerObserver {
public:
    void onConnectionsChanged() override {
        ++count;
        thread = std::this_thread::get_id();
        if (then) {
            then();
        }
    }
    void onSecondaryNotification() override { ++secondary; }

    int count = 0;
    int secondary = 0;
    std::thread::id thread;
    std::function<void()> then;
};

/// A platform file of its own, in a directory of its own, named by the environment variable.
class PlatformFixture : public ::testing::Test {
public:
    PlatformFixture(const PlatformFixture&) = delete;
    PlatformFixture& operator=(const PlatformFixture&) = delete;
    ~PlatformFixture() override {
        unsetenv("TRILBA_PLATFORM_CONF");
        fs::remove_all(directory_);
    }

protected:
    PlatformFixture() {
        std::string pattern = fs::canonical(fs::temp_directory_path()) / "trilba-XXXXXX";
        directory_ = mkdtemp(pattern.data());
        useFile(directory_ / "platform.conf");
    }

    void useFile(const fs::path& file) {
        file_ = file;
        setenv("TRILBA_PLATFORM_CONF", file.c_str(), 1);
    }

    /// Writes in place, as an editor does that truncates first.
    void write(const std::string& text) const { writeTo(file_, text); }

    /// Puts a new file into the place of the old one.
    void replace(const std::string& text) const {
        const fs::path fresh = file_.parent_path() / "fresh";
        writeTo(fresh, text);
        fs::rename(fresh, file_);
    }

    static void writeTo(const fs::path& file, const std::string& text) {
        std::ofstream(file, std::ios::binary | std::ios::trunc) << text;
    }

    static std::unique_ptr<network::IConnectionManager> makeManager() {
        return std::unique_ptr<network::IConnectionManager>(
            network::IConnectionManager::create(nullptr));
    }

    /// A platform file that lists one connection, so that a reading can be told from another.
    static std::string listOf(const std::string& name) {
        return "[Connections]\nList=" + name + ";\n[Connection " + name + "]\nActive=true\n";
    }

    static std::string firstName(network::IConnectionManager& manager) {
        network::ConnectionInfoContainer connections;
        manager.getConnections(connections);
        return connections.empty() ? std::string() : connections.at(0).name;
    }

    fs::path directory_;
    fs::path file_;
};

} // namespace trilba::test
