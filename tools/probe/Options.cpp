#include "probe/Options.h"

#include "http/TransferOptions.h"

#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <getopt.h>

namespace orvexd::probe {

namespace {

constexpr const char* kUsage =
    "usage: orvexd-probe --check [--preinst-dir DIRECTORY]\n"
    "       orvexd-probe --local | --network [OPTION...]\n"
    "\n"
    "Looks for what keeps orvexd from its work. It changes nothing. For root only.\n"
    "\n"
    "  --check               what no restart can mend, before the daemon starts: its environment\n"
    "                        and its files; status 1 and a line for each fault\n"
    "  --local               findings about files and settings, one JSON object per line\n"
    "  --network             findings about the way to the server, likewise\n"
    "  --exchange            with --network: sends a request\n"
    "  --preinst-dir DIR     where the daemon's files are\n"
    "  --identity FILE       the file of the five variables\n"
    "  --daemon PID          the running daemon\n"
    "  --status N            the connection status that it reports\n"
    "  --sandboxed           it runs as the service that the unit describes\n"
    "  --timeout SECONDS     longest wait for the connection and for the answer\n"
    "  --version             prints the version\n";

// Options without a letter of their own.
constexpr int kIdentity = 256;
constexpr int kExchange = 257;
constexpr int kTimeout = 258;

[[noreturn]] void end(std::FILE* stream, int status) {
    std::fputs(kUsage, stream);
    std::exit(status);
}

std::uint32_t numberOf(const char* text) {
    std::uint32_t number = 0;
    const char* const behind = text + std::strlen(text);
    const auto [stop, error] = std::from_chars(text, behind, number);
    if (error != std::errc{} || stop != behind) {
        end(stderr, 2);
    }
    return number;
}

void take(int letter, Options& options) {
    switch (letter) {
    case 'c':
        options.task = Options::Task::Check;
        break;
    case 'l':
        options.task = Options::Task::Local;
        break;
    case 'n':
        options.task = Options::Task::Network;
        break;
    case kExchange:
        options.exchange = true;
        break;
    case 'p':
        options.preinstDirectory = optarg;
        break;
    case kIdentity:
        options.identityFile = optarg;
        break;
    case 'd':
        options.daemon = numberOf(optarg);
        break;
    case 's':
        options.reportedStatus = numberOf(optarg);
        break;
    case 'b':
        options.sandboxed = true;
        break;
    case kTimeout:
        options.patience.connect = options.patience.whole = std::chrono::seconds(numberOf(optarg));
        break;
    case 'v':
        std::puts("orvexd-probe " ORVEXD_PROBE_VERSION);
        std::exit(0);
    case 'h':
        end(stdout, 0);
    default:
        end(stderr, 2);
    }
}

} // namespace

Options readOptions(int argc, char** argv) {
    static const option kOptions[] = {// NOLINT(modernize-avoid-c-arrays): as getopt wants it
                                      {"check", no_argument, nullptr, 'c'},
                                      {"local", no_argument, nullptr, 'l'},
                                      {"network", no_argument, nullptr, 'n'},
                                      {"exchange", no_argument, nullptr, kExchange},
                                      {"preinst-dir", required_argument, nullptr, 'p'},
                                      {"identity", required_argument, nullptr, kIdentity},
                                      {"daemon", required_argument, nullptr, 'd'},
                                      {"status", required_argument, nullptr, 's'},
                                      {"sandboxed", no_argument, nullptr, 'b'},
                                      {"timeout", required_argument, nullptr, kTimeout},
                                      {"version", no_argument, nullptr, 'v'},
                                      {"help", no_argument, nullptr, 'h'},
                                      {nullptr, 0, nullptr, 0}};
    Options options;
    options.identityFile = ORVEXD_ENVIRONMENT_FILE;
    options.patience.connect = std::chrono::seconds(std::atoi(TransferOptions::kConnectTimeout));
    options.patience.whole = std::chrono::seconds(std::atoi(TransferOptions::kTransferTimeout));
    bool any = false;
    for (int letter = 0; (letter = getopt_long(argc, argv, "", kOptions, nullptr)) != -1;) {
        take(letter, options);
        any = true;
    }
    if (!any || optind != argc) {
        end(stderr, 2);
    }
    return options;
}

} // namespace orvexd::probe
