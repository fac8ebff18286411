#pragma once

#include "Failure.h"
#include "GioHandles.h"

#include <functional>
#include <string>

namespace orvexd::ctl {

/// Where an answer goes: all parts in order into one file or standard output, or each part into
/// a file of its own.
class AnswerSink {
public:
    /// @param path "-" is standard output; a file is created or emptied at once.
    /// @throws Failure when the file cannot be opened.
    static AnswerSink toFile(const std::string& path);

    /// @param pattern file name in which "%d" stands for the number of the part, counted from 1.
    /// @throws Failure when the pattern has no "%d".
    static AnswerSink toPattern(std::string pattern);

    /// One call at a time.
    void write(BytesRef bytes, GCancellable* cancellable,
               std::function<void(Outcome<Done>)> handler);

    /// The part is complete: closes its file. @throws Failure when its bytes cannot be kept.
    void endPart();

    /// The answer is complete. @throws Failure when its bytes cannot be kept.
    void end();

    /// A part has begun: makes its file, if there is none yet. @throws Failure
    void openPart();

private:
    AnswerSink() = default;

    void close();

    std::string pattern_; ///< empty: everything goes into one stream
    unsigned part_ = 1;
    std::string name_;
    ObjectRef<GOutputStream> stream_; ///< null between parts
};

} // namespace orvexd::ctl
