#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>

/// What orvexctl and orvexd-probe find out about an installation, and the checks that both make.
namespace orvexd::findings {

/// In the order of their gravity, but for Unknown, which says nothing about the thing.
enum class State { Unknown, Fine, Doubtful, Broken };

/// One thing on the road of a request: how it is, why, and what to do about it.
struct Finding {
    std::string check; ///< which check found it, for example "files"
    State state = State::Unknown;
    std::string why;         ///< a sentence
    std::string advice = {}; ///< sentences; empty when there is nothing to do
};

/// Takes each finding as soon as it is known.
using Report = std::function<void(const Finding&)>;

/// The state in small letters.
[[nodiscard]] std::string_view wordOf(State state);

/// One JSON object on one line, without the line's end.
[[nodiscard]] std::string toJson(const Finding& finding);

/// The probe's last line: it has come to its end.
inline constexpr std::string_view kDone = R"({"done":true})";

/// What the probe says of the platform besides its findings: where its answers come from.
[[nodiscard]] std::string sourceToJson(const std::string& source);

/// Reads what `sourceToJson` wrote; nothing when the line is something else.
[[nodiscard]] std::optional<std::string> sourceFromJson(const std::string& line);

/// Reads what `toJson` wrote; nothing when the line is something else.
[[nodiscard]] std::optional<Finding> fromJson(const std::string& line);

/// A report that gives each finding the name of its check.
class Checked {
public:
    Checked(std::string check, const Report& report) : check_(std::move(check)), report_(report) {}

    void fine(std::string why) const { tell(State::Fine, std::move(why), {}); }
    void unknown(std::string why, std::string advice = {}) const {
        tell(State::Unknown, std::move(why), std::move(advice));
    }
    void doubtful(std::string why, std::string advice) const {
        tell(State::Doubtful, std::move(why), std::move(advice));
    }
    void broken(std::string why, std::string advice) const {
        tell(State::Broken, std::move(why), std::move(advice));
    }

private:
    void tell(State state, std::string why, std::string advice) const {
        report_({check_, state, std::move(why), std::move(advice)});
    }

    std::string check_;
    const Report& report_;
};

} // namespace orvexd::findings
