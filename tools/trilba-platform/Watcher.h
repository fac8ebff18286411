#pragma once

#include "Arguments.h"
#include "Handles.h"
#include "Report.h"
#include "trilba/network/IConnectionManager.h"

#include <glib.h>
#include <memory>
#include <string>

namespace trilba::tool {

/// Waits for the first answer and prints; goes on doing so when it is to watch.
class Watcher {
public:
    explicit Watcher(Arguments arguments);
    Watcher(const Watcher&) = delete;
    Watcher& operator=(const Watcher&) = delete;
    ~Watcher() = default;

    /// @return the exit status.
    int run();

private:
    void awaitAnswer();
    void watch();
    void print();
    [[nodiscard]] Report report();

    const Arguments arguments_;
    std::string printed_;
    int status_ = 0;
    bool cannotPrint_ = false; // nobody reads
    std::unique_ptr<network::IConnectionManager> manager_;
};

} // namespace trilba::tool
