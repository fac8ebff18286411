#pragma once

#include "trilba/Export.h"

namespace trilba::core {

/// The user's choices about positioning. Every question is answered from the platform file as it
/// is at the moment of the question. Any thread; the object holds no state of its own.
///
/// The order of the virtual operations is the binary interface; slots count from 1 and the two
/// destructor entries are slots 1 and 2.
class TRILBA_API ISystemLocationSettings {
public:
    virtual ~ISystemLocationSettings() = default;

    /// Slot 3: may the network be used to find the position? `[Location] NetworkPositioning`,
    /// default true.
    [[nodiscard]] virtual bool isNetworkPositioningPermitted() = 0;

    /// Slot 4: does the platform file state the choice, or is it the default that answers?
    [[nodiscard]] virtual bool isNetworkPositioningStated() = 0;

    /// Slot 5: may an exchange with a positioning server begin? The same key as slot 3.
    [[nodiscard]] virtual bool isNetworkPositioningEnabled() = 0;

    /// @return a new object that the caller owns and deletes; never null. The pointer is plain
    ///         because it is part of the binary interface: put it into a `std::unique_ptr` at once.
    [[nodiscard]] static ISystemLocationSettings* create();
};

} // namespace trilba::core
