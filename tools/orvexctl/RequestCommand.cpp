#include "RequestCommand.h"

#include "RequestSession.h"

#include <unistd.h>

namespace orvexd::ctl {

ExitStatus RequestCommand::run(const std::vector<std::string>& words) {
    const RequestOptions options = RequestOptions::parse(words);
    DataSource source{options.input};
    AnswerSink sink = options.outputPattern.empty() ? AnswerSink::toFile(options.output)
                                                    : AnswerSink::toPattern(options.outputPattern);
    Progress progress{!options.quiet && !options.verbose && isatty(STDERR_FILENO) != 0};
    StepLog steps{options.verbose};
    try {
        const ExitStatus status = RequestSession{options, source, sink, progress, steps}.run();
        if (status != ExitStatus::Success && options.keepPartial) {
            sink.keepPartial();
        }
        return status;
    } catch (const Failure&) {
        if (options.keepPartial) {
            sink.keepPartial();
        }
        throw;
    }
}

} // namespace orvexd::ctl
