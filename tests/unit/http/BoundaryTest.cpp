#include "http/Boundary.h"

#include <cstdlib>
#include <gtest/gtest.h>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <sys/time.h>

namespace orvexd::test {
namespace {

constexpr std::string_view kAlphabet =
    "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz+_=?";

unsigned currentSeed() {
    timeval now{};
    gettimeofday(&now, nullptr);
    return static_cast<unsigned>(now.tv_usec / 1000 + now.tv_sec);
}

/// The rule for a drawn code, written as a table of its exceptions.
std::string boundaryFromSeed(unsigned seed) {
    const std::map<int, std::string> replaced = {
        {';', "+"}, {'<', "_"}, {'=', "="}, {'>', "?"}, {':', ""}, {'?', ""}, {'@', ""},
        {'[', ""},  {'\\', ""}, {']', ""},  {'^', ""},  {'_', ""}, {'`', ""}};
    std::srand(seed);
    std::string boundary;
    while (boundary.size() < 70) {
        const int code = std::rand() % 75 + 48;
        const auto found = replaced.find(code);
        boundary +=
            found == replaced.end() ? std::string(1, static_cast<char>(code)) : found->second;
    }
    return boundary;
}

TEST(Boundary, HasSeventyCharacters) {
    EXPECT_EQ(generateBoundary().size(), 70U);
}

TEST(Boundary, ConsistsOfTheSixtySixSymbolsOnly) {
    for (int round = 0; round < 200; ++round) {
        EXPECT_EQ(generateBoundary().find_first_not_of(kAlphabet), std::string::npos);
    }
}

TEST(Boundary, SeedsTheGeneratorWithTheTimeOfDayOnEveryCall) {
    // The seed is taken between two readings of the clock; normally they agree.
    std::set<std::string> seen;
    while (seen.size() < 40) { // as many milliseconds; together they hold every symbol
        const unsigned before = currentSeed();
        const std::string boundary = generateBoundary();
        const unsigned after = currentSeed();
        if (after < before) {
            continue; // a new second began, and with it the milliseconds
        }
        std::set<std::string> possible;
        for (unsigned seed = before; seed <= after; ++seed) {
            possible.insert(boundaryFromSeed(seed));
        }
        ASSERT_TRUE(possible.contains(boundary)) << boundary;
        seen.insert(boundary);
    }
}

TEST(Boundary, IsTheSameForTwoExchangesOfTheSameMillisecond) {
    for (int round = 0; round < 10000; ++round) {
        const unsigned before = currentSeed();
        const std::string first = generateBoundary();
        const std::string second = generateBoundary();
        if (currentSeed() == before) {
            EXPECT_EQ(first, second);
            return;
        }
    }
    FAIL() << "no two boundaries within a millisecond";
}

} // namespace
} // namespace orvexd::test
