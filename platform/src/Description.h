#pragma once

#include "Answers.h"
#include "IPlatformSource.h"
#include "Settings.h"
#include "trilba/Export.h"
#include "trilba/network/IConnectionManager.h"

#include <functional>
#include <string>
#include <vector>

namespace trilba {

/// How a manager comes to its answers, for tools that come with the library.
struct Description {
    std::string path; ///< of the platform file
    SourceName source = SourceName::File;
    bool hasAnswered = true; ///< false: no source has told anything yet
    std::vector<Remark> remarks;
    Settings file;    ///< what the platform file says, or said when it was last good
    Settings answers; ///< what the library answers
};

/// Main-loop thread. `manager` comes from `IConnectionManager::create`.
TRILBA_API Description describe(network::IConnectionManager& manager);

/// From now on `heard` runs when the description of `manager` may have changed, notification or
/// not. It must not delete the manager.
TRILBA_API void onDescriptionChange(network::IConnectionManager& manager,
                                    std::function<void()> heard);

} // namespace trilba
