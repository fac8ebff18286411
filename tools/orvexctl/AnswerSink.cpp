#include "AnswerSink.h"

#include "PendingCall.h"

#include <gio/gunixoutputstream.h>
#include <memory>
#include <unistd.h>

namespace orvexd::ctl {
namespace {

constexpr std::string_view kNumber = "%d";

} // namespace

AnswerSink AnswerSink::toFile(const std::string& path) {
    AnswerSink sink;
    if (path == "-") {
        sink.standardOutput_.reset(g_unix_output_stream_new(STDOUT_FILENO, FALSE));
    } else {
        sink.file_.emplace(path);
    }
    return sink;
}

AnswerSink AnswerSink::toPattern(std::string pattern) {
    if (pattern.find(kNumber) == std::string::npos) {
        throw Failure::usage(
            "--output-pattern needs %d where the number of the part is to stand, for "
            "example answer-%d.bin.");
    }
    AnswerSink sink;
    sink.pattern_ = std::move(pattern);
    return sink;
}

void AnswerSink::write(BytesRef bytes, GCancellable* cancellable,
                       std::function<void(Outcome<Done>)> handler) {
    openPart();
    gsize size = 0;
    const void* data = g_bytes_get_data(bytes.get(), &size);
    // The bytes live as long as the operation: its finish function holds them.
    const auto finish = [name = name(), held = std::shared_ptr<GBytes>{std::move(bytes)}](
                            GObject* stream, GAsyncResult* result) -> Outcome<Done> {
        ErrorSlot error;
        if (g_output_stream_write_all_finish(G_OUTPUT_STREAM(stream), result, nullptr,
                                             error.out()) == FALSE) {
            return Failure::fromFile("write " + name, *error);
        }
        return Done{};
    };
    GOutputStream* const stream = file_ ? file_->stream() : standardOutput_.get();
    g_output_stream_write_all_async(stream, data, size, G_PRIORITY_DEFAULT, cancellable,
                                    PendingCall<Done>::finished,
                                    PendingCall<Done>::start(std::move(handler), finish));
}

void AnswerSink::endPart() {
    if (pattern_.empty() || !file_) {
        return;
    }
    file_->finish();
    complete_.push_back(std::move(*file_));
    file_.reset();
    ++part_;
}

void AnswerSink::end() {
    if (file_) {
        file_->finish();
        complete_.push_back(std::move(*file_));
        file_.reset();
    }
    for (OutputFile& file : complete_) {
        file.commit();
    }
}

void AnswerSink::keepPartial() noexcept {
    for (OutputFile& file : complete_) {
        file.keepPartial();
    }
    if (file_) {
        file_->keepPartial();
    }
}

void AnswerSink::openPart() {
    if (standardOutput_ == nullptr && !file_) {
        file_.emplace(name());
    }
}

std::string AnswerSink::name() const {
    if (pattern_.empty()) {
        return file_ ? file_->path() : "standard output";
    }
    std::string name = pattern_;
    const std::string number = std::to_string(part_);
    for (auto at = name.find(kNumber); at != std::string::npos;
         at = name.find(kNumber, at + number.size())) {
        name.replace(at, kNumber.size(), number);
    }
    return name;
}

} // namespace orvexd::ctl
