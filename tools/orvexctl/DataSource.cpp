#include "DataSource.h"

#include "Failure.h"
#include "FileDescriptor.h"

#include <fcntl.h>
#include <gio/gunixinputstream.h>
#include <poll.h>
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

bool DataSource::isDry() const {
    // An end is something to read, too.
    pollfd state{g_unix_input_stream_get_fd(G_UNIX_INPUT_STREAM(stream_.get())), POLLIN, 0};
    return poll(&state, 1, 0) == 0;
}

} // namespace orvexd::ctl
