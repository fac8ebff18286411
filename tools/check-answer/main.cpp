// Reads a recorded answer of a positioning server and says what the daemon makes of it.

#include "../orvexctl/Printable.h"
#include "Advice.h"
#include "Recording.h"
#include "Verdict.h"
#include "protocol/Codes.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <fstream>
#include <getopt.h>
#include <iostream>
#include <iterator>
#include <string>
#include <string_view>

namespace {

using namespace orvexd;
using namespace orvexd::check;

constexpr int kRefused = 1;
constexpr int kMisused = 2;

constexpr const char* kUsage =
    "usage: slp-check-answer [OPTION ...] FILE\n"
    "\n"
    "Says what orvexd makes of a positioning server's answer. FILE holds the answer with its head, "
    "as\n"
    "curl -i prints it or as it was on the wire; '-' is the standard input.\n"
    "\n"
    "  --content-type TYPE  FILE holds the body alone; TYPE is the value of Content-Type\n"
    "  --requests N         how many requests the message had (otherwise as many as the answer "
    "has\n"
    "                       results for)\n"
    "  --pieces N           hand the body to the parser in pieces of N bytes, as reads may bring "
    "it\n"
    "                       (otherwise each delimiter comes with what follows it)\n"
    "\n"
    "The status is 0 for a good answer, 1 for one that the daemon refuses, 2 for wrong "
    "arguments.\n";

struct Options {
    std::string file;
    std::string contentType;
    std::uint32_t requests = 0;
    std::size_t piece = 0;
};

template <typename Value> bool readPositive(std::string_view text, Value& value) {
    const char* const end = text.data() + text.size();
    const auto read = std::from_chars(text.data(), end, value);
    return read.ec == std::errc() && read.ptr == end && value > 0;
}

bool readOptions(int argc, char** argv, Options& options) {
    const std::array<option, 4> known{{{"content-type", required_argument, nullptr, 't'},
                                       {"requests", required_argument, nullptr, 'r'},
                                       {"pieces", required_argument, nullptr, 'p'},
                                       {}}};
    bool isGood = true;
    for (int found = 0; (found = getopt_long(argc, argv, "", known.data(), nullptr)) != -1;) {
        if (found == 't') {
            options.contentType = optarg;
        } else if (found == 'r') {
            isGood =
                readPositive(optarg, options.requests) && options.requests <= 100'000 && isGood;
        } else if (found == 'p') {
            isGood = readPositive(optarg, options.piece) && isGood;
        } else {
            isGood = false;
        }
    }
    if (!isGood || optind != argc - 1) {
        return false;
    }
    options.file = argv[optind];
    return true;
}

bool readFile(const std::string& name, std::string& bytes) {
    std::ifstream file;
    if (name != "-") {
        file.open(name, std::ios::binary);
    }
    std::istream& input = name == "-" ? std::cin : file;
    bytes.assign(std::istreambuf_iterator<char>(input), {});
    return !input.bad() && (name == "-" || file.is_open());
}

void print(const Finding& finding) {
    if (finding.line > 0) {
        std::cout << "line " << finding.line << ": ";
    }
    std::cout << (finding.isFault ? "" : "note: ") << finding.text << '\n';
}

void print(const Verdict& verdict) {
    for (std::size_t index = 0; index < verdict.requests.size(); ++index) {
        const Verdict::Request& request = verdict.requests[index];
        std::cout << "request " << index + 1 << ": ";
        const char* separator = "";
        for (const std::size_t bytes : request.parts) {
            std::cout << separator << "a part of " << bytes << " bytes";
            separator = ", ";
        }
        std::cout << (request.parts.empty() ? "nothing" : "")
                  << (request.isComplete ? "" : ", not complete") << '\n';
    }
    if (verdict.code == failure::kNone) {
        std::cout << "The daemon understands this answer.\n";
        return;
    }
    std::cout << "The daemon refuses this answer: code " << verdict.code
              << ". Clients get errorSignal " << verdict.signalCode() << ", \""
              << ctl::printable(verdict.text) << "\".\n";
}

int checkFile(const Options& options) {
    std::string bytes;
    if (!readFile(options.file, bytes)) {
        std::cerr << "slp-check-answer: cannot read " << options.file << '\n';
        return kMisused;
    }
    const Recording recording(std::move(bytes), options.contentType);
    Advice advice(recording);
    const std::uint32_t requests = options.requests != 0
                                       ? options.requests
                                       : std::clamp<std::uint32_t>(advice.largestOid(), 1, 10'000);
    advice.expectRequests(requests);
    if (recording.wasChunked()) {
        std::cout << "The body was in chunks; its lines are counted without them.\n";
    }
    for (const Finding& finding : advice.findings()) {
        print(finding);
    }
    const Verdict verdict = judge(recording, requests, options.piece);
    print(verdict);
    return verdict.code == failure::kNone ? 0 : kRefused;
}

} // namespace

int main(int argc, char** argv) {
    if (argc == 2 && std::string_view(argv[1]) == "--help") {
        std::cout << kUsage;
        return 0;
    }
    Options options;
    try {
        if (readOptions(argc, argv, options)) {
            return checkFile(options);
        }
        std::cerr << kUsage;
    } catch (const std::exception& error) {
        std::cerr << "slp-check-answer: " << error.what() << '\n';
    }
    return kMisused;
}
