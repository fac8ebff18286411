#pragma once

#include <chrono>
#include <memory>

namespace orvexd {

/// A record that crosses from any thread to the main loop, where it is used once and freed.
class MainLoopRecord {
public:
    MainLoopRecord() = default;
    virtual ~MainLoopRecord() = default;
    MainLoopRecord(const MainLoopRecord&) = delete;
    MainLoopRecord& operator=(const MainLoopRecord&) = delete;
    MainLoopRecord(MainLoopRecord&&) = delete;
    MainLoopRecord& operator=(MainLoopRecord&&) = delete;

    /// Runs on the main loop's thread. An exception that leaves it ends the process.
    virtual void run() = 0;
};

/// Hands `record` to the default main context, which runs it after `delay`. Any thread. Records of
/// the same delay run in the order in which they were posted; none can be withdrawn.
void postToMainLoop(std::chrono::milliseconds delay, std::unique_ptr<MainLoopRecord> record);

/// Tells whether the object that a record points to still exists when the record runs. The object
/// holds a Lifetime, the record a Watch. Both end on the main loop's thread.
class Lifetime {
public:
    using Watch = std::weak_ptr<const Lifetime*>;
    Watch watch() const noexcept { return token_; }

private:
    std::shared_ptr<const Lifetime*> token_ = std::make_shared<const Lifetime*>(this);
};

} // namespace orvexd
