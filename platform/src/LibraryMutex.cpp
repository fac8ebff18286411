#include "LibraryMutex.h"

namespace trilba {

std::mutex& libraryMutex() {
    static std::mutex mutex; // constant-initialised and trivially destroyed: usable at any time
    return mutex;
}

} // namespace trilba
