#pragma once

#include "IPlatformSource.h"

#include <memory>
#include <string>
#include <vector>

namespace trilba::test {

/// What stands in for the module of the NetworkManager source, and for what it makes.
struct FakeModule {
    bool isInstalled = true;
    int lookedFor = 0; ///< how often somebody asked whether it is installed
    std::string fault; ///< why no source can be made; empty: it can
    int made = 0;
    int alive = 0;
    ISourceOwner* owner = nullptr;        ///< of the source that was made last
    std::shared_ptr<const Settings> file; ///< as that source was told last
    std::shared_ptr<const Settings> state = std::make_shared<const Settings>();

    /// What the sources know from now on; nobody is told.
    void know(Settings settings) { state = std::make_shared<const Settings>(std::move(settings)); }

    static FakeModule& instance();
};

} // namespace trilba::test
