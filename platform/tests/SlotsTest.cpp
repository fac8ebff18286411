// The order of the virtual operations is what a caller compiled elsewhere relies on.

#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>

#include "trilba/core/ISystemLocationSettings.h"
#include "trilba/network/IConnectionManager.h"

namespace trilba::test {

namespace {

constexpr std::size_t kNotVirtual = 0;

/// Slot of a virtual operation in the class's table, counted from 1, as the Itanium C++ ABI encodes
/// it in a pointer to member function. ARM marks a virtual one in the adjustment instead of in the
/// address, where the lowest bit tells Thumb code.
template <typename Member> std::size_t slotOf(Member member) {
    struct {
        std::ptrdiff_t place;
        std::ptrdiff_t adjustment;
    } raw;
    static_assert(sizeof raw == sizeof member);
    std::memcpy(&raw, &member, sizeof raw);
#if defined(__arm__) || defined(__aarch64__)
    const bool isVirtual = (raw.adjustment & 1) != 0;
    const std::ptrdiff_t offset = raw.place;
#else
    const bool isVirtual = (raw.place & 1) != 0;
    const std::ptrdiff_t offset = raw.place - 1;
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
