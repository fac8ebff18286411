#include "dbus/DbusService.h"

#include <bit>
#include <cstddef>
#include <gtest/gtest.h>
#include <type_traits>

namespace orvexd {
namespace {

constexpr int kNotVirtual = -1;

/// Slot of a virtual operation in its class's table, as the C++ ABI encodes it in a pointer to
/// member. ARM marks a virtual one in the adjustment, other machines in the address.
template <typename Member> int slotOf(Member member) {
    struct Encoded {
        std::ptrdiff_t place;
        std::ptrdiff_t adjustment;
    };
    [[maybe_unused]] const auto [place, adjustment] = std::bit_cast<Encoded>(member);
#if defined(__arm__) || defined(__aarch64__)
    const bool isVirtual = (adjustment & 1) != 0;
    const std::ptrdiff_t offset = place;
#else
    const bool isVirtual = (place & 1) != 0;
    const std::ptrdiff_t offset = place - 1;
#endif
    return isVirtual ? static_cast<int>(offset / static_cast<std::ptrdiff_t>(sizeof(void*)))
                     : kNotVirtual;
}

// Slots 0 and 1 are the two entries of the destructor.
static_assert(std::has_virtual_destructor_v<IMainLoop>);
static_assert(std::is_abstract_v<IMainLoop>);

TEST(IMainLoop, OperationsStandInTheirSlots) {
    EXPECT_EQ(slotOf(&IMainLoop::init), 2);
    EXPECT_EQ(slotOf(&IMainLoop::deinit), 3);
    EXPECT_EQ(slotOf(&IMainLoop::run), 4);
    EXPECT_EQ(slotOf(&IMainLoop::quit), 5);
    EXPECT_EQ(slotOf(&IMainLoop::getService), 6);
    EXPECT_EQ(slotOf(&IMainLoop::checkEnvironment), 7);
}

/// Adds one operation of its own, which takes the first free slot.
class Derived : public IMainLoop {
public:
    virtual void next() = 0;
};

TEST(IMainLoop, HasEightSlots) {
    EXPECT_EQ(slotOf(&Derived::next), 8);
}

} // namespace
} // namespace orvexd
