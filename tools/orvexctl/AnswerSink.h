#pragma once

#include "Failure.h"
#include "GioHandles.h"
#include "OutputFile.h"

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace orvexd::ctl {

/// Where an answer goes: all parts in order into one file or standard output, or each part into
/// a file of its own. Files get their names when the whole answer is there; without `end` they are
/// removed.
class AnswerSink {
public:
    /// @param path "-" is standard output.
    /// @throws Failure when the file cannot be made.
    static AnswerSink toFile(const std::string& path);

    /// @param pattern file name in which "%d" stands for the number of the part, counted from 1.
    /// @throws Failure when the pattern has no "%d".
    static AnswerSink toPattern(std::string pattern);

    /// One call at a time.
    void write(BytesRef bytes, GCancellable* cancellable,
               std::function<void(Outcome<Done>)> handler);

    /// The part is complete. @throws Failure when its bytes cannot be kept.
    void endPart();

    /// The answer is complete. @throws Failure when its bytes cannot be kept.
    void end();

    /// A part has begun: makes its file, if there is none yet. @throws Failure
    void openPart();

    /// The request has failed: gives what has come the names of the files with ".partial" behind.
    void keepPartial() noexcept;

private:
    AnswerSink() = default;

    [[nodiscard]] std::string name() const;

    std::string pattern_; ///< empty: everything goes into one stream
    unsigned part_ = 1;
    ObjectRef<GOutputStream> standardOutput_; ///< null: the answer goes to files
    std::optional<OutputFile> file_;          ///< of the part that is being written
    std::vector<OutputFile> complete_;        ///< of the parts before it
};

} // namespace orvexd::ctl
