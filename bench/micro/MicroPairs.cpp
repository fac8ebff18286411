// Times a function and its yardstick in turn and prints what each run took, as JSON: nanoseconds by
// name, lists of equal length.

#include "GMimeParse.h"
#include "OurParse.h"
#include "Yardsticks.h"
#include "http/LineEnds.h"

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <iostream>
#include <stdexcept>
#include <vector>

namespace orvexd::bench {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t kPiece = std::size_t{16} * 1024;
constexpr std::size_t kSlice = 64500;  ///< of the read callback
constexpr std::size_t kBuffer = 65524; ///< libcurl's

struct Contender {
    const char* name;
    std::function<void()> run;
    std::vector<std::int64_t> times = {};
};

void runInTurn(std::vector<Contender>& contenders, int rounds) {
    for (int round = 0; round <= rounds; ++round) {
        for (Contender& contender : contenders) {
            const auto begin = Clock::now();
            contender.run();
            const auto taken = Clock::now() - begin;
            if (round > 0) { // the first round warms up
                contender.times.push_back(std::chrono::nanoseconds(taken).count());
            }
        }
    }
}

void print(const std::vector<Contender>& contenders) {
    const char* before = "{";
    for (const Contender& contender : contenders) {
        std::cout << before << '"' << contender.name << "\": [";
        const char* comma = "";
        for (const std::int64_t time : contender.times) {
            std::cout << comma << time;
            comma = ", ";
        }
        std::cout << ']';
        before = ", ";
    }
    std::cout << "}" << std::endl;
}

void check(bool good) {
    if (!good) {
        throw std::runtime_error("a body was not parsed");
    }
}

void pairParsers(std::size_t parts, std::size_t bytes, int rounds) {
    const Response response = makeResponse(parts, bytes);
    const auto pieces = cutResponse(response, kPiece);
    const std::string message = makeGMimeMessage(response);
    std::vector<Contender> contenders = {
        {"ours", [&] { check(parseOurs(response, pieces)); }},
        {"memcpy", [&] { (void)copyThroughBlock(pieces); }},
        {"memmem", [&] { check(searchPieces(pieces) > 0); }},
        {"gmime", [&] { check(parseGMime(response, message)); }},
    };
    runInTurn(contenders, rounds);
    print(contenders);
}

/// Slice by slice into one buffer, as the read callback does.
void inSlices(std::string_view text, const std::function<void(std::string_view)>& take) {
    for (; !text.empty(); text.remove_prefix(std::min(kSlice, text.size()))) {
        take(text.substr(0, kSlice));
    }
}

void pairLineEnds(std::size_t line, int rounds) {
    const std::string text = makeText(64 * kMiB, line);
    std::string buffer(kBuffer, '\0');
    std::string overflow;
    std::vector<Contender> contenders = {
        {"ours",
         [&] {
             inSlices(text, [&](std::string_view slice) {
                 (void)normalizeLineEnds(slice, buffer, overflow);
                 overflow.clear();
             });
         }},
        {"memcpy",
         [&] {
             inSlices(text, [&](std::string_view slice) {
                 std::memcpy(buffer.data(), slice.data(), slice.size());
             });
         }},
    };
    runInTurn(contenders, rounds);
    print(contenders);
}

constexpr const char* kUsage =
    "usage: micro_pairs ROW ROUNDS\n"
    "\n"
    "ROW: one-part, many-parts (the parser), lines, no-lines (line-end normalisation)\n";

} // namespace
} // namespace orvexd::bench

int main(int argc, char** argv) {
    using namespace orvexd::bench;
    if (argc != 3) {
        std::cerr << kUsage;
        return 2;
    }
    const std::string_view row = argv[1];
    const int rounds = std::atoi(argv[2]);
    try {
        if (row == "one-part") {
            pairParsers(1, 64 * kMiB, rounds);
        } else if (row == "many-parts") {
            pairParsers(10000, 4096, rounds);
        } else if (row == "lines") {
            pairLineEnds(40, rounds);
        } else if (row == "no-lines") {
            pairLineEnds(0, rounds);
        } else {
            std::cerr << kUsage;
            return 2;
        }
        return 0;
    } catch (const std::exception& error) {
        std::cerr << "micro_pairs: " << error.what() << '\n';
        return 1;
    }
}
