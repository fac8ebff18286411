#include "doctor/Probe.h"

#include "findings/Files.h"

#include <array>
#include <climits>
#include <unistd.h>

namespace orvexd::ctl {
namespace {

using findings::Checked;

bool isRootsAlone(const findings::FileFacts& facts) {
    return facts.exists() && facts.owner == 0 && (facts.mode & (S_IWGRP | S_IWOTH)) == 0;
}

void tellEnd(Child::End end, bool done, const std::string& program, std::chrono::seconds patience,
             const Checked& report) {
    const std::string advice = "Install the package orvexd of this version.";
    if (end == Child::End::TooLate) {
        report.broken(program + " has not come to its end within " +
                          std::to_string(patience.count()) + " s.",
                      "What it was looking at does not answer: look at the last finding.");
    } else if (end == Child::End::NotStarted) {
        report.broken(program + " cannot be run.", advice);
    } else if (end == Child::End::Failure || !done) {
        report.broken(program + " has ended before it had looked at everything.", advice);
    }
}

} // namespace

void Probe::run(const std::vector<std::string>& arguments, std::chrono::seconds patience,
                const findings::Report& report) {
    std::vector<std::string> words{program_};
    words.insert(words.end(), arguments.begin(), arguments.end());
    bool done = false;
    const Child::End end = Child{words, environment_}.run(patience, [&](const std::string& line) {
        done = line == findings::kDone;
        if (const auto finding = findings::fromJson(line)) {
            report(*finding);
        } else if (const auto source = findings::sourceFromJson(line)) {
            source_ = *source;
        }
    });
    tellEnd(end, done, program_, patience, Checked{"probe", report});
}

std::string Probe::find() {
    std::array<char, PATH_MAX> own{};
    const ssize_t size = readlink("/proc/self/exe", own.data(), own.size() - 1);
    const std::string path{own.data(), static_cast<std::size_t>(size > 0 ? size : 0)};
    const std::string folder = path.substr(0, path.rfind('/') + 1);
    const std::string beside = folder + "orvexd-probe";
    return isRootsAlone(findings::factsOf(folder)) && isRootsAlone(findings::factsOf(beside))
               ? beside
               : ORVEXCTL_PROBE;
}

} // namespace orvexd::ctl
