// What must not depend on the machine's word: the daemon is at home on 32-bit ARM.
#include "http/RequestBody.h"
#include "protocol/Codes.h"
#include "request/Answer.h"
#include "request/OutgoingPart.h"
#include "support/ByteQueue.h"

#include <chrono>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <dbus/dbus.h>
#include <glib.h>
#include <gtest/gtest.h>
#include <sys/time.h>
#include <sys/types.h>
#include <trilba/network/ProxyQuery.h>
#include <type_traits>
#include <vector>

namespace orvexd::test {
namespace {

using trilba::network::ProxyQuery;

// On the bus every id, policy, status and code is an unsigned number of 32 bits.
static_assert(std::is_same_v<dbus_uint32_t, std::uint32_t>);
static_assert(sizeof(dbus_bool_t) == 4 && sizeof(dbus_int32_t) == 4);
static_assert(std::is_same_v<decltype(ConnectionParameters::chunkSize), std::uint32_t>);
static_assert(std::is_same_v<std::underlying_type_t<DeliveryCode>, std::uint32_t>);
static_assert(std::is_same_v<std::underlying_type_t<StatusBit>, std::uint32_t>);
static_assert(std::is_same_v<std::underlying_type_t<ConnectionPolicy>, std::uint32_t>);

// A chunk size from the bus can be used as a size, and the limits of the daemon fit into both.
static_assert(sizeof(std::size_t) >= sizeof(std::uint32_t));
static_assert(Answer::kLargestChunk <= UINT32_MAX && ByteQueue::kLargestBlock <= UINT32_MAX);

// The platform's record has neither padding nor pointers.
static_assert(sizeof(ProxyQuery) == 140 && alignof(ProxyQuery) == 4);
static_assert(std::is_standard_layout_v<ProxyQuery> && std::is_trivially_copyable_v<ProxyQuery>);

// Deadlines count microseconds, of which 32 bits hold 36 minutes.
static_assert(sizeof(std::chrono::milliseconds::rep) == 8);
static_assert(sizeof(std::chrono::microseconds::rep) == 8);
static_assert(sizeof(gint64) == 8);

// The clock goes on after January 2038, and files may have more than 2 GiB.
static_assert(sizeof(std::time_t) == 8 && sizeof(timeval::tv_sec) == 8);
static_assert(sizeof(off_t) == 8);

TEST(Sizes, ProxyQueryIsTheSameBytesOnEveryMachine) {
    ProxyQuery query;
    std::strcpy(query.host, "proxy"); // NOLINT(clang-analyzer-security.insecureAPI.strcpy)
    query.port = 0x01020304;
    std::vector<unsigned char> bytes(sizeof query);
    std::memcpy(bytes.data(), &query, sizeof query);

    std::vector<unsigned char> expected(140);
    expected[0] = 140; // little-endian, as every machine of the platform is
    std::memcpy(&expected[4], "proxy", 5);
    expected[136] = 4;
    expected[137] = 3;
    expected[138] = 2;
    expected[139] = 1;
    EXPECT_EQ(bytes, expected);
}

TEST(Sizes, LongestWaitOf32BitsBecomesADeadlineInMicroseconds) {
    Parameters parameters;
    parameters.set("orvexd/wait_timeout/position", "2147483647");
    const std::chrono::microseconds wait = RequestBody::waitTimeout("position", parameters);
    EXPECT_EQ(wait.count(), 2147483647000LL);
}

} // namespace
} // namespace orvexd::test
