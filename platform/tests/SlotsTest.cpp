// The order of the virtual operations is what a caller compiled elsewhere relies on.

#include "trilba/core/ISystemLocationSettings.h"
#include "trilba/network/IConnectionManager.h"

#include <bit>
#include <cstddef>
#include <gtest/gtest.h>

namespace trilba::test {

namespace {

constexpr std::size_t kNotVirtual = 0;

struct MemberPointer {
    std::ptrdiff_t place;
    std::ptrdiff_t adjustment;
};

/// Slot of a virtual operation in the class's table, counted from 1, as the Itanium C++ ABI encodes
/// it in a pointer to member function. ARM marks a virtual one in the adjustment instead of in the
/// address, where the lowest bit tells Thumb code.
template <typename Member> std::size_t slotOf(Member member) {
    [[maybe_unused]] const auto [place, adjustment] = std::bit_cast<MemberPointer>(member);
#if defined(__arm__) || defined(__aarch64__)
    const bool isVirtual = (adjustment & 1) != 0;
    const std::ptrdiff_t offset = place;
#else
    const bool isVirtual = (place & 1) != 0;
    const std::ptrdiff_t offset = place - 1;
#endif
    return isVirtual ? static_cast<std::size_t>(offset) / sizeof(void*) + 1 : kNotVirtual;
}

} // namespace

TEST(Slots, LocationSettings) {
    using core::ISystemLocationSettings;
    EXPECT_EQ(slotOf(&ISystemLocationSettings::isNetworkPositioningPermitted), 3U);
    EXPECT_EQ(slotOf(&ISystemLocationSettings::isNetworkPositioningStated), 4U);
    EXPECT_EQ(slotOf(&ISystemLocationSettings::isNetworkPositioningEnabled), 5U);
}

TEST(Slots, ConnectionManager) {
    using network::IConnectionManager;
    EXPECT_EQ(slotOf(&IConnectionManager::getConnections), 3U);
    EXPECT_EQ(slotOf(&IConnectionManager::connectionCount), 4U);
    EXPECT_EQ(slotOf(&IConnectionManager::hasActiveConnection), 5U);
    EXPECT_EQ(slotOf(&IConnectionManager::registerObserver), 6U);
    EXPECT_EQ(slotOf(&IConnectionManager::unregisterObserver), 7U);
    EXPECT_EQ(slotOf(&IConnectionManager::findConnection), 8U);
    EXPECT_EQ(slotOf(&IConnectionManager::lookUpProxy), 9U);
}

TEST(Slots, ConnectionManagerObserver) {
    using network::IConnectionManagerObserver;
    EXPECT_EQ(slotOf(&IConnectionManagerObserver::onConnectionsChanged), 3U);
    EXPECT_EQ(slotOf(&IConnectionManagerObserver::onSecondaryNotification), 4U);
}

} // namespace trilba::test
