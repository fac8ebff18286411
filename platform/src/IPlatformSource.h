#pragma once

#include "Settings.h"

#include <memory>
#include <string>
#include <vector>

namespace trilba {

/// What somebody who examines the device should know: one sentence, without an end.
struct Remark {
    std::string text;
    bool isFault = false; ///< nothing will work until it is mended

    bool operator==(const Remark&) const = default;
};

/// Hears what a source has to tell. Main-loop thread. Either call may destroy the source that makes
/// it, so a source makes it last.
class ISourceOwner {
public:
    virtual ~ISourceOwner() = default;

    /// The list of connections changed, or the network below it, or all of the state.
    virtual void onSourceChanged() = 0;

    /// Something else changed: identity, proxy or remarks. Nobody has to be notified of that.
    virtual void onSourceDetailsChanged() = 0;
};

/// Where the answers of the library come from. Main-loop thread only; a source never waits.
///
/// The library takes a copy of `state` after each call of the owner and answers every thread's
/// questions from it, with the groups of the platform file that override it.
class IPlatformSource {
public:
    virtual ~IPlatformSource() = default;

    /// What the platform file says: before anything else, and again after each change of the file.
    virtual void follow(const std::shared_ptr<const Settings>& file) = 0;

    /// What the source knows at this moment; never null. The list of connections changes only
    /// together with `onSourceChanged`, and within `follow` of a source that is the file itself.
    [[nodiscard]] virtual std::shared_ptr<const Settings> state() const = 0;

    /// Whether the state is more than what holds until the first answer.
    [[nodiscard]] virtual bool hasAnswered() const = 0;

    [[nodiscard]] virtual std::vector<Remark> remarks() const = 0;
};

/// A module exports one function of this type under the name `kMakeSource`. The owner outlives the
/// source. The result belongs to the caller, who deletes it.
using MakeSource = IPlatformSource* (*)(ISourceOwner& owner);

/// Ends with a number that changes with the interfaces above and with `Settings`: a module of
/// another version is not loaded.
constexpr const char* kMakeSource = "trilbaMakeSource1";

} // namespace trilba
