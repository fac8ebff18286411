#pragma once

#include "Settings.h"

#include <memory>
#include <string>

namespace trilba {

/// Where the answers come from.
enum class SourceName { File, NetworkManager };

/// What the choice depends on besides the file.
struct Surroundings {
    bool fileIsNamed = false;       ///< the environment names a platform file
    bool moduleIsInstalled = false; ///< the module of the NetworkManager source
};

/// Which source a platform file, or its absence, means.
SourceName chosenSource(const Settings& file, const Surroundings& surroundings);

/// The same, in this process as it is now. Any thread.
SourceName chosenSource(const Settings& file);

/// What holds when a live source says `live`: the groups of the file that override it do so as a
/// whole.
Settings overridden(const Settings& live, const Settings& file);

/// What the live source said last, for the questions of every thread. One source in a process has
/// the word: the one that spoke last.
class LiveState {
public:
    /// Never null. Without a source it has no connections and what the system's own files tell.
    static std::shared_ptr<const Settings> get();
    static void set(std::shared_ptr<const Settings> state);

    /// The state of a system of which nothing is known but its files.
    static Settings initial();
};

/// The answers at this moment, with the platform file at `path`. Any thread.
std::shared_ptr<const Settings> answersNow(const std::string& path);

/// With the file at its usual place.
std::shared_ptr<const Settings> answersNow();

} // namespace trilba
