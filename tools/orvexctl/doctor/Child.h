#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace orvexd::ctl {

/// A program that doctor runs: with an environment of its own, for a bounded time, and never longer
/// than doctor lives.
class Child {
public:
    enum class End { Success, Failure, TooLate, NotStarted };
    using Environment = std::map<std::string, std::string>;
    using LineTaker = std::function<void(const std::string&)>;

    /// @param words the program's path and its arguments.
    Child(std::vector<std::string> words, Environment environment)
        : words_{std::move(words)}, environment_{std::move(environment)} {}

    /// It runs without capabilities, as the service does.
    void confine() { confined_ = true; }
    /// What it complains of is nobody's business.
    void silence() { silent_ = true; }

    /// Hands on each line that it prints, as it comes. At the end of the time the child is killed.
    [[nodiscard]] End run(std::chrono::milliseconds patience, const LineTaker& take) const;

    /// All that it prints; empty unless it ends well in time.
    [[nodiscard]] std::string output(std::chrono::milliseconds patience) const;

private:
    std::vector<std::string> words_;
    Environment environment_;
    bool confined_ = false;
    bool silent_ = false;
};

} // namespace orvexd::ctl
