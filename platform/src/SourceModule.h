#pragma once

#include "IPlatformSource.h"

#include <memory>
#include <string>

namespace trilba {

/// The NetworkManager source, which is a module of its own: only who uses it loads it and the
/// libraries that it needs. It lies in the folder `trilba` beside this library, in a build tree,
/// too.
class SourceModule {
public:
    static std::string path();

    /// Whether the module was there when this was asked first: the answers of one process come from
    /// one source. Any thread.
    static bool isInstalled();

    /// Loads the module, once, and makes a source. Main-loop thread.
    /// @return null, and `fault` says why, when the module is not there or cannot be loaded.
    static std::unique_ptr<IPlatformSource> makeSource(ISourceOwner& owner, std::string& fault);
};

} // namespace trilba
