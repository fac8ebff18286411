// What the library finds in this module.

#include "networkmanager/NetworkManagerSource.h"
#include "trilba/Export.h"

#include <type_traits>

namespace {

/// GLib asks the resolver of a desktop first, which a daemon has no use for, and which brings a
/// thread and a search for the session's bus along. An environment that names one is left alone.
void preferTheSystemsProxyResolver() {
    g_setenv("GIO_USE_PROXY_RESOLVER", "libproxy", FALSE);
}

trilba::IPlatformSource* makeSource(trilba::ISourceOwner& owner) {
    preferTheSystemsProxyResolver();
    return std::make_unique<trilba::live::NetworkManagerSource>(owner).release();
}

} // namespace

extern "C" TRILBA_API trilba::IPlatformSource* trilbaMakeSource1(trilba::ISourceOwner& owner);

extern "C" trilba::IPlatformSource* trilbaMakeSource1(trilba::ISourceOwner& owner) {
    static_assert(std::is_same_v<decltype(&trilbaMakeSource1), trilba::MakeSource>);
    return makeSource(owner);
}
