// What the library finds in this module.

#include "networkmanager/NetworkManagerSource.h"
#include "trilba/Export.h"

#include <type_traits>

namespace {} // namespace

extern "C" TRILBA_API trilba::IPlatformSource* trilbaMakeSource1(trilba::ISourceOwner& owner);

extern "C" trilba::IPlatformSource* trilbaMakeSource1(trilba::ISourceOwner& owner) {
    static_assert(std::is_same_v<decltype(&trilbaMakeSource1), trilba::MakeSource>);
    return std::make_unique<trilba::live::NetworkManagerSource>(owner).release();
}
