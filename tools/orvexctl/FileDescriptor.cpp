#include "FileDescriptor.h"

#include "Failure.h"
#include "Printable.h"

#include <cerrno>
#include <fcntl.h>
#include <glib.h>

namespace orvexd::ctl {

int openFile(const std::string& path, int flags) {
    constexpr mode_t kMode = 0666;
    // NOLINTNEXTLINE(cppcoreguidelines-pro-type-vararg): open is declared so
    const int fd = open(path.c_str(), flags | O_CLOEXEC, kMode);
    if (fd < 0) {
        throw Failure{ExitStatus::Local,
                      "Cannot open " + printable(path) + ": " + g_strerror(errno) + "."};
    }
    return fd;
}

} // namespace orvexd::ctl
