#pragma once

#include <malloc.h>

namespace orvexd {

/// Gives back to the system what the allocator keeps of freed memory. Any thread.
///
/// The allocator keeps pages between those that are in use, in an arena per thread: without this
/// the daemon would go on holding about the most that any exchange has ever needed.
inline void returnFreeMemory() noexcept {
#ifdef __GLIBC__
    (void)malloc_trim(0); // whether there was anything to give back does not matter
#endif
}

} // namespace orvexd
