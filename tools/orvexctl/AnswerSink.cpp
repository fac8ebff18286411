#include "AnswerSink.h"

#include "FileDescriptor.h"
#include "PendingCall.h"

#include <fcntl.h>
#include <gio/gunixoutputstream.h>
#include <memory>
#include <unistd.h>

namespace orvexd::ctl {
namespace {

constexpr std::string_view kNumber = "%d";

ObjectRef<GOutputStream> createFile(const std::string& path) {
    const int fd = openFile(path, O_WRONLY | O_CREAT | O_TRUNC);
    return ObjectRef<GOutputStream>{g_unix_output_stream_new(fd, TRUE)};
}

} // namespace

AnswerSink AnswerSink::toFile(const std::string& path) {
    AnswerSink sink;
    const bool standardOutput = path == "-";
    sink.name_ = standardOutput ? "standard output" : path;
    sink.stream_ = standardOutput
                       ? ObjectRef<GOutputStream>{g_unix_output_stream_new(STDOUT_FILENO, FALSE)}
                       : createFile(path);
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
    const auto finish = [name = name_, held = std::shared_ptr<GBytes>{std::move(bytes)}](
                            GObject* stream, GAsyncResult* result) -> Outcome<Done> {
        ErrorSlot error;
        if (g_output_stream_write_all_finish(G_OUTPUT_STREAM(stream), result, nullptr,
                                             error.out()) == FALSE) {
            return Failure::fromFile("write " + name, *error);
        }
        return Done{};
    };
    g_output_stream_write_all_async(stream_.get(), data, size, G_PRIORITY_DEFAULT, cancellable,
                                    PendingCall<Done>::finished,
                                    PendingCall<Done>::start(std::move(handler), finish));
}

void AnswerSink::endPart() {
    if (pattern_.empty()) {
        return;
    }
    close();
    ++part_;
}

void AnswerSink::end() {
    close();
}

void AnswerSink::openPart() {
    if (stream_ != nullptr) {
        return;
    }
    name_ = pattern_;
    const std::string number = std::to_string(part_);
    for (auto at = name_.find(kNumber); at != std::string::npos;
         at = name_.find(kNumber, at + number.size())) {
        name_.replace(at, kNumber.size(), number);
    }
    stream_ = createFile(name_);
}

void AnswerSink::close() {
    const ObjectRef<GOutputStream> stream = std::move(stream_);
    if (stream == nullptr) {
        return;
    }
    ErrorSlot error;
    if (g_output_stream_close(stream.get(), nullptr, error.out()) == FALSE) {
        throw Failure::fromFile("write " + name_, *error);
    }
}

} // namespace orvexd::ctl
