#pragma once

#include <mutex>

namespace trilba {

/// The one lock of the library. It guards the directories, the last good settings and the state of
/// the connection managers. It is held for copying only: never while a file is read and never while
/// an observer runs, so it may be taken under any lock of the caller.
std::mutex& libraryMutex();

} // namespace trilba
