#include "doctor/Probe.h"

#include "GioHandles.h"
#include "findings/Files.h"

#include <array>
#include <climits>
#include <unistd.h>

namespace orvexd::ctl {

bool Probe::run(const std::vector<std::string>& arguments, const findings::Report& report) const {
    const ObjectRef<GSubprocessLauncher> launcher{
        g_subprocess_launcher_new(G_SUBPROCESS_FLAGS_STDOUT_PIPE)};
    if (!platformFile_.empty()) {
        g_subprocess_launcher_setenv(launcher.get(), "TRILBA_PLATFORM_CONF", platformFile_.c_str(),
                                     TRUE);
    }
    std::vector<const char*> words{program_.c_str()};
    for (const std::string& argument : arguments) {
        words.push_back(argument.c_str());
    }
    words.push_back(nullptr);
    const ObjectRef<GSubprocess> child{
        g_subprocess_launcher_spawnv(launcher.get(), words.data(), nullptr)};
    if (!child) {
        return false;
    }
    const ObjectRef<GDataInputStream> lines{
        g_data_input_stream_new(g_subprocess_get_stdout_pipe(child.get()))};
    while (
        const TextRef line{g_data_input_stream_read_line(lines.get(), nullptr, nullptr, nullptr)}) {
        if (const auto finding = findings::fromJson(line.get())) {
            report(*finding);
        }
    }
    return g_subprocess_wait_check(child.get(), nullptr, nullptr) != FALSE;
}

std::string Probe::find() {
    std::array<char, PATH_MAX> own{};
    const ssize_t size = readlink("/proc/self/exe", own.data(), own.size() - 1);
    const std::string path{own.data(), static_cast<std::size_t>(size > 0 ? size : 0)};
    const std::string beside = path.substr(0, path.rfind('/') + 1) + "orvexd-probe";
    return findings::factsOf(beside).exists() ? beside : ORVEXCTL_PROBE;
}

} // namespace orvexd::ctl
