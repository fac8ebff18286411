#include "DataSource.h"

#include "FileDescriptor.h"
#include "PendingCall.h"

#include <fcntl.h>
#include <gio/gunixinputstream.h>
#include <sys/stat.h>
#include <unistd.h>

namespace orvexd::ctl {

DataSource::DataSource(const std::string& path) : name_{path == "-" ? "standard input" : path} {
    const bool standardInput = path == "-";
    const int fd = standardInput ? STDIN_FILENO : openFile(path, O_RDONLY);
    stream_.reset(g_unix_input_stream_new(fd, standardInput ? FALSE : TRUE));
    struct stat facts {};
    const bool known = fstat(fd, &facts) == 0;
    if (known && S_ISDIR(facts.st_mode)) {
        throw Failure{ExitStatus::Local, "Cannot read " + name_ + ": Is a directory."};
    }
    if (known && S_ISREG(facts.st_mode) && !standardInput) {
        size_ = static_cast<std::uint64_t>(facts.st_size);
    }
}

void DataSource::read(GCancellable* cancellable, std::function<void(Outcome<BytesRef>)> handler) {
    const auto finish = [name = name_](GObject* stream, GAsyncResult* result) -> Outcome<BytesRef> {
        ErrorSlot error;
        BytesRef bytes{
            g_input_stream_read_bytes_finish(G_INPUT_STREAM(stream), result, error.out())};
        if (error) {
            return Failure::fromFile("read " + name, *error);
        }
        return bytes;
    };
    g_input_stream_read_bytes_async(stream_.get(), kPieceSize, G_PRIORITY_DEFAULT, cancellable,
                                    PendingCall<BytesRef>::finished,
                                    PendingCall<BytesRef>::start(std::move(handler), finish));
}

} // namespace orvexd::ctl
