#include "Output.h"

#include "Failure.h"

#include <cerrno>
#include <cstdio>
#include <glib.h>

namespace orvexd::ctl {

void printLine(std::string_view line) {
    if (std::fwrite(line.data(), 1, line.size(), stdout) != line.size() ||
        std::fputc('\n', stdout) == EOF || std::fflush(stdout) != 0) {
        throw Failure{ExitStatus::Local,
                      std::string{"Cannot write standard output: "} + g_strerror(errno) + "."};
    }
}

} // namespace orvexd::ctl
