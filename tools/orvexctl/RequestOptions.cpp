#include "RequestOptions.h"

#include "Failure.h"
#include "OptionParser.h"

namespace orvexd::ctl {
namespace {

constexpr std::uint32_t kLargestChunk = 16 * 1024 * 1024; ///< the daemon hands out no more at once
constexpr std::uint32_t kLargestPolicy = 3;

constexpr const char* kSummary =
    "Sends one request through the daemon to the positioning server and writes the answer.";

constexpr const char* kDescription =
    "Policies:\n"
    "  0, 1  only a connection of kind 1\n"
    "  2     any connection that is not restricted\n"
    "  3     any connection\n"
    "\n"
    "Ctrl-C cancels the request. Exit statuses are listed in orvexctl(1).\n"
    "\n"
    "Example:\n"
    "  orvexctl request --element fingerprint --type fingerprint --request-version 1.0 \\\n"
    "      --content-type text/xml --input fingerprint.xml --output position.xml\n";

void require(const std::string& value, const char* option) {
    if (value.empty()) {
        throw Failure::usage(std::string{option} + " is needed. See 'orvexctl request --help'.");
    }
}

/// The value becomes a header line: a line break would end it and begin another one.
void requireOneLine(const std::string& value, const char* option) {
    if (value.find_first_of("\r\n") != std::string::npos) {
        throw Failure::usage(std::string{option} +
                             " has a line break. It stands for one header line.");
    }
}

} // namespace

RequestOptions RequestOptions::parse(const std::vector<std::string>& words) {
    RequestOptions options;
    auto timeout = static_cast<std::uint32_t>(options.timeout.count());
    std::string output;

    OptionParser parser{"request", "", kSummary};
    parser.setDescription(kDescription);
    parser.addText("element", 'e', "Name of the request's XML element (needed)", "NAME",
                   options.element);
    parser.addText("type", 't', "Value of its type attribute (needed)", "TYPE", options.type);
    parser.addText("request-version", 'V', "Value of its version attribute (needed)", "VERSION",
                   options.version);
    parser.addText("content-type", 'c', "Content-Type of the input (needed)", "MEDIATYPE",
                   options.contentType);
    parser.addText("encoding", 0,
                   "Content-Transfer-Encoding; all but 'binary' get CR LF line ends (binary)",
                   "NAME", options.encoding);
    parser.addText("input", 'i', "Read the request from FILE, '-' is standard input (-)", "FILE",
                   options.input);
    parser.addText("output", 'o', "Write the answer to FILE, '-' is standard output (-)", "FILE",
                   output);
    parser.addText("output-pattern", 'O',
                   "Write each part of the answer to its own file, %d is its number", "PATTERN",
                   options.outputPattern);
    parser.addFlag("keep-partial", 0, "When the request fails, keep what has come as FILE.partial",
                   options.keepPartial);
    parser.addFlag("attach", 'a', "Travel along with another exchange instead of starting one",
                   options.attach);
    parser.addNumber("policy", 'p', "Network connections that may be used, 0 to 3 (2)", "N",
                     options.policy, 0, kLargestPolicy);
    parser.addNumber("open-duration", 0, "How long the network should stay open afterwards (0)",
                     "N", options.openDuration);
    parser.addNumber("chunk-size", 0, "Largest piece of the answer in bytes (65536)", "BYTES",
                     options.chunkSize, 1, kLargestChunk);
    parser.addNumber("timeout", 'T', "Give up after so long without progress, 0 is never (120)",
                     "SECONDS", timeout);
    parser.addFlag("quiet", 'q', "Show no progress", options.quiet);
    parser.addFlag("verbose", 'v', "Tell each step with its time instead", options.verbose);
    if (const auto rest = parser.parse(words); !rest.empty()) {
        throw Failure::usage("request takes options only; '" + rest.front() +
                             "' is one word too many.");
    }

    require(options.element, "--element");
    require(options.type, "--type");
    require(options.version, "--request-version");
    require(options.contentType, "--content-type");
    requireOneLine(options.contentType, "--content-type");
    requireOneLine(options.encoding, "--encoding");
    if (!output.empty() && !options.outputPattern.empty()) {
        throw Failure::usage("--output and --output-pattern exclude each other.");
    }
    if (!output.empty()) {
        options.output = output;
    }
    if (options.quiet && options.verbose) {
        throw Failure::usage("--quiet and --verbose exclude each other.");
    }
    options.timeout = std::chrono::seconds{timeout};
    return options;
}

} // namespace orvexd::ctl
